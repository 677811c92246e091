#include "machine_state.h"

#include "platform/machine.h"

namespace dedup {

std::string_view phrase(HeldBack reason) {
    switch (reason) {
        case HeldBack::lowPowerMode: return "low-power mode";
        case HeldBack::tooHot: return "too hot";
        case HeldBack::onBattery: return "on battery";
        case HeldBack::userActive: return "user active";
    }
    return "";
}

std::optional<bool> MachineSensors::lowPowerMode() const {
    if (auto profile = platform::activePowerProfile()) return *profile == "power-saver";
    if (auto profile = platform::platformProfile()) return *profile == "low-power";
    return std::nullopt;
}

std::optional<bool> MachineSensors::hot() const { return platform::thermalTripReached(); }

std::optional<bool> MachineSensors::onBattery() const {
    if (auto answer = platform::upowerOnBattery()) return answer;
    return platform::powerSupplyOnBattery();
}

std::optional<double> MachineSensors::secondsSinceUserInput() const { return platform::secondsSinceUserInput(); }

std::optional<HeldBack> heldBack(const MachineSensors& sensors) {
    if (sensors.lowPowerMode().value_or(false)) return HeldBack::lowPowerMode;
    if (sensors.hot().value_or(false)) return HeldBack::tooHot;
    if (sensors.onBattery().value_or(false)) return HeldBack::onBattery;
    // Without a graphical session nobody can be at the keyboard.
    if (sensors.secondsSinceUserInput().value_or(userIdleSeconds) < userIdleSeconds) return HeldBack::userActive;
    return std::nullopt;
}

}  // namespace dedup
