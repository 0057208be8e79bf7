#include "common/HttpFault.h"

#include <gtest/gtest.h>

#include <memory>

namespace ktr {
namespace {

using Poco::Net::HTTPResponse;

TEST(HttpFault, keepsItsStatusAndTypeWhenACopyIsThrownOn) {
    std::unique_ptr<Poco::Exception> copy;
    {
        const HttpFault fault(HTTPResponse::HTTP_REQUEST_ENTITY_TOO_LARGE, "too much");
        copy.reset(fault.clone());
    }
    try {
        copy->rethrow();
        FAIL() << "nothing was thrown";
    } catch (const HttpFault& e) {
        EXPECT_EQ(e.status(), HTTPResponse::HTTP_REQUEST_ENTITY_TOO_LARGE);
        EXPECT_EQ(e.displayText(), "HTTP fault: too much");
        EXPECT_STREQ(e.className(), "ktr::HttpFault");
    }
}

} // namespace
} // namespace ktr
