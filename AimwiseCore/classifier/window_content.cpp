#include "AimwiseCore/classifier/window_content.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <cstring>
#include <sstream>

#include <fmt/format.h>

#include "CaptureShared/common/clock.h"
#include "AimwiseCore/classifier/classifier_model.h"
#include "AimwiseCore/models/cancellation.h"
#include "AimwiseCore/models/chat_json.h"
#include "AimwiseCore/models/http_session.h"
#include "AimwiseCore/models/local_inference_wire.h"
#include "AimwiseCore/models/model_backend_error.h"
#include "CaptureShared/signals/signals_reader.h"
#include "platform/desktop_session.h"
#include "platform/screenshot_capture.h"
#include "platform/vision_text_recognizer.h"

namespace aimwise {
namespace {

std::string lowercase(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(), [](unsigned char c) { return std::tolower(c); });
    return result;
}

std::string trimmedBlanks(std::string_view text) {
    const size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) return {};
    return std::string(text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1));
}

template <typename List>
bool contains(const List& list, std::string_view value) {
    return std::find(list.begin(), list.end(), value) != list.end();
}

void writeStandardError(const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
}

std::string readWholeFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw WindowContentReader::CaptureError("could not read the screenshot at " + path.string());
    std::ostringstream bytes;
    bytes << in.rdbuf();
    if (in.bad()) throw WindowContentReader::CaptureError("could not read the screenshot at " + path.string());
    return std::move(bytes).str();
}

}  // namespace

namespace Denylist {

const std::vector<std::string_view> appNames = {
    "Passwords",  "Keychain Access", "1Password", "1Password 7", "Bitwarden",
    "LastPass",   "Dashlane",        "Proton Pass", "KeePassXC", "MacPass",
    "Strongbox",  "Enpass",          "NordPass",  "RoboForm",    "Keeper Password Manager",
    "GPG Keychain", "Authy Desktop", "Step Two",  "Ente Auth",
};

const std::vector<std::string_view> bundleIds = {
    "com.apple.Passwords",
    "com.apple.keychainaccess",
    "com.apple.SecurityAgent",
    "com.apple.LocalAuthentication.UIAgent",
    "com.apple.NetAuthAgent",
    "com.apple.security.Keychain-Circle-Notification",
    "com.apple.EscrowSecurityAlert",
    "com.apple.Pass-Viewer",
    "com.apple.PassViewer",
    "com.1password.1password",
    "com.agilebits.onepassword7",
    "com.bitwarden.desktop",
    "org.keepassxc.keepassxc",
    "org.gpgtools.gpgkeychain",
};

const std::vector<std::string_view> linuxWindowClasses = {
    // Password managers.
    "keepassxc", "keepassx", "keepass2", "keepass", "bitwarden", "1password", "proton pass", "proton-pass",
    "enpass", "nordpass", "keeper password manager", "secrets", "org.gnome.world.secrets",
    // Key and secret stores.
    "seahorse", "org.gnome.seahorse.application", "kwalletmanager5", "kwalletmanager", "kleopatra",
    // Authenticators.
    "authy", "authy desktop", "ente auth", "io.ente.auth", "authenticator", "com.belmoussaoui.authenticator",
    // Unlock and authentication prompts: the keyring, GnuPG's pinentry, polkit agents.
    "gcr-prompter", "pinentry", "pinentry-gtk-2", "pinentry-gtk", "pinentry-qt", "pinentry-gnome3",
    "polkit-gnome-authentication-agent-1", "polkit-kde-authentication-agent-1",
    "polkit-mate-authentication-agent-1", "lxpolkit", "ksecretd",
};

std::vector<std::string> extension(const Environment& environment) {
    std::vector<std::string> entries;
    const std::optional<std::string> value = lookup(environment, extensionEnvVar);
    if (!value) return entries;
    std::string_view rest = *value;
    while (true) {
        const size_t comma = rest.find(',');
        std::string entry = lowercase(trimmedBlanks(rest.substr(0, comma)));
        if (!entry.empty()) entries.push_back(std::move(entry));
        if (comma == std::string_view::npos) break;
        rest.remove_prefix(comma + 1);
    }
    return entries;
}

bool excludes(const std::string& appName, const std::string& bundleId, const std::vector<std::string>& extension) {
    if (contains(appNames, appName) || contains(bundleIds, bundleId)) return true;
    for (const std::string& identity : {lowercase(appName), lowercase(bundleId)}) {
        if (identity.empty()) continue;
        if (contains(linuxWindowClasses, identity) || contains(extension, identity)) return true;
    }
    return false;
}

bool excludes(const std::string& appName, const std::string& bundleId) {
    return excludes(appName, bundleId, extension(processEnvironment()));
}

}  // namespace Denylist

