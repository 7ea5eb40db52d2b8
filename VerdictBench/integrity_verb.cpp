// `integrity`: the model integrity guard's dry run. It writes no refusal note.
#include <cstdio>
#include <string>

#include "AimwiseCore/classifier/classifier_model.h"
#include "AimwiseCore/classifier/integrity_guard.h"
#include "AimwiseCore/models/local_inference_endpoint.h"
#include "AimwiseCore/models/local_model_store.h"
#include "AimwiseCore/models/model_backend_error.h"
#include "VerdictBench/cli.h"
#include "VerdictBench/verbs.h"

namespace aimwise::verbs {

namespace {

void line(const std::string& text) {
    std::fputs(text.c_str(), stdout);
    std::fputc('\n', stdout);
}

}  // namespace

int runIntegrity(const cli::Invocation& invocation) {
    namespace Guard = ModelIntegrityGuard;
    const std::string& model = ClassifierModel::defaultModel();
    LocalModelStore store(LocalModelStore::defaultModelsDirectory());
    std::optional<LocalModelManifest> manifest = store.manifest(model);
    Guard::FileCheck fileCheck = Guard::integrityFileCheck(manifest, store);
    line(model + ": files " + Guard::describe(fileCheck));

    std::optional<std::string> expectedPath;
    if (manifest) expectedPath = (store.modelsDirectory() / manifest->fileName).string();

    EndpointURL endpoint;
    try {
        endpoint = LocalInferenceEndpoint::resolveOrThrow(processEnvironment());
    } catch (const LocalInferenceEndpoint::ResolutionError& error) {
        throw cli::Failure("FAIL: " + error.description() + "; no server was asked, so the served model was not checked");
    }
    HTTPSession session;
    std::string servedPath;
    try {
        servedPath = Guard::fetchServedModelPath(endpoint, session);
    } catch (const ModelBackendError& error) {
        // Not a verdict: the dry run ends as an unhandled error would.
        std::fflush(stdout);
        std::fprintf(stderr, "Fatal error: %s\n", error.description().c_str());
        return 2;
    }

    Guard::Verdict verdict = Guard::evaluate(expectedPath, fileCheck, servedPath);
    line(model + ": " + Guard::describe(verdict));
    Guard::TickDecision decision = Guard::tickDecision(model, verdict, invocation.clock->wallMs());
    for (const std::string& warning : decision.warnings) line("warning: " + warning);
    if (decision.refusal) {
        line("tick would REFUSE: " + *decision.refusal);
        std::fflush(stdout);
        return 1;
    }
    line("tick would proceed");
    std::fflush(stdout);
    return 0;
}

}  // namespace aimwise::verbs
