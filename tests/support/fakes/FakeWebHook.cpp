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
    std::function<void()> hook;
    {
        const Locked state;
        test::fakes::throwIfSet(state->webHookFailure);
        ++state->serverStartedReports;
        hook = state->serverStartedHook;
    }
    if (hook)
        hook();
}

} // namespace ktr

namespace ktr::test::fakes {

int serverStartedReports() {
    return Locked()->serverStartedReports;
}

void failWebHook(std::exception_ptr failure) {
    Locked()->webHookFailure = std::move(failure);
}

void onServerStarted(std::function<void()> hook) {
    Locked()->serverStartedHook = std::move(hook);
}

} // namespace ktr::test::fakes
