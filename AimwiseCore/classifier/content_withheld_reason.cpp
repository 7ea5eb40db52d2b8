#include "AimwiseCore/classifier/content_withheld_reason.h"

namespace aimwise {

std::string_view logValue(ContentWithheldReason reason) {
    switch (reason) {
        case ContentWithheldReason::frontmostAppDenylisted: return "frontmost_denylisted";
        case ContentWithheldReason::anotherDenylistedAppWindowVisible: return "denylisted_window_visible";
    }
    return "";
}

std::string_view notice(ContentWithheldReason reason) {
    switch (reason) {
        case ContentWithheldReason::frontmostAppDenylisted:
            return "Withheld: the frontmost app is a password manager, authenticator, or system security prompt. "
                   "Its on-screen contents are never captured or described to this system — judge only from the app "
                   "name and how long it has been in front, the same as any other activity.";
        case ContentWithheldReason::anotherDenylistedAppWindowVisible:
            return "Withheld: a password manager, authenticator, or system security prompt window is visible on "
                   "screen, though it is not the frontmost app. Its on-screen contents are never captured or "
                   "described to this system — judge from what you know about the actual frontmost app and how "
                   "long it has been in front, the same as any other activity.";
    }
    return "";
}

std::optional<ContentWithheldReason> contentWithheldReasonFromLogValue(std::string_view value) {
    for (auto reason : {ContentWithheldReason::frontmostAppDenylisted,
                        ContentWithheldReason::anotherDenylistedAppWindowVisible})
        if (logValue(reason) == value) return reason;
    return std::nullopt;
}

}  // namespace aimwise
