#include "State.h"

#include "ktr/common/WebHookBasic.h"

#include <utility>

namespace ktr {

using test::fakes::Locked;

struct WebHookBasic::Impl {};

WebHookBasic::WebHookBasic() = default;

WebHookBasic::~WebHookBasic() = default;

std::shared_ptr<WebHookBasic> WebHookBasic::defaultWebHook() {
    static const auto hook = std::make_shared<WebHookBasic>();
    return hook;
}

void WebHookBasic::reportServerStarted() {
    const Locked state;
    test::fakes::throwIfSet(state->webHookFailure);
    ++state->serverStartedReports;
}

} // namespace ktr

namespace ktr::test::fakes {

int serverStartedReports() {
    return Locked()->serverStartedReports;
}

void failWebHook(std::exception_ptr failure) {
    Locked()->webHookFailure = std::move(failure);
}

} // namespace ktr::test::fakes
