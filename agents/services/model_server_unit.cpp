#include "agents/services/model_server_unit.h"

#include <unistd.h>

#include <algorithm>

#include "AimwiseCore/classifier/classifier_model.h"
#include "CaptureShared/common/text.h"

namespace aimwise::ModelServerUnit {

namespace fs = std::filesystem;

namespace {

constexpr uint64_t gib = 1024ULL * 1024 * 1024;

// One word of a unit's command line: quoted when it holds anything but plain path characters, and
// with systemd's specifier and variable signs doubled so that they stay literal.
std::string word(const std::string& text) {
    std::string escaped;
    bool plain = !text.empty();
    for (char c : text) {
        if (!(std::isalnum(static_cast<unsigned char>(c)) || std::string_view("/._:+-,=").find(c) != std::string_view::npos))
            plain = false;
        if (c == '%' || c == '$') escaped += c;
        if (c == '\\' || c == '"') escaped += '\\';
        escaped += c;
    }
    return plain ? escaped : "\"" + escaped + "\"";
}

bool isExecutable(const fs::path& path) {
    std::error_code error;
    return fs::is_regular_file(path, error) && ::access(path.c_str(), X_OK) == 0;
}

}  // namespace

Plan plan(uint64_t physicalMemoryBytes, int64_t modelFilesBytes) {
    const int64_t minimum = ClassifierModel::contextLength;
    // Rough bytes of key-value cache per token of context: larger models keep more per token. A
    // guess on the safe side; the server's own context limit is what finally decides.
    const int64_t perToken = std::max<int64_t>(modelFilesBytes / 32768, 32 * 1024);
    const int64_t memory = static_cast<int64_t>(physicalMemoryBytes);
    const int64_t spare = memory - modelFilesBytes - std::max<int64_t>(4 * gib, memory / 4);
    Plan chosen{1, static_cast<int>(minimum)};
    for (int slots : {2, 1})
        for (int64_t context : {int64_t(32768), int64_t(16384), minimum}) {
            if (context < minimum || slots * context * perToken > spare) continue;
            if (slots * context > chosen.contextTokens()) chosen = {slots, static_cast<int>(context)};
        }
    return chosen;
}

std::string unitText(const Settings& settings) {
    std::vector<std::string> command{word(settings.program.string()), "--model", word(settings.modelFile.string())};
    if (settings.projector) {
        command.push_back("--mmproj");
        command.push_back(word(settings.projector->string()));
    }
    std::string prepare;
    if (settings.endpoint.isUnixSocket()) {
        const fs::path socket(*settings.endpoint.host);
        command.insert(command.end(), {"--host", word(socket.string())});
        // A socket left by a server that died keeps the next one from listening.
        prepare = "ExecStartPre=/bin/mkdir -p " + word(socket.parent_path().string()) + "\nExecStartPre=/bin/rm -f " +
                  word(socket.string()) + "\n";
    } else {
        command.insert(command.end(), {"--host", "127.0.0.1", "--port", std::to_string(settings.endpoint.port.value_or(80))});
    }
    command.insert(command.end(), {"--ctx-size", std::to_string(settings.plan.contextTokens()), "--parallel",
                                   std::to_string(settings.plan.slots), "--jinja", "--alias", word(settings.model)});
    return "# Written by `aimwise model serve`, which writes it again for another model or machine: change the\n"
           "# command's choices rather than this file. --parallel slots share --ctx-size equally.\n"
           "[Unit]\n"
           "Description=Aimwise local model server: llama-server with " + settings.model + "\n"
           "\n"
           "[Service]\n"
           "Type=simple\n"
           "UMask=0077\n" +
           prepare + "ExecStart=" + join(command, " ") + "\n" +
           "Restart=on-failure\n"
           "RestartSec=10\n"
           "Nice=5\n"
           "\n"
           "[Install]\n"
           "WantedBy=default.target\n";
}

Lookup findProgram(const Environment& environment) {
    Lookup lookup;
    if (const auto custom = aimwise::lookup(environment, programVariable); custom && !custom->empty()) {
        lookup.searched.push_back(*custom);
        if (isExecutable(*custom)) lookup.found = *custom;
        return lookup;
    }
    std::vector<fs::path> places;
    const std::string path = aimwise::lookup(environment, "PATH").value_or("");
    for (size_t start = 0; start <= path.size();) {
        size_t end = path.find(':', start);
        if (end == std::string::npos) end = path.size();
        if (end > start) places.push_back(path.substr(start, end - start));
        start = end + 1;
    }
    const size_t fromPath = places.size();
    const fs::path home = aimwise::lookup(environment, "HOME").value_or("");
    if (!home.empty()) places.push_back(home / ".local/bin");
    places.push_back("/usr/local/bin");
    if (!home.empty()) places.push_back(home / "llama.cpp/build/bin");
    for (size_t i = 0; i < places.size(); ++i) {
        const fs::path& place = places[i];
        if (std::find(lookup.searched.begin(), lookup.searched.end(), place / "llama-server") != lookup.searched.end())
            continue;
        if (i < fromPath) ++lookup.fromPath;
        lookup.searched.push_back(place / "llama-server");
        if (!lookup.found && isExecutable(place / "llama-server")) lookup.found = place / "llama-server";
    }
    return lookup;
}

std::string notFoundAdvice(const Lookup& lookup) {
    std::vector<std::string> places;
    for (size_t i = lookup.fromPath; i < lookup.searched.size(); ++i) places.push_back(lookup.searched[i].string());
    const std::string where = lookup.fromPath > 0 ? "it is in no directory of the PATH, nor at " : "it is not at ";
    return "llama-server, the model server of llama.cpp, is not installed: " + where + join(places, ", ") + ".\n"
           "Debian 12 does not package it. Build it from source (a few minutes):\n"
           "    sudo apt-get install git cmake build-essential libcurl4-openssl-dev\n"
           "    git clone https://github.com/ggml-org/llama.cpp ~/llama.cpp\n"
           "    cmake -S ~/llama.cpp -B ~/llama.cpp/build -DCMAKE_BUILD_TYPE=Release\n"
           "    cmake --build ~/llama.cpp/build --target llama-server -j\n"
           "then run this command again: it finds ~/llama.cpp/build/bin/llama-server. A llama-server installed "
           "elsewhere is used when it is on your PATH or named by AIMWISE_LLAMA_SERVER.";
}

}  // namespace aimwise::ModelServerUnit
