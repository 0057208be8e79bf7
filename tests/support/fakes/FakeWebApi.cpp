#include "State.h"

#include <utility>

namespace ktr {

using test::fakes::Locked;

struct WebApiBasic::Impl {};

WebApiBasic::WebApiBasic() = default;

WebApiBasic::~WebApiBasic() = default;

std::shared_ptr<WebApiBasic> WebApiBasic::instance() {
    static const auto router = std::make_shared<WebApiBasic>();
    return router;
}

void WebApiBasic::apiRegist(std::string route, Handler handler) {
    const Locked state;
    test::fakes::throwIfSet(state->registrationFailure);
    state->routes.push_back({std::move(route), std::move(handler)});
}

} // namespace ktr

namespace ktr::test::fakes {

std::vector<Route> routes() {
    return Locked()->routes;
}

void failRegistration(std::exception_ptr failure) {
    Locked()->registrationFailure = std::move(failure);
}

} // namespace ktr::test::fakes
