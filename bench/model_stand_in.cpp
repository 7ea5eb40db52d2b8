// A stand-in model server a person can start to try the model stacks without a model: the local
// server's routes over TCP or its unix socket, or, with --online, the online router's chat route
// behind a bearer key. Chat replies echo the last user message, so what arrives (after redaction)
// is what comes back. --status answers every chat request with that error instead.
//
//   model_stand_in [--socket PATH] [--online KEY] [--status CODE]
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>

#include "tests/support/scripted_model_server.h"

using aimwise::testing::ScriptedModelServer;

int main(int argc, char** argv) {
    std::optional<std::string> socket, onlineKey;
    std::optional<int> status;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (i + 1 >= argc) {
            std::fprintf(stderr, "usage: model_stand_in [--socket PATH] [--online KEY] [--status CODE]\n");
            return 2;
        }
        const std::string value = argv[++i];
        if (argument == "--socket") socket = value;
        else if (argument == "--online") onlineKey = value;
        else if (argument == "--status") status = std::atoi(value.c_str());
        else {
            std::fprintf(stderr, "model_stand_in: unknown option %s\n", argument.c_str());
            return 2;
        }
    }
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);  // before the server's threads start, so they inherit it

    ScriptedModelServer server = socket ? ScriptedModelServer(std::filesystem::path(*socket))
                                        : ScriptedModelServer(ScriptedModelServer::Transport::tcp);
    if (onlineKey) server.setOnlineMode(*onlineKey);
    if (status) {
        const int code = *status;
        server.setHandler("/v1/chat/completions", [code](const ScriptedModelServer::Request&) {
            return ScriptedModelServer::Reply::providerError(code, code == 429 ? "Rate limit exceeded"
                                                                               : "The stand-in was told to fail");
        });
    }
    std::printf("listening on %s\n", server.baseURLString().c_str());
    std::fflush(stdout);
    int signal = 0;
    sigwait(&stop, &signal);
    return 0;
}
