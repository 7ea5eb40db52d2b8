#pragma once
// What the front window shows, for a judgment: a screenshot of its rectangle, the text on it, and a
// sentence from the local model. The picture never leaves the machine and never outlives the call.
// Password managers, authenticators and security prompts are never captured, in front or over it.
// The text comes from the accessibility bus when the front window publishes it, else from OCR. On a
// Wayland desktop that does not say where windows are, the whole screen is taken, and any open
// denylisted window that is not minimised withholds it.
#include <cstdint>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "AimwiseCore/classifier/content_withheld_reason.h"
#include "AimwiseCore/models/endpoint_url.h"
#include "CaptureShared/common/environment.h"
#include "CaptureShared/common/error.h"
#include "platform/on_screen_windows.h"
#include "platform/screen_rect.h"
#include "platform/window_text.h"

namespace aimwise {

class HTTPSession;
class SignalsReader;

namespace Denylist {

struct AppIdentity {
    std::string name;
    std::string bundleId;
    bool operator==(const AppIdentity&) const = default;
};

extern const std::vector<std::string_view> appNames;
extern const std::vector<std::string_view> bundleIds;
// X11 WM_CLASS names of the same kinds of app on Linux, compared without regard to case against
// both the name and the identifier, since capture records the class in either.
extern const std::vector<std::string_view> linuxWindowClasses;

// AIMCAP_DENYLIST: comma-separated app names or WM_CLASS values added to the lists, compared without
// regard to case, blanks around each entry ignored. It can only add; nothing built in can be removed.
inline constexpr const char* extensionEnvVar = "AIMCAP_DENYLIST";
std::vector<std::string> extension(const Environment& environment);

bool excludes(const std::string& appName, const std::string& bundleId, const std::vector<std::string>& extension);
// With the process environment's extension.
bool excludes(const std::string& appName, const std::string& bundleId);

}  // namespace Denylist

namespace OnScreenWindowVisibility {

// The first window, in the order given, that is not the frontmost app's own, overlaps the captured
// rectangle (sharing an edge is not overlapping), and belongs to a denylisted app.
std::optional<Denylist::AppIdentity> deniedAppVisibleOverCapturedBounds(
    const std::vector<OnScreenWindowRecord>& windows, const ScreenRect& capturedBounds,
    const std::string& frontmostAppName, const std::string& frontmostBundleId,
    const std::vector<std::string>& extension = Denylist::extension(processEnvironment()));

}  // namespace OnScreenWindowVisibility

// The windows a screenshot could show. Throws WindowListUnavailable on a Wayland desktop whose window
// list cannot be read: then nothing can be ruled out.
std::vector<OnScreenWindowRecord> liveOnScreenWindowRecords();

class WindowListUnavailable : public Error {
public:
    using Error::Error;
};

// Throws SignalsReaderError or WindowListUnavailable.
std::optional<ContentWithheldReason> contentMustBeWithheldForDenylist(const SignalsReader& signals);

namespace WindowContentReader {

using Bounds = ScreenRect;

struct Config {
    std::string describeModel;
    std::string describePrompt;
    EndpointURL endpoint;
    int describeNumPredict = 150;
    // How long the walk of the front window's accessible text may take before OCR reads it instead.
    int accessibilityBudgetMs = WindowText::defaultBudgetMs;

    // The classifier's model and endpoint and the default prompt. Throws LocalInferenceEndpoint::ResolutionError.
    static Config tickDefault();
};

extern const char* const defaultDescribePrompt;
inline constexpr double captureTimeoutSec = 10.0;
inline constexpr double recognitionTimeoutSec = 10.0;
inline constexpr double describeTimeoutSec = 60.0;

class ReaderError : public Error {
public:
    enum class Kind { responseShape };
    static ReaderError responseShape(std::string text) { return ReaderError(Kind::responseShape, std::move(text)); }
    Kind kind() const { return kind_; }

private:
    ReaderError(Kind kind, std::string text) : Error(std::move(text)), kind_(kind) {}
    Kind kind_;
};

// The screenshot could not be taken or was not written.
class CaptureError : public Error {
public:
    using Error::Error;
};

// A PNG in a private directory (0700, file 0600) of the temporary directory; both go with the object.
class Screenshot {
public:
    Screenshot(Screenshot&& other) noexcept;
    Screenshot& operator=(Screenshot&&) = delete;
    ~Screenshot();

    const std::filesystem::path& path() const { return path_; }
    int64_t capturedAtMs() const { return capturedAtMs_; }

    // Creates the directory and the empty file. Throws CaptureError.
    static Screenshot reserve(int64_t capturedAtMs);

private:
    Screenshot(std::filesystem::path directory, std::filesystem::path path, int64_t capturedAtMs)
        : directory_(std::move(directory)), path_(std::move(path)), capturedAtMs_(capturedAtMs) {}
    std::filesystem::path directory_;
    std::filesystem::path path_;
    int64_t capturedAtMs_ = 0;
};

// Where the window's text came from; the describe log records it.
enum class TextSource { none, accessibility, ocr };
const char* logValue(TextSource source);

struct Parts {
    std::string ocrText;
    std::string description;
    int64_t screenshotAtMs = 0;
    TextSource textSource = TextSource::none;
    bool operator==(const Parts&) const = default;
};

// The front app's window in the newest tick. Throws SignalsReaderError.
std::optional<Bounds> frontmostWindowBounds(const SignalsReader& signals);

// The window a capture is for: its rectangle when the desktop told it (the whole screen is taken
// otherwise), and who owns it, so that text from the accessibility bus is used only when it comes
// from the same window.
struct Target {
    std::optional<Bounds> bounds;
    std::string appName;
    std::string bundleId;
    std::string title;
    std::optional<int64_t> pid;
};
// Nothing when the newest tick has no front window. Throws SignalsReaderError.
std::optional<Target> frontmostTarget(const SignalsReader& signals);

// True when the accessible active window is the target's: the same process when both are known,
// else the same title or application name. Never for a denylisted application.
bool accessibleTextBelongsTo(const WindowText::Read& read, const Target& target);

// The whole screen as a rectangle: every on-screen window overlaps it.
inline constexpr Bounds wholeScreen{-1e9, -1e9, 2e9, 2e9};

// The time is taken before the capture starts. Throws CaptureError; a late tool is killed and its
// partial file removed.
Screenshot captureWindowStamped(const Bounds& bounds, double timeoutSec);
// The same for the whole screen, for a window whose place is unknown.
Screenshot captureScreenStamped(double timeoutSec);

// Capture, text, description; the screenshot is deleted on every way out. Throws CaptureError,
// ReaderError, ModelBackendError.
Parts readWindowContent(const Bounds& bounds, const Config& config, HTTPSession& session);
Parts readWindowContent(const Target& target, const Config& config, HTTPSession& session);

// One chat request with the image to the local model. Throws ModelBackendError or ReaderError.
std::string describeImage(const std::string& imageBase64, const Config& config, HTTPSession& session);

std::string base64(std::string_view bytes);

}  // namespace WindowContentReader

// Never fails: every problem is written to standard error and the answer is nothing, so the
// judgment goes on without window content.
std::optional<WindowContentReader::Parts> captureLiveWindowContentParts(
    const SignalsReader& signals, std::optional<ContentWithheldReason> contentWithheldForDenylist,
    const WindowContentReader::Config& config, HTTPSession& session);

}  // namespace aimwise
