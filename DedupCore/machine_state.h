// Whether the machine may be burdened with background work now: not in low-power mode, not hot,
// not on battery, and nobody at the keyboard for a minute. Each reading that cannot be made raises
// no objection, so a server without a battery, thermal zones or a desktop session always may.
// No state; any thread.
#pragma once

#include <optional>
#include <string_view>

namespace dedup {

// Why background work waits, in the order the readings are asked.
enum class HeldBack { lowPowerMode, tooHot, onBattery, userActive };
std::string_view phrase(HeldBack reason);

// The readings, each behind a virtual so a test can set the machine's state. The base reads the
// running system.
struct MachineSensors {
    virtual ~MachineSensors() = default;
    virtual std::optional<bool> lowPowerMode() const;
    virtual std::optional<bool> hot() const;
    virtual std::optional<bool> onBattery() const;
    virtual std::optional<double> secondsSinceUserInput() const;
};

// Input this recent means the user is at the machine.
inline constexpr double userIdleSeconds = 60.0;

// The first objection, asked in order (later readings are not made); absent when the machine is free.
std::optional<HeldBack> heldBack(const MachineSensors& sensors = MachineSensors{});

}  // namespace dedup