namespace OnScreenWindowVisibility {

std::optional<Denylist::AppIdentity> deniedAppVisibleOverCapturedBounds(
    const std::vector<OnScreenWindowRecord>& windows, const ScreenRect& capturedBounds,
    const std::string& frontmostAppName, const std::string& frontmostBundleId,
    const std::vector<std::string>& extension) {
    for (const OnScreenWindowRecord& window : windows) {
        if (window.appName == frontmostAppName && window.bundleId == frontmostBundleId) continue;
        // A window whose place is unknown may be anywhere.
        if (window.boundsKnown && !window.bounds.overlaps(capturedBounds)) continue;
        if (Denylist::excludes(window.appName, window.bundleId, extension))
            return Denylist::AppIdentity{window.appName, window.bundleId};
    }
    return std::nullopt;
}

}  // namespace OnScreenWindowVisibility

std::vector<OnScreenWindowRecord> liveOnScreenWindowRecords() {
    if (desktopKindFor(processEnvironment()) == DesktopKind::x11) return OnScreenWindows::live();
    if (auto listed = OnScreenWindows::liveOnWayland()) return std::move(*listed);
    throw WindowListUnavailable("could not list the open windows of this Wayland desktop, so no denylisted window "
                                "can be ruled out");
}

std::optional<ContentWithheldReason> contentMustBeWithheldForDenylist(const SignalsReader& signals) {
    const std::optional<SignalsReader::TickRow> tick = signals.latestTick();
    if (!tick) return std::nullopt;
    const std::string bundleId = signals.frontmostBundleId(tick->tsMs).value_or("");
    const std::string appName = tick->frontmostApp.value_or("");
    if (tick->frontmostApp && Denylist::excludes(appName, bundleId)) return ContentWithheldReason::frontmostAppDenylisted;

    const std::optional<WindowContentReader::Target> target = WindowContentReader::frontmostTarget(signals);
    if (!target) return std::nullopt;
    if (OnScreenWindowVisibility::deniedAppVisibleOverCapturedBounds(
            liveOnScreenWindowRecords(), target->bounds.value_or(WindowContentReader::wholeScreen), appName, bundleId))
        return ContentWithheldReason::anotherDenylistedAppWindowVisible;
    return std::nullopt;
}

namespace WindowContentReader {

const char* const defaultDescribePrompt =
    "In 1-2 short sentences, describe what app/content is visible in this window screenshot. Focus on WHAT KIND "
    "of activity this is (e.g. 'texting a friend', 'watching a video', 'writing code'), not exact text content.";

Config Config::tickDefault() {
    return Config{ClassifierModel::defaultModel(), defaultDescribePrompt, LocalInferenceWire::chatCompletionsURL(),
                  150};
}

Screenshot::Screenshot(Screenshot&& other) noexcept
    : directory_(std::move(other.directory_)), path_(std::move(other.path_)), capturedAtMs_(other.capturedAtMs_) {
    other.directory_.clear();
    other.path_.clear();
}

Screenshot::~Screenshot() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove(path_, ignored);
    if (!directory_.empty()) std::filesystem::remove_all(directory_, ignored);
}

Screenshot Screenshot::reserve(int64_t capturedAtMs) {
    std::error_code ec;
    std::filesystem::path temporary = std::filesystem::temp_directory_path(ec);
    if (ec) temporary = "/tmp";
    std::string pattern = (temporary / "aimwise-capture-XXXXXX").string();
    // mkdtemp makes the directory 0700 whatever the mask, so no other account can open the picture.
    if (!::mkdtemp(pattern.data()))
        throw CaptureError(fmt::format("could not create a private directory in {}: {}", temporary.string(),
                                       std::strerror(errno)));
    const std::filesystem::path directory = pattern;

    std::random_device entropy;
    const std::string unique = fmt::format("{:08x}{:08x}", entropy(), entropy());
    std::filesystem::path path = directory / ("window_capture_" + unique + ".png");
    const int fd = ::open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600);
    if (fd < 0) {
        const std::string reason = std::strerror(errno);
        std::filesystem::remove_all(directory, ec);
        throw CaptureError("could not create " + path.string() + ": " + reason);
    }
    ::close(fd);
    return Screenshot(directory, std::move(path), capturedAtMs);
}

const char* logValue(TextSource source) {
    switch (source) {
        case TextSource::accessibility: return "accessibility";
        case TextSource::ocr: return "ocr";
        case TextSource::none: break;
    }
    return "none";
}

