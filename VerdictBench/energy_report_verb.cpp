// `energy-report [--now-ms N]`: what the system's work cost over the 14 days ending at N (default
// now). It reads the energy rows of the data root (AIMCAP_DATA_ROOT may name a scratch copy) and
// writes nothing.
#include <algorithm>
#include <charconv>
#include <cstdio>
#include <string>

#include "AimwiseCore/energy/energy_report.h"
#include "CaptureShared/dataroot/data_paths.h"
#include "VerdictBench/verbs.h"

namespace aimwise::verbs {

namespace {

// Only the first "--now-ms" counts; a value that is not a whole number leaves the real now.
int64_t reportNow(const std::vector<std::string>& positional, int64_t now) {
    const auto flag = std::find(positional.begin(), positional.end(), "--now-ms");
    if (flag == positional.end() || flag + 1 == positional.end()) return now;
    const std::string& text = *(flag + 1);
    int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size() ? value : now;
}

}  // namespace

int runEnergyReport(const cli::Invocation& invocation) {
    const std::string report =
        ClassifierEnergyReport::live(DataPaths::dataRoot(), reportNow(invocation.positional, invocation.clock->wallMs()));
    std::fwrite(report.data(), 1, report.size(), stdout);
    std::fflush(stdout);
    return 0;
}

}  // namespace aimwise::verbs
