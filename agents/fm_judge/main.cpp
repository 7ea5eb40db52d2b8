// aimwise-fm-judge: one verdict from a second local model, for replay's paired arm.
#include <cstdio>
#include <string>

#include "AimwiseCore/models/http_session.h"
#include "CaptureShared/dataroot/agent_umask.h"
#include "agents/fm_judge/fm_judge.h"

int main() {
    aimwise::AgentUmask::apply();
    std::string request;
    char buffer[65536];
    size_t n = 0;
    // One byte past the limit is enough to refuse the request.
    while (request.size() <= aimwise::FMJudgeHelper::maxRequestBytes && (n = std::fread(buffer, 1, sizeof buffer, stdin)) > 0)
        request.append(buffer, n);
    aimwise::HTTPSession session;
    const auto answer = aimwise::FMJudgeHelper::answer(request, aimwise::processEnvironment(), session);
    std::fwrite(answer.output.data(), 1, answer.output.size(), stdout);
    return answer.exitStatus;
}
