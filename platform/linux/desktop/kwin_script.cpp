#include "platform/linux/desktop/kwin_script.h"

#include <nlohmann/json.hpp>

#include "platform/app_identity.h"

namespace aimwise::KWinScript {
namespace {

// Service placeholder replaced by our unique bus name; the name is quoted as a JS string.
constexpr std::string_view scriptTemplate = R"js((function () {
    var service = "@SERVICE@", path = "@PATH@", iface = "@INTERFACE@", member = "@MEMBER@";
    function windows() {
        if (workspace.stackingOrder) return workspace.stackingOrder;
        return workspace.windowList ? workspace.windowList() : workspace.clientList();
    }
    function active() {
        return workspace.activeWindow !== undefined ? workspace.activeWindow : workspace.activeClient;
    }
    function entry(w, front) {
        var g = w.frameGeometry || w.geometry || {x: 0, y: 0, width: 0, height: 0};
        return {caption: String(w.caption || ""), resourceClass: String(w.resourceClass || ""),
                resourceName: String(w.resourceName || ""), pid: w.pid || 0,
                x: g.x, y: g.y, width: g.width, height: g.height,
                minimized: !!w.minimized, active: w === front, fullScreen: !!w.fullScreen,
                keepAbove: !!w.keepAbove};
    }
    function report() {
        var front = active(), all = windows(), out = [];
        for (var i = all.length - 1; i >= 0; --i) {
            var w = all[i];
            if (w && (w.normalWindow || w.dialog || w === front)) out.push(entry(w, front));
        }
        callDBus(service, path, iface, member, JSON.stringify(out));
    }
    function watch(w) {
        if (!w) return;
        var names = ["captionChanged", "minimizedChanged", "frameGeometryChanged", "geometryChanged",
                     "fullScreenChanged"];
        for (var i = 0; i < names.length; ++i)
            if (w[names[i]] && w[names[i]].connect) w[names[i]].connect(report);
    }
    var added = workspace.windowAdded || workspace.clientAdded;
    var removed = workspace.windowRemoved || workspace.clientRemoved;
    var activated = workspace.windowActivated || workspace.clientActivated;
    if (added) added.connect(function (w) { watch(w); report(); });
    if (removed) removed.connect(report);
    if (activated) activated.connect(report);
    if (workspace.stackingOrderChanged) workspace.stackingOrderChanged.connect(report);
    var all = windows();
    for (var i = 0; i < all.length; ++i) watch(all[i]);
    report();
})();
)js";

void replaceAll(std::string& text, std::string_view from, std::string_view to) {
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
}

// A bus name holds only [A-Za-z0-9_.:-], so nothing in it can end the JS string early; anything
// else is dropped all the same.
std::string safeName(std::string_view name) {
    std::string out;
    for (char c : name)
        if (std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == ':' || c == '_' || c == '-') out += c;
    return out;
}

std::optional<double> number(const nlohmann::json& item, const char* key) {
    const auto it = item.find(key);
    if (it == item.end() || !it->is_number()) return std::nullopt;
    return it->get<double>();
}

std::string string(const nlohmann::json& item, const char* key) {
    const auto it = item.find(key);
    return it != item.end() && it->is_string() ? it->get<std::string>() : std::string();
}

bool flag(const nlohmann::json& item, const char* key) {
    const auto it = item.find(key);
    return it != item.end() && it->is_boolean() && it->get<bool>();
}

}  // namespace

std::string text(std::string_view service) {
    std::string script(scriptTemplate);
    replaceAll(script, "@SERVICE@", safeName(service));
    replaceAll(script, "@PATH@", objectPath);
    replaceAll(script, "@INTERFACE@", interfaceName);
    replaceAll(script, "@MEMBER@", member);
    return script;
}

std::optional<WindowReport> parseReport(std::string_view json) {
    const nlohmann::json list = nlohmann::json::parse(json, nullptr, false);
    if (!list.is_array()) return std::nullopt;
    WindowReport report;
    unsigned long id = 0;
    for (const nlohmann::json& item : list) {
        ++id;
        if (!item.is_object()) continue;
        const auto x = number(item, "x"), y = number(item, "y");
        const auto width = number(item, "width"), height = number(item, "height");
        const auto identity = AppIdentity::fromWMClass(string(item, "resourceName"), string(item, "resourceClass"));
        if (!identity) continue;
        DesktopWindow window;
        window.id = id;
        window.ownerName = identity->name;
        window.bundleId = identity->bundleId;
        window.title = string(item, "caption");
        if (const auto pid = number(item, "pid"); pid && *pid > 0 && *pid < 4194305) window.pid = int64_t(*pid);
        window.geometryKnown = x && y && width && height && *width >= 0 && *height >= 0;
        if (window.geometryKnown) {
            window.x = *x;
            window.y = *y;
            window.width = *width;
            window.height = *height;
        }
        window.fullscreen = flag(item, "fullScreen");
        window.layer = flag(item, "keepAbove") ? 3 : 0;
        if (flag(item, "active") && !report.front) report.front = window;
        if (!flag(item, "minimized")) report.windows.push_back(std::move(window));
    }
    return report;
}

}  // namespace aimwise::KWinScript
