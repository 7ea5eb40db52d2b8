#include "agents/aimwise/model_verb.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <deque>
#include <iostream>
#include <set>

#include "AimwiseCore/classifier/classifier_model.h"
#include "AimwiseCore/models/http_session.h"
#include "AimwiseCore/models/local_inference_endpoint.h"
#include "AimwiseCore/models/model_backend_error.h"
#include "AimwiseCore/models/model_download.h"
#include "AimwiseCore/models/model_installer.h"
#include "CaptureShared/common/atomic_file.h"
#include "CaptureShared/common/text.h"
#include "CaptureShared/dataroot/agent_config.h"
#include "CaptureShared/dataroot/model_provisioning.h"
#include "agents/services/model_server_unit.h"
#include "agents/services/user_services.h"

namespace aimwise::ModelVerb {

namespace fs = std::filesystem;
namespace Guard = ModelIntegrityGuard;
using ModelDownload::humanBytes;

namespace {

constexpr const char* usageText =
    "usage: aimwise model list [--installed]\n"
    "       aimwise model install [NAME] [--no-wait]   (default: the classifier's model, else the one for this machine)\n"
    "       aimwise model serve [NAME] [--no-start]    (default: the classifier's model)\n";
constexpr int64_t serveWaitMs = 120'000;

int usage(const std::string& message) {
    std::fprintf(stderr, "aimwise: %s\n%s", message.c_str(), usageText);
    return 2;
}

int failed(const std::string& message) {
    std::fprintf(stderr, "FAIL: %s\n", message.c_str());
    return 1;
}

void say(const std::string& text) {
    std::printf("%s\n", text.c_str());
    std::fflush(stdout);
}

std::string duration(double seconds) {
    const auto whole = static_cast<int64_t>(std::llround(seconds));
    char text[32];
    if (whole < 60)
        std::snprintf(text, sizeof text, "%llds", static_cast<long long>(whole));
    else if (whole < 3600)
        std::snprintf(text, sizeof text, "%lldm%02llds", static_cast<long long>(whole / 60),
                      static_cast<long long>(whole % 60));
    else
        std::snprintf(text, sizeof text, "%lldh%02lldm", static_cast<long long>(whole / 3600),
                      static_cast<long long>(whole / 60 % 60));
    return text;
}

std::string sizeText(const ModelCatalogue::File& file) {
    return file.name + " (" + (file.sizeBytes ? humanBytes(*file.sizeBytes) : "size unknown") + ")";
}

LocalModelStore defaultStore() { return LocalModelStore(LocalModelStore::defaultModelsDirectory()); }

// Installed and every file still the verified one.
bool isVerified(const LocalModelStore& store, const std::string& model) {
    const auto manifest = store.manifest(model);
    return manifest && std::holds_alternative<LocalModelDiskState::Verified>(store.diskState(*manifest).value);
}

std::string whereServed(const EndpointURL& endpoint) {
    return endpoint.isUnixSocket() ? "on the socket " + *endpoint.host : "at " + endpoint.string();
}

// Bytes, speed over the last few seconds, and time left, redrawn in place on a terminal and
// written every tenth of the way otherwise.
class ProgressView {
public:
    ProgressView(const Clock& clock, bool terminal) : clock_(clock), terminal_(terminal) {}

