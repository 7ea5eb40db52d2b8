#include "AimwiseCore/models/local_model_reply_hold.h"

namespace aimwise::LocalModelReplyHold {

Decision decide(bool primaryIsLocal, bool modelFilesMissing, bool serverServing, std::optional<int64_t> filesLandedAtMs,
                int64_t asOfMs, bool answersTypedMessage, bool noticeAlreadyWritten) {
    if (!primaryIsLocal) return Decision::run;
    if (modelFilesMissing)
        return answersTypedMessage && !noticeAlreadyWritten ? Decision::holdWithNotice : Decision::holdQuietly;
    if (serverServing) return Decision::run;
    if (filesLandedAtMs && asOfMs - *filesLandedAtMs < serverStartGraceMs) return Decision::holdQuietly;
    return Decision::run;
}

std::string noticeReason(const std::string& model) {
    return "waiting for " + model + " to finish downloading before answering";
}

}  // namespace aimwise::LocalModelReplyHold
