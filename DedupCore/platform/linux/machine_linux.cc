#include "../machine.h"

#include <gio/gio.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>

namespace dedup::platform {

namespace {

namespace fs = std::filesystem;

std::optional<std::string> firstLine(const fs::path& path) {
    std::ifstream in(path);
    std::string line;
    if (!in || !std::getline(in, line)) return std::nullopt;
    while (!line.empty() && (line.back() == ' ' || line.back() == '\r')) line.pop_back();
    return line;
}

std::optional<long long> number(const fs::path& path) {
    auto text = firstLine(path);
    if (!text) return std::nullopt;
    try {
        return std::stoll(*text);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

struct VariantDeleter {
    void operator()(GVariant* v) const { g_variant_unref(v); }
};
using Variant = std::unique_ptr<GVariant, VariantDeleter>;

// A short timeout: a service that does not answer at once counts as absent, and the caller goes on.
constexpr int busTimeoutMs = 500;

GDBusConnection* systemBus() {
    GError* error = nullptr;
    // GIO keeps one shared connection per bus; the reference taken here is never given back, so
    // later calls cost no connection.
    static GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    if (error) g_error_free(error);
    return bus;
}

Variant call(const char* service, const char* object, const char* interface, const char* method,
             GVariant* parameters, const char* replyType) {
    GDBusConnection* bus = systemBus();
    if (!bus) {
        if (parameters) g_variant_unref(g_variant_ref_sink(parameters));
        return nullptr;
    }
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_sync(bus, service, object, interface, method, parameters,
                                                  G_VARIANT_TYPE(replyType), G_DBUS_CALL_FLAGS_NO_AUTO_START,
                                                  busTimeoutMs, nullptr, &error);
    if (error) g_error_free(error);
    return Variant(reply);
}

// The value of a D-Bus property, unwrapped from its "(v)" reply.
Variant property(const char* service, const char* object, const char* interface, const char* name) {
    Variant reply = call(service, object, "org.freedesktop.DBus.Properties", "Get",
                         g_variant_new("(ss)", interface, name), "(v)");
    if (!reply) return nullptr;
    GVariant* value = nullptr;
    g_variant_get(reply.get(), "(v)", &value);
    return Variant(value);
}

std::optional<std::string> stringProperty(const char* service, const char* object, const char* interface,
                                          const char* name) {
    Variant value = property(service, object, interface, name);
    if (!value || !g_variant_is_of_type(value.get(), G_VARIANT_TYPE_STRING)) return std::nullopt;
    return std::string(g_variant_get_string(value.get(), nullptr));
}

std::optional<bool> boolProperty(const char* service, const char* object, const char* interface, const char* name) {
    Variant value = property(service, object, interface, name);
    if (!value || !g_variant_is_of_type(value.get(), G_VARIANT_TYPE_BOOLEAN)) return std::nullopt;
    return g_variant_get_boolean(value.get()) != 0;
}

}  // namespace

std::optional<std::string> activePowerProfile() {
    // The daemon moved to UPower's name; older releases still answer only under the first one.
    if (auto profile = stringProperty("org.freedesktop.UPower.PowerProfiles", "/org/freedesktop/UPower/PowerProfiles",
                                      "org.freedesktop.UPower.PowerProfiles", "ActiveProfile")) {
        return profile;
    }
    return stringProperty("net.hadess.PowerProfiles", "/net/hadess/PowerProfiles", "net.hadess.PowerProfiles",
                          "ActiveProfile");
}

std::optional<std::string> platformProfile(const std::string& sysRoot) {
    return firstLine(fs::path(sysRoot) / "firmware/acpi/platform_profile");
}

std::optional<bool> thermalTripReached(const std::string& sysRoot) {
    std::error_code ec;
    fs::directory_iterator zones(fs::path(sysRoot) / "class/thermal", ec);
    if (ec) return std::nullopt;
    std::optional<bool> reached;
    for (const auto& zone : zones) {
        if (!zone.path().filename().string().starts_with("thermal_zone")) continue;
        auto temperature = number(zone.path() / "temp");
        if (!temperature) continue;
        // The lowest trip point at which the firmware itself would start to cool or throttle.
        long long lowest = std::numeric_limits<long long>::max();
        for (int trip = 0;; ++trip) {
            auto prefix = "trip_point_" + std::to_string(trip);
            auto type = firstLine(zone.path() / (prefix + "_type"));
            if (!type) break;
            if (*type != "passive" && *type != "hot") continue;
            auto limit = number(zone.path() / (prefix + "_temp"));
            // Zero or negative limits are placeholders firmware leaves unset.
            if (limit && *limit > 0) lowest = std::min(lowest, *limit);
        }
        if (lowest == std::numeric_limits<long long>::max()) continue;
        if (*temperature >= lowest) return true;
        reached = false;
    }
    return reached;
}

std::optional<bool> upowerOnBattery() {
    return boolProperty("org.freedesktop.UPower", "/org/freedesktop/UPower", "org.freedesktop.UPower", "OnBattery");
}

std::optional<bool> powerSupplyOnBattery(const std::string& sysRoot) {
    std::error_code ec;
    fs::directory_iterator supplies(fs::path(sysRoot) / "class/power_supply", ec);
    if (ec) return std::nullopt;
    bool supplySeen = false, mainsSeen = false, batterySeen = false, discharging = false;
    for (const auto& supply : supplies) {
        auto type = firstLine(supply.path() / "type");
        if (!type) continue;
        supplySeen = true;
        if (*type == "Mains" || *type == "USB") {
            mainsSeen = true;
            if (number(supply.path() / "online").value_or(0) == 1) return false;
        } else if (*type == "Battery") {
            // A peripheral's battery (a mouse, a headset) does not power the machine.
            if (firstLine(supply.path() / "scope").value_or("System") == "Device") continue;
            batterySeen = true;
            if (firstLine(supply.path() / "status").value_or("") == "Discharging") discharging = true;
        }
    }
    // Desktops and servers list mains and USB-C supplies that read offline while the machine runs
    // from a power supply the kernel does not list: without a battery of its own, the machine
    // cannot be running on one.
    if (!batterySeen) return supplySeen ? std::optional<bool>(false) : std::nullopt;
    if (discharging) return true;
    // A battery charging or full with no supply listed is fed by one the kernel does not name; with
    // supplies listed and none online, the battery is what powers the machine.
    return mainsSeen;
}

std::optional<double> secondsSinceUserInput() {
    Variant sessions = call("org.freedesktop.login1", "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                            "ListSessions", nullptr, "(a(susso))");
    if (!sessions) return std::nullopt;
    const uint32_t me = ::getuid();
    std::optional<double> idle;
    GVariantIter* iter = nullptr;
    g_variant_get(sessions.get(), "(a(susso))", &iter);
    const char *id, *user, *seat, *object;
    uint32_t uid;
    while (g_variant_iter_loop(iter, "(&su&s&s&o)", &id, &uid, &user, &seat, &object)) {
        if (uid != me) continue;
        auto type = stringProperty("org.freedesktop.login1", object, "org.freedesktop.login1.Session", "Type");
        if (!type || (*type != "x11" && *type != "wayland" && *type != "mir")) continue;
        auto idleHint = boolProperty("org.freedesktop.login1", object, "org.freedesktop.login1.Session", "IdleHint");
        if (!idleHint) continue;
        double seconds = 0;
        if (*idleHint) {
            Variant since = property("org.freedesktop.login1", object, "org.freedesktop.login1.Session", "IdleSinceHint");
            if (!since || !g_variant_is_of_type(since.get(), G_VARIANT_TYPE_UINT64)) continue;
            auto now = std::chrono::duration_cast<std::chrono::microseconds>(
                           std::chrono::system_clock::now().time_since_epoch())
                           .count();
            seconds = std::max<double>(0, static_cast<double>(now - static_cast<int64_t>(g_variant_get_uint64(since.get()))) / 1e6);
        }
        // The most recently used session decides.
        idle = idle ? std::min(*idle, seconds) : seconds;
    }
    g_variant_iter_free(iter);
    return idle;
}

}  // namespace dedup::platform
