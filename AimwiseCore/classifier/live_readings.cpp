#include "AimwiseCore/classifier/live_readings.h"

#include <map>
#include <string>

namespace aimwise {

namespace CallActivityProbe {

CallActivityReading reading(const std::vector<CallActivity::AudioStream>& streams) {
    // Streams of one process belong together, whichever of its names the sound server reports.
    std::map<std::string, AudioProcessActivity> byProcess;
    std::vector<std::string> order;
    for (const auto& stream : streams) {
        const std::string key = stream.processId ? "pid:" + std::to_string(*stream.processId)
                                : stream.processBinary ? "bin:" + *stream.processBinary
                                                       : "name:" + stream.applicationName;
        auto [it, inserted] = byProcess.try_emplace(key);
        if (inserted) {
            order.push_back(key);
            it->second.name = stream.applicationName.empty() ? stream.processBinary.value_or("") : stream.applicationName;
            it->second.appID = stream.processBinary;
        }
        if (stream.corked) continue;
        if (stream.direction == CallActivity::AudioStream::Direction::capture) {
            it->second.runningInput = true;
        } else {
            it->second.runningOutput = true;
        }
    }
    CallActivityReading result;
    for (const auto& key : order) result.processes.push_back(byProcess[key]);
    return result;
}

std::optional<CallActivityReading> read() {
    const auto streams = CallActivity::liveStreams();
    if (!streams) return std::nullopt;
    return reading(*streams);
}

}  // namespace CallActivityProbe

namespace LivePowerSnapshot {

ClassifierPowerPolicy::PowerSnapshot fromSource(const PowerSource::Snapshot& snapshot) {
    ClassifierPowerPolicy::PowerSnapshot result;
    if (snapshot.onBattery)
        result.liveSource = *snapshot.onBattery ? ClassifierPowerPolicy::PowerSource::battery
                                                : ClassifierPowerPolicy::PowerSource::ac;
    result.isPluggedIn = snapshot.isPluggedIn;
    return result;
}

ClassifierPowerPolicy::PowerSnapshot read() { return fromSource(PowerSource::read()); }

}  // namespace LivePowerSnapshot
}  // namespace aimwise
