// What the integrity guard reads before a screenshot may go to the local model: the manifests and
// verification records beside the model files, the server's /props, and a refusal note.
// Input: manifests.json, verified.json, the /props body and the note, split by "=====" lines.
#include "AimwiseCore/classifier/integrity_guard.h"
#include "fuzz/fuzz_support.h"

using namespace aimwise;
using fuzzing::require;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    const auto part = fuzzing::parts(fuzzing::text(bytes, size), 4);
    const LocalModelStore store(fuzzing::scratch() / "models"), saved(fuzzing::scratch() / "saved");
    static const bool made = [&] {
        fuzzing::fs::create_directories(store.modelsDirectory());
        fuzzing::writeFile(store.modelsDirectory() / "model.gguf", "GGUF");
        return true;
    }();
    (void)made;
    fuzzing::writeFile(store.manifestsPath(), part[0]);
    fuzzing::writeFile(store.verificationsPath(), part[1]);

    const auto manifest = store.manifest("gemma");
    const auto check = ModelIntegrityGuard::integrityFileCheck(manifest, store);
    const auto expected = manifest ? std::optional((store.modelsDirectory() / manifest->fileName).string()) : std::nullopt;
    const auto served = ModelIntegrityGuard::parseServedModelPath(part[2]);
    const auto verdict = ModelIntegrityGuard::evaluate(expected, check, served.value_or(""));
    (void)ModelIntegrityGuard::describe(check);
    (void)ModelIntegrityGuard::describe(verdict);
    (void)ModelIntegrityGuard::tickDecision("gemma", verdict, 0);
    if (manifest) {
        fuzzing::fs::remove(saved.manifestsPath());
        saved.saveManifest(*manifest);
        require(saved.manifest("gemma") == manifest, "a saved manifest reads back as it was");
    }

    const auto notePath = fuzzing::scratch() / "refusal.json";
    fuzzing::writeFile(notePath, part[3]);
    if (const auto note = ModelIntegrityGuard::readRefusalNote(notePath);
        note && note->atMs >= 0 && note->atMs < 253'402'300'800'000) {  // before the year 10000
        ModelIntegrityGuard::writeRefusalNote(*note, notePath);
        require(ModelIntegrityGuard::readRefusalNote(notePath) == note, "a refusal note reads back as written");
    }
    return 0;
}
