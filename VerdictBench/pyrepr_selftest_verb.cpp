#include <cstdio>
#include <string>

#include "AimwiseCore/classifier/py_repr.h"
#include "VerdictBench/verbs.h"

namespace aimwise::verbs {

int runPyReprSelftest(const cli::Invocation&) {
    const std::string samples[] = {
        "plain text",
        "Hello \"world\" quote",
        "it's a test",
        "both ' and \" here",
        "back\\\\slash",
        "line1\nline2\ttab\rcarriage",
        "em—dash and café",
        "日本語テキスト",
        "emoji 😀🎉 test",
        "",
        "control\x01" "char\x07" "bell",
        "nbsp\u00a0space",
    };
    for (const auto& sample : samples) std::printf("%s\n", PyRepr::string(sample).c_str());
    return 0;
}

}  // namespace aimwise::verbs