std::optional<Target> frontmostTarget(const SignalsReader& signals) {
    const std::optional<SignalsReader::TickRow> tick = signals.latestTick();
    if (!tick || !tick->frontmostApp) return std::nullopt;
    const std::optional<SignalsReader::OwnerWindowRow> owner = signals.ownerWindow(tick->tsMs, *tick->frontmostApp);
    if (!owner) return std::nullopt;
    Target target;
    target.appName = *tick->frontmostApp;
    target.bundleId = signals.frontmostBundleId(tick->tsMs).value_or("");
    target.pid = owner->pid;
    target.title = owner->title.value_or("");
    if (owner->placed) {
        target.bounds = frontmostWindowBounds(signals);
        // A placed app whose every window is unusable has nothing to capture.
        if (!target.bounds) return std::nullopt;
        if (const auto window = signals.contentWindow(tick->tsMs, *tick->frontmostApp); window && window->title)
            target.title = *window->title;
    }
    return target;
}

bool accessibleTextBelongsTo(const WindowText::Read& read, const Target& target) {
    if (Denylist::excludes(read.application, read.application)) return false;
    if (read.pid && target.pid) return *read.pid == *target.pid;
    if (!read.title.empty() && read.title == target.title) return true;
    const std::string application = lowercase(read.application);
    return !application.empty() && (application == lowercase(target.appName) || application == lowercase(target.bundleId));
}

std::optional<Bounds> frontmostWindowBounds(const SignalsReader& signals) {
    const std::optional<SignalsReader::TickRow> tick = signals.latestTick();
    if (!tick || !tick->frontmostApp) return std::nullopt;
    const std::optional<SignalsReader::WindowRow> window = signals.contentWindow(tick->tsMs, *tick->frontmostApp);
    if (!window) return std::nullopt;
    return Bounds{window->x, window->y, window->width, window->height};
}

namespace {

// A screenshot stamped with the time it was asked for; a capture that timed out or failed throws.
template <typename Capture>
Screenshot stamped(double timeoutSec, Capture&& capture) {
    Screenshot screenshot = Screenshot::reserve(wallClockMs());
    const ScreenshotCapture::Result result = capture(screenshot.path());
    if (std::holds_alternative<ScreenshotCapture::TimedOut>(result)) {
        writeStandardError(fmt::format("screenshot timed out after {:g}s — killing it and judging without a screenshot\n",
                                       timeoutSec));
        throw CaptureError(fmt::format("screenshot timed out after {:g}s", timeoutSec));
    }
    if (const auto* failed = std::get_if<ScreenshotCapture::Failed>(&result)) throw CaptureError(failed->reason);
    return screenshot;
}

}  // namespace

Screenshot captureWindowStamped(const Bounds& bounds, double timeoutSec) {
    return stamped(timeoutSec, [&](const std::filesystem::path& path) {
        return ScreenshotCapture::captureRect(bounds, path, timeoutSec);
    });
}

Screenshot captureScreenStamped(double timeoutSec) {
    return stamped(timeoutSec,
                   [&](const std::filesystem::path& path) { return ScreenshotCapture::captureScreen(path, timeoutSec); });
}

Parts readWindowContent(const Bounds& bounds, const Config& config, HTTPSession& session) {
    return readWindowContent(Target{bounds}, config, session);
}

Parts readWindowContent(const Target& target, const Config& config, HTTPSession& session) {
    // Exact text first: when the front window publishes it, the OCR helper never runs.
    std::string text;
    TextSource source = TextSource::none;
    if (!target.appName.empty()) {
        const WindowText::Result accessible = WindowText::readActive(config.accessibilityBudgetMs);
        if (const auto* read = std::get_if<WindowText::Read>(&accessible)) {
            if (accessibleTextBelongsTo(*read, target) && !trimmedBlanks(read->text).empty()) {
                text = read->text;
                source = TextSource::accessibility;
            }
        }
    }
    const Screenshot screenshot = target.bounds ? captureWindowStamped(*target.bounds, captureTimeoutSec)
                                                : captureScreenStamped(captureTimeoutSec);
    if (source == TextSource::none) {
        const VisionTextRecognizer::OCRResult ocr =
            VisionTextRecognizer::recognizeText(screenshot.path(), recognitionTimeoutSec);
        if (const auto* failed = std::get_if<VisionTextRecognizer::Failed>(&ocr)) {
            writeStandardError("vision OCR failed (" + failed->reason + ") — judging without on-screen text\n");
        } else {
            text = std::get<VisionTextRecognizer::Read>(ocr).text;
            source = TextSource::ocr;
        }
    }
    std::string description = describeImage(base64(readWholeFile(screenshot.path())), config, session);
    return Parts{std::move(text), std::move(description), screenshot.capturedAtMs(), source};
}

