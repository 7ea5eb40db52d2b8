// Cost of the outbound filters on a 4 KB page of OCR-like text, from prose without a digit to a page dense
// with identifiers in disguise. Baselines in the same run: copying the page and scanning its bytes for
// digits, which bound what any filter must pay; every result is also reported as a multiple of the scan.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "AimwiseCore/privacy/outbound_title_privacy.h"
#include "AimwiseCore/privacy/screen_text.h"
#include "AimwiseCore/privacy/sensitive_identifier_redaction.h"

namespace {

using aimwise::SensitiveIdentifierRedaction::Scope;

constexpr size_t pageBytes = 4096;

// Repeats lines until the page holds 4 KB, as a recogniser lays out a screen: short lines, some menus.
std::string page(const std::vector<std::string>& lines) {
    std::string out;
    for (size_t i = 0; out.size() < pageBytes; ++i) out += lines[i % lines.size()] + "\n";
    out.resize(pageBytes);
    // Do not end inside a multi-byte character.
    while (!out.empty() && (static_cast<unsigned char>(out.back()) & 0xC0) == 0x80) out.pop_back();
    if (!out.empty() && static_cast<unsigned char>(out.back()) >= 0xC0) out.pop_back();
    return out;
}

const std::vector<std::string> proseLines = {
    "File  Edit  View  History  Bookmarks  Tools  Help",
    "Inbox - Mail — Drafts, Sent, Archive, Trash",
    "Re: Planning the offsite — thanks for the notes, café at noon works for everyone.",
    "The quarterly review covers hiring, the roadmap and the customer feedback we collected.",
    "Résumé attached. Let me know whether the naïve approach is good enough for now.",
    "Reply  Reply All  Forward  Delete  Mark as unread",
    "Search results for 'attention coach' — about many results",
};

const std::vector<std::string> numberLines = {
    "Order #112-4567890-1234567 shipped on 2024-05-17 at 14:32, total $1,234.56",
    "Meeting moved to 03/21/2025 10:30 in room 4B; call +1 (415) 555-0132 ext. 204",
    "Version 2.14.3 released; build 58213 passed 1,024 of 1,031 tests in 97.5 s",
    "Invoice INV-2024-00123 due in 30 days; 12 items, 3 back-ordered, 0 cancelled",
    "Re: Planning the offsite — thanks for the notes, café at noon works for everyone.",
    "Temperature 21 °C, humidity 48 %, wind 12 km/h; sunrise 06:41, sunset 19:58",
};

std::vector<std::string> identifierLines() {
    std::vector<std::string> lines = numberLines;
    lines.insert(lines.begin() + 1, "Card on file: 4111 1111 1111 1111, exp 12/29; SSN 123-45-6789");
    lines.insert(lines.begin() + 3, "Wire to IBAN DE89 3704 0044 0532 0130 00, routing number 021000021");
    lines.insert(lines.begin() + 5, "Checking account 000123456789 — password: hunter2abc9");
    return lines;
}

// Every line holds identifiers the way screens and pasted text hide them: invisible and unusual
// separators, digits in pairs, combining marks, loosely written labels, IBANs in lower case or dashes.
const std::vector<std::string> disguisedLines = {
    "Card 4111\u200B1111\u200B1111\u200B1111 exp 12/29, backup 5555\u200B\u200B5555\u200B\u200B5555\u200B\u200B4444",
    "Visa 4111\u00B71111\u00B71111\u00B71111; Amex 3782 8224 6310 005; pay 5555_5555_5555_4444",
    "Card in pairs 41 11 11 11 11 11 11 11, or 4\u0301111 1111 1111 1111 with a mark",
    "SSN No. 123 45 6789 \u2014 SSN #: 219099999 \u2014 on file 078\u200B-05\u200B-1120",
    "routing number is: 021\u2028000\u2028021 and acct no. 0001,2345,6789",
    "iban de89-3704-0044-0532-0130-00, IBAN GB82\u2009WEST\u20091234\u20095698\u20097654\u200932",
    "Order #112-4567890-1234567 shipped on 2024-05-17 at 14:32, total $1,234.56",
    "account number\u200B: 12\u000B34\u000B56\u000B78 \u2014 card 5555 - 5555 - 5555 - 4444",
    "password\u200B: hunter2abc9, Password is s3cretpass1, bearer: abc123def456ghi789jkl0",
};

void BM_BaselineCopy(benchmark::State& state) {
    const std::string text = page(numberLines);
    for (auto _ : state) {
        std::string copy = text;
        benchmark::DoNotOptimize(copy);
    }
}
BENCHMARK(BM_BaselineCopy);

void BM_BaselineDigitScan(benchmark::State& state) {
    const std::string text = page(numberLines);
    for (auto _ : state) {
        auto digits = std::count_if(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
        benchmark::DoNotOptimize(digits);
    }
}
BENCHMARK(BM_BaselineDigitScan);

void BM_Redact_NoDigits_LifeLevel(benchmark::State& state) {
    const std::string text = page(proseLines);
    aimwise::SensitiveIdentifierRedaction::prepare();
    for (auto _ : state) benchmark::DoNotOptimize(aimwise::SensitiveIdentifierRedaction::redact(text, Scope::lifeLevel));
}
BENCHMARK(BM_Redact_NoDigits_LifeLevel);

void BM_Redact_OrdinaryNumbers_LifeLevel(benchmark::State& state) {
    const std::string text = page(numberLines);
    aimwise::SensitiveIdentifierRedaction::prepare();
    for (auto _ : state) benchmark::DoNotOptimize(aimwise::SensitiveIdentifierRedaction::redact(text, Scope::lifeLevel));
}
BENCHMARK(BM_Redact_OrdinaryNumbers_LifeLevel);

void BM_Redact_OrdinaryNumbers_Outbound(benchmark::State& state) {
    const std::string text = page(numberLines);
    aimwise::SensitiveIdentifierRedaction::prepare();
    for (auto _ : state) benchmark::DoNotOptimize(aimwise::SensitiveIdentifierRedaction::redact(text, Scope::outbound));
}
BENCHMARK(BM_Redact_OrdinaryNumbers_Outbound);

void BM_Redact_SeveralIdentifiers_Outbound(benchmark::State& state) {
    const std::string text = page(identifierLines());
    aimwise::SensitiveIdentifierRedaction::prepare();
    auto once = aimwise::SensitiveIdentifierRedaction::redact(text, Scope::outbound);
    state.counters["redacted"] = double(once.report.counts.size());
    for (auto _ : state) benchmark::DoNotOptimize(aimwise::SensitiveIdentifierRedaction::redact(text, Scope::outbound));
}
BENCHMARK(BM_Redact_SeveralIdentifiers_Outbound);

void BM_Redact_DisguisedIdentifiers_LifeLevel(benchmark::State& state) {
    const std::string text = page(disguisedLines);
    aimwise::SensitiveIdentifierRedaction::prepare();
    auto once = aimwise::SensitiveIdentifierRedaction::redact(text, Scope::lifeLevel);
    int64_t redacted = 0;
    for (const auto& [kind, count] : once.report.counts) redacted += count;
    state.counters["redacted"] = double(redacted);
    for (auto _ : state) benchmark::DoNotOptimize(aimwise::SensitiveIdentifierRedaction::redact(text, Scope::lifeLevel));
}
BENCHMARK(BM_Redact_DisguisedIdentifiers_LifeLevel);

void BM_Redact_DisguisedIdentifiers_Outbound(benchmark::State& state) {
    const std::string text = page(disguisedLines);
    aimwise::SensitiveIdentifierRedaction::prepare();
    for (auto _ : state) benchmark::DoNotOptimize(aimwise::SensitiveIdentifierRedaction::redact(text, Scope::outbound));
}
BENCHMARK(BM_Redact_DisguisedIdentifiers_Outbound);

void BM_ScreenTextSanitize(benchmark::State& state) {
    const std::string text = page(numberLines);
    for (auto _ : state) benchmark::DoNotOptimize(aimwise::ScreenText::sanitize(text));
}
BENCHMARK(BM_ScreenTextSanitize);

void BM_OutboundTitleSanitize(benchmark::State& state) {
    const std::string title = "Statement — Checking ****1234 | Online Banking";
    for (auto _ : state) benchmark::DoNotOptimize(aimwise::OutboundTitlePrivacy::sanitize(title));
}
BENCHMARK(BM_OutboundTitleSanitize);

// Prints the usual table, then every result in CPU time as a multiple of the digit scan of the same run.
class AgainstDigitScan : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            // The median when the run was repeated, else its one result.
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (run.run_type == Run::RT_Aggregate && !median) continue;
            const std::string& name = run.run_name.function_name;
            if (median || !cpuMicroseconds_.contains(name))
                cpuMicroseconds_[name] = run.GetAdjustedCPUTime() / benchmark::GetTimeUnitMultiplier(run.time_unit) * 1e6;
            if (std::find(order_.begin(), order_.end(), name) == order_.end()) order_.push_back(name);
        }
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        auto baseline = cpuMicroseconds_.find("BM_BaselineDigitScan");
        if (baseline == cpuMicroseconds_.end() || baseline->second <= 0) return;
        std::printf("\nCPU time against the digit scan of the same page (%.2f us):\n", baseline->second);
        for (const auto& name : order_)
            std::printf("  %-44s %10.2f us  %8.1fx\n", name.c_str(), cpuMicroseconds_[name],
                        cpuMicroseconds_[name] / baseline->second);
    }

private:
    std::map<std::string, double> cpuMicroseconds_;
    std::vector<std::string> order_;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    AgainstDigitScan reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
