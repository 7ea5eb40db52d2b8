// The user message of one judgment, built for a typical state.
#include <benchmark/benchmark.h>

#include "AimwiseCore/classifier/classifier_prompt.h"
#include "AimwiseCore/events/ordered_json.h"

namespace {

aimwise::ClassifierState typicalState() {
    aimwise::ClassifierState state;
    state.tsMs = 1'795'327'944'000;
    state.frontmostApp = "Firefox";
    state.frontmostWindowTitle = "Quarterly report draft — Google Docs";
    state.browserApp = "Firefox";
    state.browserTitle = "Quarterly report draft — Google Docs";
    state.browserURL = "https://docs.example.com/document/d/1aBcD/edit";
    state.idleAnySec = 4.2;
    state.declaredTask = "write the quarterly report, 45 min";
    state.recentApps10Min = {{"Firefox", 6.5}, {"Code", 2.0}, {"Slack", 1.0}};
    state.minutesSinceDeclared = 38.4;
    state.estimateMinutes = 45;
    return state;
}

// Baseline in the same run: rendering the activity object alone, no redaction or assembly.
void BM_RenderActivityObjectOnly(benchmark::State& run) {
    using aimwise::OrderedJSON;
    const OrderedJSON object = OrderedJSON::object({
        {"frontmost_app", "Firefox"},
        {"frontmost_window_title", "Quarterly report draft — Google Docs"},
        {"browser_title", "Quarterly report draft — Google Docs"},
        {"browser_url", "https://docs.example.com/document/d/1aBcD/edit"},
        {"seconds_since_last_input", 4.2},
        {"what_youve_been_in_last_10min",
         OrderedJSON::array({OrderedJSON::object({{"app", "Firefox"}, {"approx_min", 6.5}}),
                             OrderedJSON::object({{"app", "Code"}, {"approx_min", 2.0}}),
                             OrderedJSON::object({{"app", "Slack"}, {"approx_min", 1.0}})})},
        {"minutes_since_declared", 38.4},
        {"minutes_over_estimate", nullptr},
    });
    for (auto _ : run) benchmark::DoNotOptimize(object.render());
}
BENCHMARK(BM_RenderActivityObjectOnly);

void BM_BuildRedactedUserMessage(benchmark::State& run) {
    const aimwise::ClassifierState state = typicalState();
    for (auto _ : run) benchmark::DoNotOptimize(aimwise::ClassifierPrompt::buildRedactedUserMessage(state));
}
BENCHMARK(BM_BuildRedactedUserMessage);

}  // namespace

BENCHMARK_MAIN();