std::string describeImage(const std::string& imageBase64, const Config& config, HTTPSession& session) {
    ChatJSON body = ChatJSON::object();
    body["model"] = config.describeModel;
    ChatJSON content = ChatJSON::array();
    content.push_back(ChatJSON::object({{"type", "text"}, {"text", config.describePrompt}}));
    content.push_back(ChatJSON::object(
        {{"type", "image_url"},
         {"image_url", ChatJSON::object({{"url", "data:image/png;base64," + imageBase64}})}}));
    body["messages"] = ChatJSON::array({ChatJSON::object({{"role", "user"}, {"content", std::move(content)}})});
    body["stream"] = false;
    body["max_tokens"] = config.describeNumPredict;
    body["chat_template_kwargs"] = ChatJSON::object({{"enable_thinking", false}});

    HTTPRequest request;
    request.method = "POST";
    request.url = config.endpoint;
    request.headers = {{"Content-Type", "application/json"}};
    request.body = body.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    request.timeoutSec = describeTimeoutSec;
    const HTTPResponse response = LocalInferenceWire::send(request, session);

    const auto shapeError = [&] {
        return ReaderError::responseShape("describe response: " + utf8OrEmpty(response.body).substr(0, 500));
    };
    std::string text;
    try {
        text = LocalInferenceWire::content(response.body);
    } catch (const ModelBackendError&) {
        throw shapeError();
    }
    if (text.empty()) {
        // An empty string is an answer; a missing or non-text content is not. content() has checked
        // that choices[0].message is an object.
        ChatJSON root = ChatJSON::parse(response.body, nullptr, false);
        ChatJSON& message = root["choices"][0]["message"];
        if (!message.contains("content") || !message["content"].is_string()) throw shapeError();
    }
    return text;
}

std::string base64(std::string_view bytes) {
    static constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string encoded;
    encoded.reserve(4 * ((bytes.size() + 2) / 3));
    size_t i = 0;
    for (; i + 2 < bytes.size(); i += 3) {
        const uint32_t group = uint32_t(uint8_t(bytes[i])) << 16 | uint32_t(uint8_t(bytes[i + 1])) << 8 |
                               uint32_t(uint8_t(bytes[i + 2]));
        for (int shift = 18; shift >= 0; shift -= 6) encoded += alphabet[(group >> shift) & 63];
    }
    if (const size_t rest = bytes.size() - i; rest > 0) {
        uint32_t group = uint32_t(uint8_t(bytes[i])) << 16;
        if (rest == 2) group |= uint32_t(uint8_t(bytes[i + 1])) << 8;
        encoded += alphabet[(group >> 18) & 63];
        encoded += alphabet[(group >> 12) & 63];
        encoded += rest == 2 ? alphabet[(group >> 6) & 63] : '=';
        encoded += '=';
    }
    return encoded;
}

}  // namespace WindowContentReader

std::optional<WindowContentReader::Parts> captureLiveWindowContentParts(
    const SignalsReader& signals, std::optional<ContentWithheldReason> contentWithheldForDenylist,
    const WindowContentReader::Config& config, HTTPSession& session) {
    if (contentWithheldForDenylist) {
        writeStandardError(fmt::format("content withheld for the capture denylist ({}), judging without window content\n",
                                       logValue(*contentWithheldForDenylist)));
        return std::nullopt;
    }
    std::optional<WindowContentReader::Target> target;
    try {
        target = WindowContentReader::frontmostTarget(signals);
    } catch (const SignalsReaderError& error) {
        writeStandardError("could not read frontmost window bounds from signals.sqlite, judging without window content: " +
                           error.description() + "\n");
        return std::nullopt;
    }
    if (!target) return std::nullopt;

    const auto failure = [](const char* reason, const std::string& error) {
        writeStandardError(fmt::format("window_content: {} (continuing without it): {}\n", reason, error));
    };
    constexpr const char* modelUnreachable = "could not reach the local model to describe the window content";
    constexpr const char* screenshotUnreadable = "could not read the captured screenshot";
    try {
        return WindowContentReader::readWindowContent(*target, config, session);
    } catch (const ModelBackendError& error) {
        failure(modelUnreachable, error.description());
    } catch (const WindowContentReader::ReaderError& error) {
        failure(modelUnreachable, error.description());
    } catch (const HTTPTransportFailure& error) {
        failure(modelUnreachable, error.description());
    } catch (const WindowContentReader::CaptureError& error) {
        failure(screenshotUnreadable, error.description());
    } catch (const CancellationError&) {
        throw;
    } catch (const std::exception& error) {
        failure(screenshotUnreadable, error.what());
    }
    return std::nullopt;
}

}  // namespace aimwise
