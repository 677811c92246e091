#include "machine_state.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "platform/machine.h"
#include "support/test_files.h"

namespace dedup {
namespace {

struct FakeSensors : MachineSensors {
    std::optional<bool> lowPower, heat, battery;
    std::optional<double> idle;
    mutable int asked = 0;
    std::optional<bool> lowPowerMode() const override { return ++asked, lowPower; }
    std::optional<bool> hot() const override { return ++asked, heat; }
    std::optional<bool> onBattery() const override { return ++asked, battery; }
    std::optional<double> secondsSinceUserInput() const override { return ++asked, idle; }
};

TEST(MachineStateTest, FirstObjectionWinsAndUnknownReadingsPass) {
    FakeSensors sensors;
    EXPECT_EQ(heldBack(sensors), std::nullopt);  // nothing known: a server, a container

    sensors.idle = 59.0;
    EXPECT_EQ(heldBack(sensors), HeldBack::userActive);
    sensors.idle = 60.0;
    EXPECT_EQ(heldBack(sensors), std::nullopt);

    sensors.battery = true;
    sensors.heat = true;
    sensors.lowPower = false;
    sensors.asked = 0;
    EXPECT_EQ(heldBack(sensors), HeldBack::tooHot);
    EXPECT_EQ(sensors.asked, 2);  // the battery and the user are not asked once the answer is known
    sensors.heat = false;
    EXPECT_EQ(heldBack(sensors), HeldBack::onBattery);
    sensors.lowPower = true;
    EXPECT_EQ(heldBack(sensors), HeldBack::lowPowerMode);
    EXPECT_EQ(phrase(HeldBack::onBattery), "on battery");
}

TEST(MachineStateTest, SysfsReadingsOfHeatAndPower) {
    test::TempDir sys;
    auto zone = [&](int n, const std::string& temp, std::vector<std::pair<std::string, std::string>> trips) {
        std::string dir = sys.path("class/thermal/thermal_zone" + std::to_string(n));
        std::filesystem::create_directories(dir);
        test::writeFile(dir + "/temp", temp + "\n");
        for (size_t i = 0; i < trips.size(); ++i) {
            test::writeFile(dir + "/trip_point_" + std::to_string(i) + "_type", trips[i].first + "\n");
            test::writeFile(dir + "/trip_point_" + std::to_string(i) + "_temp", trips[i].second + "\n");
        }
    };
    EXPECT_EQ(platform::thermalTripReached(sys.path()), std::nullopt);
    // Only passive and hot trip points count; the critical one is far above them.
    zone(0, "71000", {{"critical", "70000"}, {"passive", "80000"}, {"hot", "95000"}});
    EXPECT_EQ(platform::thermalTripReached(sys.path()), false);
    zone(1, "90000", {{"active", "50000"}, {"hot", "85000"}, {"passive", "0"}});
    EXPECT_EQ(platform::thermalTripReached(sys.path()), true);

    auto supply = [&](const std::string& name, std::vector<std::pair<std::string, std::string>> values) {
        std::string dir = sys.path("class/power_supply/" + name);
        std::filesystem::create_directories(dir);
        for (const auto& [file, value] : values) test::writeFile(dir + "/" + file, value + "\n");
    };
    EXPECT_EQ(platform::powerSupplyOnBattery(sys.path()), std::nullopt);
    // A desktop or server: supplies that read offline, and no battery of its own (a mouse's does
    // not count). There is nothing to wait for.
    supply("hidpp_battery_0", {{"type", "Battery"}, {"scope", "Device"}, {"status", "Discharging"}});
    supply("ucsi-source-psy-USBC000:001", {{"type", "USB"}, {"online", "0"}});
    supply("AC", {{"type", "Mains"}, {"online", "0"}});
    EXPECT_EQ(platform::powerSupplyOnBattery(sys.path()), false);

    supply("BAT0", {{"type", "Battery"}, {"status", "Not charging"}});
    EXPECT_EQ(platform::powerSupplyOnBattery(sys.path()), true);  // every listed supply offline
    supply("BAT0", {{"type", "Battery"}, {"status", "Discharging"}});
    EXPECT_EQ(platform::powerSupplyOnBattery(sys.path()), true);
    supply("AC", {{"type", "Mains"}, {"online", "1"}});
    EXPECT_EQ(platform::powerSupplyOnBattery(sys.path()), false);

    std::filesystem::create_directories(sys.path("firmware/acpi"));
    test::writeFile(sys.path("firmware/acpi/platform_profile"), "low-power\n");
    EXPECT_EQ(platform::platformProfile(sys.path()), "low-power");
}

}  // namespace
}  // namespace dedup