    void update(int64_t done, int64_t total) {
        const int64_t now = clock_.monotonicMs();
        samples_.emplace_back(now, done);
        while (samples_.size() > 2 && now - samples_.front().first > 5000) samples_.pop_front();
        const double seconds = (now - samples_.front().first) / 1000.0;
        const double rate = seconds > 0 ? (done - samples_.front().second) / seconds : 0;
        if (terminal_) {
            if (now - drawnAtMs_ < 100 && done < total) return;
            drawnAtMs_ = now;
            std::printf("\r%s\x1b[K", progressLine(done, total, rate, 100).c_str());
            open_ = true;
        } else {
            const int64_t tenth = total > 0 ? done * 10 / total : 10;
            if (tenth == lastTenth_) return;
            lastTenth_ = tenth;
            std::printf("%s\n", progressLine(done, total, rate, 100).c_str());
        }
        std::fflush(stdout);
    }
    void finish() {
        if (open_) std::printf("\n");
        open_ = false;
        samples_.clear();
        lastTenth_ = -1;
    }

private:
    const Clock& clock_;
    bool terminal_;
    std::deque<std::pair<int64_t, int64_t>> samples_;
    int64_t drawnAtMs_ = 0;
    int64_t lastTenth_ = -1;
    bool open_ = false;
};

std::string fileDone(const ModelInstaller::FileOutcome& outcome) {
    using How = ModelInstaller::FileOutcome::How;
    const std::string name = "  " + outcome.name + ": ";
    switch (outcome.how) {
        case How::alreadyVerified: return name + "already installed and verified";
        case How::verifiedInPlace: return name + "the copy already here is the published file (SHA-256 checked)";
        case How::hardLinked: return name + "reused " + outcome.source + " by a hard link (SHA-256 checked), nothing downloaded";
        case How::copied: return name + "copied from " + outcome.source + " (SHA-256 checked), nothing downloaded";
        case How::downloaded:
            return name + "downloaded and SHA-256 verified" +
                   (outcome.resumedFromBytes > 0 ? ", continuing " + humanBytes(outcome.resumedFromBytes) +
                                                       " from an earlier attempt"
                                                 : "");
    }
    return name;
}

std::optional<std::string> defaultInstallName(const ModelCatalogue& catalogue, const Environment& environment) {
    if (const auto configured = lookup(environment, "AIMCHECK_MODEL"); configured && catalogue.find(*configured))
        return *configured;
    return ModelProvisioning::recommendedDefaultModel(ModelProvisioning::physicalMemoryBytes());
}

int runList(bool installedOnly) {
    const LocalModelStore store = defaultStore();
    const ModelCatalogue known = catalogue(store);
    if (installedOnly) {
        // For scripts: the verified models, one name a line, the classifier's first.
        std::vector<std::string> names{roles(effectiveEnvironment()).classifier};
        for (const auto& entry : known.entries)
            if (entry.name != names.front()) names.push_back(entry.name);
        for (const auto& name : names)
            if (isVerified(store, name)) say(name);
        return 0;
    }
    std::fputs(renderList(known, store, roles(effectiveEnvironment()),
                          ModelProvisioning::recommendedDefaultModel(ModelProvisioning::physicalMemoryBytes()))
                   .c_str(),
               stdout);
    return 0;
}

int runInstall(const std::vector<std::string>& arguments, const Clock& clock) {
    std::optional<std::string> name;
    ModelInstaller::Options options;
    for (const auto& argument : arguments) {
        if (argument == "--no-wait")
            options.ifBusy = ModelInstaller::IfBusy::refuse;
        else if (argument.starts_with("--"))
            return usage("unknown option " + argument);
        else if (name)
            return usage("install takes one model name");
        else
            name = argument;
    }
    const Environment environment = effectiveEnvironment();
    const LocalModelStore store = defaultStore();
    const ModelCatalogue known = catalogue(store);
    if (!name) name = defaultInstallName(known, environment);
    if (!name)
        return failed("this machine has " + humanBytes(int64_t(ModelProvisioning::physicalMemoryBytes())) +
                      " of memory, too little for any model in the catalogue beside your own work; name one to "
                      "install it anyway (`aimwise model list` shows them).");
    const ModelCatalogue::Entry* entry = known.find(*name);
    if (!entry) {
        std::vector<std::string> names;
        for (const auto& e : known.entries) names.push_back(e.name);
        return failed(*name + " is not in the catalogue (it knows " + join(names, ", ") + "). Add it to " +
                      personalCataloguePath(store).string() + " with its URL, size and SHA-256.");
    }

    options.mirror = lookup(environment, ModelMirror::envVar).value_or("");
    options.environment = environment;
    ProgressView view(clock, isatty(STDOUT_FILENO));
    bool announced = false;
    const auto announce = [&] {
        if (!announced) say("Installing " + *name + " into " + store.modelsDirectory().string());
        announced = true;
    };
    options.listener.onWaiting = [&](const std::string& holder) {
        announce();
        say("Another model install" + (holder.empty() ? "" : " (process " + holder + ")") + " is writing into " +
            store.modelsDirectory().string() + "; waiting for it to finish…");
    };
    options.listener.onFile = [&](const ModelCatalogue::File& file, const std::string& url) {
        announce();
        say("  " + sizeText(file) + ", from " + url + " unless a copy is already on this machine");
    };
    options.listener.onProgress = [&](const ModelCatalogue::File& file, int64_t done, int64_t) {
        view.update(done, file.sizeBytes.value_or(0));
    };
    options.listener.onFileDone = [&](const ModelInstaller::FileOutcome& outcome) {
        announce();
        view.finish();
        say(fileDone(outcome));
    };
    try {
        ModelInstaller::install(*entry, store, options, clock);
    } catch (const ModelInstallError& error) {
        view.finish();
        if (error.kind() != ModelInstallError::Kind::notInstallable) return failed(error.description());
        return failed(error.description() + " Entries in " + personalCataloguePath(store).string() +
                      " replace the built-in ones.");
    } catch (const Error& error) {
        view.finish();
        return failed(error.description());
    }
    say("Installed and verified " + *name + ".");
    const Roles now = roles(environment);
    if (now.classifier != *name)
        say("The classifier uses " + now.classifier + " (AIMCHECK_MODEL); to judge with " + *name +
            ", set AIMCHECK_MODEL to it in the \"env\" of " + DataPaths::configPath().string() + ".");
    say("Next: `aimwise model serve` runs llama-server with it as a user service.");
    return 0;
}

// Asks the server which file it serves, in the words of the status line.
ServerReply askServer(const EndpointURL& endpoint) {
    try {
        HTTPSession session;
        return {ServerReply::Kind::served, Guard::fetchServedModelPath(endpoint, session)};
    } catch (const ModelBackendError& error) {
        if (const auto* http = error.asHTTPError(); http && http->status == 503)
            return {ServerReply::Kind::loading, ""};
        if (error.asTransportError()) {
            std::error_code ignored;
            if (!endpoint.isUnixSocket()) return {ServerReply::Kind::unreachable, "nothing answers there"};
            return {ServerReply::Kind::unreachable, fs::exists(*endpoint.host, ignored)
                                                        ? "a socket is there, but nothing accepts connections on it"
                                                        : "there is no socket there"};
        }
        return {ServerReply::Kind::unexpected, error.description()};
    }
}

int serve(const std::string& model, UserServices::Start start, const Environment& environment, const Clock& clock) {
    const LocalModelStore store = defaultStore();
    const auto manifest = store.manifest(model);
    if (!manifest) return failed(model + " is not installed: run `aimwise model install " + model + "` first.");
    if (!isVerified(store, model))
        return failed(model + "'s files in " + store.modelsDirectory().string() +
                      " are missing or changed since they were verified: run `aimwise model install " + model +
                      "` to check them again.");
    const ModelServerUnit::Lookup program = ModelServerUnit::findProgram(environment);
    if (!program.found) return failed(ModelServerUnit::notFoundAdvice(program));
    EndpointURL endpoint;
    try {
        endpoint = LocalInferenceEndpoint::resolveOrThrow(environment);
    } catch (const LocalInferenceEndpoint::ResolutionError& error) {
        return failed(error.description() + "; nothing was written.");
    }

    ModelServerUnit::Settings settings;
    settings.program = *program.found;
    settings.model = model;
    settings.modelFile = store.modelsDirectory() / manifest->fileName;
    int64_t bytes = 0;
    for (const auto& file : manifest->files) {
        bytes += file.sizeBytes;
        if (file.name != manifest->fileName && !settings.projector) settings.projector = store.modelsDirectory() / file.name;
    }
    settings.endpoint = endpoint;
    settings.plan = ModelServerUnit::plan(ModelProvisioning::physicalMemoryBytes(), bytes);

    const fs::path unit = UserServices::unitDirectory(environment) / ModelServerUnit::unitName;
    try {
        fs::create_directories(unit.parent_path());
        writeFileAtomically(unit, ModelServerUnit::unitText(settings), 0644);
    } catch (const fs::filesystem_error& error) {
        return failed("could not write " + unit.string() + ": " + error.code().message());
    }
    say("wrote " + unit.string());
    const std::string name = ModelServerUnit::unitName;
    int status = UserServices::runSystemctl(environment, {"daemon-reload"});
    if (status == 0) status = UserServices::runSystemctl(environment, {"enable", name});
    if (status == 0 && start == UserServices::Start::now)
        status = UserServices::runSystemctl(environment, {"restart", name});
    if (status != 0)
        return failed("the unit is written, but systemctl --user could not enable or start it (status " +
                      std::to_string(status) + "). From a terminal of your desktop session run: systemctl --user "
                      "daemon-reload && systemctl --user enable --now " + name);
    const std::string plan = std::to_string(settings.plan.slots) + (settings.plan.slots == 1 ? " slot" : " slots") +
                             " of " + std::to_string(settings.plan.contextPerSlot) + " tokens";
    if (start == UserServices::Start::later) {
        say("llama-server will serve " + model + " " + whereServed(endpoint) + " with " + plan +
            " from the next login, or now with: systemctl --user start " + name);
        return 0;
    }
    say("llama-server is starting with " + model + " " + whereServed(endpoint) + ", " + plan + "; waiting for it to load…");
    const int64_t deadline = clock.monotonicMs() + serveWaitMs;
    while (clock.monotonicMs() < deadline) {
        const ServerReply reply = askServer(endpoint);
        if (reply.kind == ServerReply::Kind::served && Guard::samePath(reply.detail, settings.modelFile.string())) {
            say("Serving " + model + " " + whereServed(endpoint) + ". The classifier judges with it from its next tick.");
            return 0;
        }
        if (UserServices::unitState(environment, name).activeState == "failed")
            return failed("llama-server stopped while starting; its own words are in: journalctl --user -u " + name);
        clock.sleepMs(1000);
    }
    say("llama-server has not answered within " + duration(serveWaitMs / 1000.0) +
        "; a large model can take longer to load. `aimwise status` shows when it does, and journalctl --user -u " +
        name + " what it is doing.");
    return 0;
}

int runServe(const std::vector<std::string>& arguments, const Clock& clock) {
    std::optional<std::string> name;
    UserServices::Start start = UserServices::Start::now;
    for (const auto& argument : arguments) {
        if (argument == "--no-start")
            start = UserServices::Start::later;
        else if (argument.starts_with("--"))
            return usage("unknown option " + argument);
        else if (name)
            return usage("serve takes one model name");
        else
            name = argument;
    }
    const Environment environment = effectiveEnvironment();
    return serve(name.value_or(roles(environment).classifier), start, environment, clock);
}

}  // namespace

fs::path personalCataloguePath(const LocalModelStore& store) { return store.modelsDirectory() / "catalogue.json"; }

ModelCatalogue catalogue(const LocalModelStore& store) {
    ModelCatalogue known = ModelCatalogue::parse(builtInCatalogue(), "the built-in model catalogue");
    const fs::path personal = personalCataloguePath(store);
    std::error_code error;
    if (!fs::exists(personal, error)) return known;
    std::string text;
    try {
        text = readWholeFile(personal);
    } catch (const fs::filesystem_error& failure) {
        throw ModelCatalogueError(personal.string() + " could not be read: " + failure.code().message());
    }
    return known.mergedWith(ModelCatalogue::parse(text, personal.string()));
}

Environment effectiveEnvironment() {
    Environment environment = processEnvironment();
    for (const auto& [key, value] : AgentConfig::load().settings)
        if (environment[key].empty()) environment[key] = value;
    return environment;
}

Roles roles(const Environment& environment) {
    const auto setting = [&](const char* key) -> std::optional<std::string> {
        const auto value = lookup(environment, key);
        return value && !value->empty() ? value : std::nullopt;
    };
    Roles roles;
    roles.classifier = setting("AIMCHECK_MODEL").value_or(ClassifierModel::fallback);
    const std::string backend = setting("AIMCAP_MODEL_BACKEND").value_or("ollama");
    const bool local = setting("AIMCAP_OFFLINE_MODE") == "1" || backend == "ollama" || backend == "local";
    roles.coachIsFallback = !local;
    roles.coach = local ? setting("AIMCAP_MODEL").value_or(roles.classifier)
                        : setting("AIMCAP_FALLBACK_MODEL").value_or(roles.classifier);
    return roles;
}

std::string renderList(const ModelCatalogue& catalogue, const LocalModelStore& store, const Roles& roles,
                       const std::optional<std::string>& recommended) {
    std::string out;
    const auto describeUse = [&](const std::string& name) {
        std::vector<std::string> notes;
        if (recommended == name) notes.push_back("recommended for this machine");
        std::vector<std::string> users;
        if (roles.classifier == name) users.push_back("the classifier");
        if (roles.coach == name) users.push_back(roles.coachIsFallback ? "the coach when the online model fails" : "the coach");
        if (!users.empty()) notes.push_back("used by " + join(users, " and "));
        return notes.empty() ? std::string() : " (" + join(notes, "; ") + ")";
    };
    const auto state = [&](const std::string& name) -> std::string {
        const auto manifest = store.manifest(name);
        if (!manifest) return "";
        const LocalModelDiskState disk = store.diskState(*manifest);
        if (std::holds_alternative<LocalModelDiskState::Verified>(disk.value)) return "installed and verified";
        if (const auto* stale = std::get_if<LocalModelDiskState::NeedsVerification>(&disk.value))
            return "installed, but " + join(stale->names, ", ") + " changed since it was verified: `aimwise model install " +
                   name + "` checks it again";
        return "installed once, but its files are gone: `aimwise model install " + name + "` fetches them again";
    };
    for (const auto& entry : catalogue.entries) {
        out += entry.name + describeUse(entry.name) + "\n";
        if (!entry.summary.empty()) out += "  " + entry.summary + "\n";
        std::vector<std::string> files;
        for (const auto& file : entry.files()) files.push_back(sizeText(file));
        out += "  files: " + join(files, ", ") + "\n";
        std::string now = state(entry.name);
        if (now.empty()) {
            const auto gaps = entry.gaps();
            now = gaps.empty() ? "not installed: `aimwise model install " + entry.name + "`"
                               : "not installed, and cannot be yet: " + join(gaps, "; ");
        }
        out += "  " + now + "\n";
    }
    // A model a role asks for that the catalogue does not know is still worth a line.
    for (const std::string& name : std::set<std::string>{roles.classifier, roles.coach})
        if (!catalogue.find(name)) {
            const std::string now = state(name);
            out += name + describeUse(name) + "\n  not in the catalogue; " +
                   (now.empty() ? "not installed, so which file a server serves for it cannot be checked" : now) + "\n";
        }
    out += "Models directory: " + store.modelsDirectory().string() + "\n";
    return out;
}

std::string progressLine(int64_t doneBytes, int64_t totalBytes, double bytesPerSec, size_t width) {
    constexpr int barWidth = 24;
    const double share = totalBytes > 0 ? std::clamp(double(doneBytes) / double(totalBytes), 0.0, 1.0) : 0.0;
    const int filled = static_cast<int>(share * barWidth);
    std::string line = "  [" + std::string(filled, '#') + std::string(barWidth - filled, '-') + "]  " +
                       humanBytes(doneBytes) + " of " + humanBytes(totalBytes);
    if (bytesPerSec >= 1) {
        line += "  " + humanBytes(static_cast<int64_t>(bytesPerSec)) + "/s";
        if (doneBytes < totalBytes) line += "  " + duration((totalBytes - doneBytes) / bytesPerSec) + " left";
    }
    return line.size() > width ? line.substr(0, width) : line;
}

std::string statusLine(const std::string& model, const Guard::FileCheck& fileCheck,
                       const std::optional<std::string>& expectedPath, const std::string& where,
                       const ServerReply& reply) {
    using Kind = ServerReply::Kind;
    const std::string install = "`aimwise model install " + model + "`";
    if (std::holds_alternative<Guard::FileCheck::UnknownModel>(fileCheck.value)) {
        if (reply.kind == Kind::served)
            return "Model: the server " + where + " serves " + reply.detail + ", but " + model +
                   " was not installed by aimwise, so that file cannot be checked — " + install +
                   " installs a verified copy";
        return "Model: " + model + " is not installed — run " + install + ", then `aimwise model serve`";
    }
    if (std::holds_alternative<Guard::FileCheck::Missing>(fileCheck.value))
        return "Model: " + model + "'s files are missing — run " + install + " to fetch them again";
    if (const auto* stale = std::get_if<Guard::FileCheck::Stale>(&fileCheck.value))
        return "Model: " + model + "'s files changed since they were verified (" + stale->text + ") — run " + install +
               " to check them again";
    switch (reply.kind) {
        case Kind::served:
            if (expectedPath && Guard::samePath(*expectedPath, reply.detail))
                return "Model: " + model + " — installed, verified and served " + where;
            return "Model: the server " + where + " serves " + reply.detail + ", not the verified " +
                   expectedPath.value_or(model) + " — run `aimwise model serve` to restart it with the verified file";
        case Kind::loading:
            return "Model: " + model + " is installed and verified; llama-server " + where +
                   " is still loading it — check again in a minute";
        case Kind::unreachable:
            return "Model: " + model + " is installed and verified, but no server answers " + where + " (" +
                   reply.detail + ") — run `aimwise model serve`";
        case Kind::unexpected: break;
    }
    return "Model: " + model + " is installed and verified, but what answers " + where +
           " is not llama-server as expected (" + reply.detail + ") — run `aimwise model serve`";
}

std::string statusLine(const Environment& environment) {
    const std::string model = roles(environment).classifier;
    const LocalModelStore store = defaultStore();
    const auto manifest = store.manifest(model);
    std::optional<std::string> expectedPath;
    if (manifest) expectedPath = (store.modelsDirectory() / manifest->fileName).string();
    EndpointURL endpoint;
    try {
        endpoint = LocalInferenceEndpoint::resolveOrThrow(environment);
    } catch (const LocalInferenceEndpoint::ResolutionError& error) {
        return "Model: no server is asked, because " + error.description();
    }
    return statusLine(model, Guard::integrityFileCheck(manifest, store), expectedPath, whereServed(endpoint),
                      askServer(endpoint));
}

int offerServe(const Environment& environment, const Clock& clock) {
    const std::string model = roles(environment).classifier;
    const LocalModelStore store = defaultStore();
    if (!isVerified(store, model)) {
        say("No verified local model yet: `aimwise model install` fetches " + model +
            " for the classifier, and `aimwise model serve` then runs it.");
        return 0;
    }
    if (UserServices::unitState(environment, ModelServerUnit::unitName).installed) return 0;
    if (!isatty(STDIN_FILENO)) {
        say(model + " is installed: `aimwise model serve` runs llama-server with it as a user service too.");
        return 0;
    }
    std::printf("%s is installed. Run llama-server with it as a user service too? [Y/n] ", model.c_str());
    std::fflush(stdout);
    std::string answer;
    std::getline(std::cin, answer);
    answer = trimWhitespaceAndNewlines(answer);
    if (!answer.empty() && answer != "y" && answer != "Y" && answer != "yes") return 0;
    return serve(model, UserServices::Start::now, environment, clock);
}

int run(const std::vector<std::string>& arguments, const Clock& clock) {
    if (arguments.empty()) return usage("model needs list, install or serve");
    const std::string& verb = arguments.front();
    const std::vector<std::string> rest(arguments.begin() + 1, arguments.end());
    try {
        if (verb == "list")
            return rest.empty() || rest == std::vector<std::string>{"--installed"} ? runList(!rest.empty())
                                                                                   : usage("list takes only --installed");
        if (verb == "install") return runInstall(rest, clock);
        if (verb == "serve") return runServe(rest, clock);
    } catch (const ModelCatalogueError& error) {
        return failed(error.description());
    }
    return usage("unknown model command \"" + verb + "\"");
}

}  // namespace aimwise::ModelVerb
