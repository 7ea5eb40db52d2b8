#pragma once
// Hand labels in labels.sqlite: what a person says they were really doing at a moment, the ground
// truth the classifier is measured against. Answers are only ever added: a revision is a new row.
#include <array>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "CaptureShared/common/error.h"

struct sqlite3;

namespace aimwise {

class LabelsWriterError : public Error {
public:
    enum class Kind { openFailed, prepareFailed, stepFailed, unacceptedLabel };
    LabelsWriterError(Kind kind, std::string detail);
    Kind kind() const { return kind_; }

private:
    Kind kind_;
};

class LabelsWriter {
public:
    // Whether a person found the classifier's verdict to match what they were doing.
    enum class Vote { matches, off };

    struct Row {
        int64_t t0Ms = 0;
        int64_t t1Ms = 0;
        std::optional<std::string> declaredTask{};
        std::string label;
        std::optional<std::string> notes{};
        std::string sourceHour;
        std::string createdAt;
        std::optional<std::string> source{};
        std::optional<bool> answeredBlind{};
        std::optional<std::string> userNote{};
    };

    static constexpr std::array<std::string_view, 10> acceptedLabels = {
        "on_task", "on_task_overtime", "rabbit_hole",        "off_task",        "not_aligned",
        "no_task", "break",            "not_using_computer", "switching_tasks", "ambiguous"};
    static bool isAccepted(std::string_view label);

    static const char* const createTableSQL;
    static const char* const createIndexSQL;
    static const char* const insertSQL;
    // The columns later versions added, with the types they are created with.
    static constexpr std::array<std::pair<std::string_view, std::string_view>, 3> addedColumns = {
        {{"source", "TEXT"}, {"answered_blind", "INTEGER"}, {"user_note", "TEXT"}}};

    // A live review and a replay may hold the file at the same moment; a writer waits this long.
    static constexpr int defaultBusyTimeoutMs = 3000;

    // Nothing is opened until the first insert.
    explicit LabelsWriter(std::filesystem::path path, int busyTimeoutMs = defaultBusyTimeoutMs);
    ~LabelsWriter();
    LabelsWriter(LabelsWriter&&) noexcept;
    LabelsWriter& operator=(LabelsWriter&&) noexcept;

    // The new row's id. A label outside the accepted words is refused before the file is touched.
    // Throws LabelsWriterError.
    int64_t insert(const Row& row);

    const std::filesystem::path& path() const { return path_; }

private:
    struct Close {
        void operator()(sqlite3* db) const;
    };
    void openIfNeeded();

    std::filesystem::path path_;
    int busyTimeoutMs_;
    std::unique_ptr<sqlite3, Close> db_;
};

namespace LabelTimes {

// "2026-07-08T14:03:05.120Z": sorts as text in time order, which is how the newest answer is found.
std::string createdAt(int64_t nowMs);
// The local hour of the moment, "2026-07-08T14", the hour of recording it was taken from.
std::string sourceHour(int64_t momentMs);

}  // namespace LabelTimes

}  // namespace aimwise
