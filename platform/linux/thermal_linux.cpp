#include "platform/thermal.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <fstream>
#include <system_error>

namespace aimwise {

const char* rawValue(ThermalPressure pressure) {
    switch (pressure) {
        case ThermalPressure::nominal:
            return "nominal";
        case ThermalPressure::fair:
            return "fair";
        case ThermalPressure::serious:
            return "serious";
        case ThermalPressure::critical:
            return "critical";
    }
    return "nominal";
}

namespace Thermal {

namespace {

namespace fs = std::filesystem;

// Below absolute zero or hotter than any sensor survives: a driver's error value, not a reading.
constexpr double lowestPlausibleC = -60;
constexpr double highestPlausibleC = 200;
constexpr double fairMarginC = 10;
constexpr double assumedPassiveBelowCriticalC = 20;

std::optional<std::string> attribute(const fs::path& path) {
    std::ifstream in(path);
    std::string line;
    if (!in || !std::getline(in, line)) return std::nullopt;
    while (!line.empty() && (line.back() == ' ' || line.back() == '\r')) line.pop_back();
    return line;
}

// sysfs gives whole millidegrees Celsius.
std::optional<double> celsius(const fs::path& path) {
    const auto text = attribute(path);
    if (!text || text->empty()) return std::nullopt;
    long long milli = 0;
    const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), milli);
    if (error != std::errc() || end != text->data() + text->size()) return std::nullopt;
    const double value = static_cast<double>(milli) / 1000.0;
    if (value < lowestPlausibleC || value > highestPlausibleC) return std::nullopt;
    return value;
}

void setLowest(std::optional<double>& trip, double value) {
    if (value > 0 && (!trip || value < *trip)) trip = value;
}

bool typeNames(const std::string& type, std::string_view word) {
    std::string lower(type);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return std::tolower(c); });
    return lower.find(word) != std::string::npos;
}

void keepHottest(std::optional<double>& slot, double value) {
    if (!slot || value > *slot) slot = value;
}

}  // namespace

std::vector<Zone> readZones(const fs::path& root) {
    std::vector<fs::path> paths;
    std::error_code error;
    for (fs::directory_iterator it(root, error), end; !error && it != end; it.increment(error))
        if (it->path().filename().string().starts_with("thermal_zone")) paths.push_back(it->path());
    std::sort(paths.begin(), paths.end());

    std::vector<Zone> zones;
    for (const auto& path : paths) {
        const auto temp = celsius(path / "temp");
        if (!temp) continue;
        Zone zone{.type = attribute(path / "type").value_or(""), .tempC = *temp};
        for (int trip = 0; trip < 32; ++trip) {
            const std::string prefix = "trip_point_" + std::to_string(trip) + "_";
            const auto type = attribute(path / (prefix + "type"));
            if (!type) break;
            const auto value = celsius(path / (prefix + "temp"));
            if (!value) continue;
            if (*type == "passive")
                setLowest(zone.passiveTripC, *value);
            else if (*type == "hot")
                setLowest(zone.hotTripC, *value);
            else if (*type == "critical")
                setLowest(zone.criticalTripC, *value);
        }
        zones.push_back(std::move(zone));
    }
    return zones;
}

std::optional<ThermalPressure> pressureOf(const Zone& zone) {
    std::optional<double> passive = zone.passiveTripC;
    if (!passive && zone.criticalTripC) passive = *zone.criticalTripC - assumedPassiveBelowCriticalC;
    if (!passive) return std::nullopt;
    const double t = zone.tempC;
    if (zone.hotTripC && t >= *zone.hotTripC) return ThermalPressure::critical;
    if (zone.criticalTripC && *zone.criticalTripC > *passive && t >= (*passive + *zone.criticalTripC) / 2)
        return ThermalPressure::critical;
    if (t >= *passive) return ThermalPressure::serious;
    if (t >= *passive - fairMarginC) return ThermalPressure::fair;
    return ThermalPressure::nominal;
}

Reading summarize(const std::vector<Zone>& zones) {
    Reading reading;
    std::optional<double> package, namedCPU;
    for (const Zone& zone : zones) {
        if (zone.type == "x86_pkg_temp")
            keepHottest(package, zone.tempC);
        else if (typeNames(zone.type, "cpu"))
            keepHottest(namedCPU, zone.tempC);
        if (typeNames(zone.type, "gpu")) keepHottest(reading.gpuTempC, zone.tempC);
        if (const auto pressure = pressureOf(zone);
            pressure && (!reading.pressure || *pressure > *reading.pressure))
            reading.pressure = pressure;
    }
    reading.cpuTempC = package ? package : namedCPU;
    return reading;
}

Reading read(const fs::path& root) {
    return summarize(readZones(root));
}

}  // namespace Thermal
}  // namespace aimwise
