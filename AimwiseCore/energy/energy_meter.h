#pragma once
// The one call that every kind of work makes to account for what it cost:
//
//     const EnergyMeter meter = EnergyMeter::start(EnergyKind::turn, dataRoot);
//     ... the work ...
//     meter.finish({.model = response.model, .usage = response.usage});  // appends one row
//
// The coach driver meters each gate call (EnergyKind::gate) and each turn (EnergyKind::turn); the
// nightly job meters each pass (EnergyKind::pass); the tick uses ClassifierTickEnergyLog::Run. A
// meter reads the battery and the power supply when it starts and when it finishes, and the CPU time
// of this process and of the children it has waited for. CPU time is the process's, so a meter in a
// process that does several things at once counts all of them.
//
// finish() throws JSONLAppend::AppendError or std::filesystem::filesystem_error when the row cannot
// be written. Accounting must never stand in the way of the work: report and carry on.
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "AimwiseCore/energy/energy_row.h"
#include "AimwiseCore/models/chat_types.h"
#include "CaptureShared/common/clock.h"
#include "platform/power_source.h"

namespace aimwise {

struct ProcessCPU {
    int64_t selfMs = 0;
    // Only children that have ended and been waited for.
    int64_t childrenMs = 0;

    // User plus system time since the process started.
    static ProcessCPU read();
};

// What a meter reads from the machine; tests replace any of it. An empty function reads nothing,
// except `cpu`, which then reads this process.
struct EnergyProbe {
    std::function<std::optional<PowerSource::BatteryReading>()> battery;
    // Whether mains power is connected; unknown or empty leaves it to the battery's status.
    std::function<std::optional<bool>()> onAC;
    std::function<ProcessCPU()> cpu;

    static EnergyProbe live();
};

class EnergyMeter {
  public:
    // Reading a battery can wake its controller; runs too short for its counters to move skip it.
    enum class Readings { battery, timesOnly };

    struct Facts {
        std::optional<std::string> model;
        std::optional<ChatUsage> usage;
    };

    static EnergyMeter start(EnergyKind kind, std::filesystem::path dataRoot,
                             EnergyProbe probe = EnergyProbe::live(), const Clock& clock = Clock::system(),
                             Readings readings = Readings::battery);

    // The row as of now, without writing it.
    EnergyRow measure(const Facts& facts = {}) const;
    // Only the times, reading neither the battery nor the power supply.
    EnergyRow measureTimes() const;
    // Appends measure(facts) to the kind's file and returns it.
    EnergyRow finish(const Facts& facts = {}) const;

    int64_t startWallMs() const { return startWallMs_; }

  private:
    EnergyMeter(EnergyKind kind, std::filesystem::path dataRoot, EnergyProbe probe, const Clock& clock,
                Readings readings);
    std::optional<bool> readOnAC(const std::optional<PowerSource::BatteryReading>& battery) const;

    EnergyKind kind_;
    std::filesystem::path dataRoot_;
    EnergyProbe probe_;
    const Clock& clock_;
    Readings readings_;
    int64_t startWallMs_ = 0;
    int64_t startMonotonicMs_ = 0;
    ProcessCPU startCPU_;
    std::optional<PowerSource::BatteryReading> before_;
    std::optional<bool> onACBefore_;
};

}  // namespace aimwise
