// Readings of the machine's state that decide whether background work may run now. Each answers
// absent when it cannot tell (no such service, no such file); callers treat that as no objection.
// The files under /sys are read below `sysRoot`, so a test can lay out a tree of its own.
#pragma once

#include <optional>
#include <string>

namespace dedup::platform {

// The power profile in force: power-profiles-daemon's ActiveProfile ("power-saver", "balanced",
// "performance") over the system bus.
std::optional<std::string> activePowerProfile();
// The firmware's platform profile ("low-power", "balanced", ...), from firmware/acpi/platform_profile.
std::optional<std::string> platformProfile(const std::string& sysRoot = "/sys");

// Whether some thermal zone is at or above its lowest "passive" or "hot" trip point.
std::optional<bool> thermalTripReached(const std::string& sysRoot = "/sys");

// Whether the machine runs on its battery: UPower's OnBattery over the system bus.
std::optional<bool> upowerOnBattery();
// The same from class/power_supply: a mains or USB supply online means no; without a battery of
// the machine's own (a peripheral's does not count) also no, whatever the other supplies say; a
// discharging battery, or a battery with every listed supply offline, means yes.
std::optional<bool> powerSupplyOnBattery(const std::string& sysRoot = "/sys");

// Seconds since the user last touched the machine, from logind's IdleHint and IdleSinceHint of the
// user's graphical sessions: 0 while one of them is not idle. Absent when there is no graphical
// session or logind cannot be asked.
std::optional<double> secondsSinceUserInput();

}  // namespace dedup::platform
