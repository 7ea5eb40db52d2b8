#include "AimwiseCore/models/cancellation.h"

namespace aimwise {

namespace {
thread_local const CancellationToken* currentToken = nullptr;
}

const CancellationToken* CancellationToken::current() { return currentToken; }

void CancellationToken::checkCurrent() {
    if (currentToken && currentToken->isCancelled()) throw CancellationError();
}

CancellationScope::CancellationScope(std::shared_ptr<const CancellationToken> token)
    : token_(std::move(token)), previous_(currentToken) {
    currentToken = token_.get();
}

CancellationScope::~CancellationScope() { currentToken = previous_; }

}  // namespace aimwise
