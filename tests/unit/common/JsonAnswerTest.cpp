#include "ktr/common/JsonAnswer.h"

#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>

#include <gtest/gtest.h>

namespace ktr {
namespace {

TEST(JsonAnswer, HasCodeAndMessage) {
    EXPECT_EQ(makeJsonDefault(0, "success"), R"({"code":0,"msg":"success"})");
    EXPECT_EQ(makeJsonDefault(-1, "port number invalid"),
              R"({"code":-1,"msg":"port number invalid"})");
}

TEST(JsonAnswer, EscapesWhatJsonCannotHold) {
    const std::string message = "a \"quote\", a \\, a\nline, a tab\t, \x01 and \xc3\xa4";
    const auto answer =
        Poco::JSON::Parser().parse(makeJsonDefault(7, message)).extract<Poco::JSON::Object::Ptr>();
    EXPECT_EQ(answer->getValue<std::string>("msg"), message);
    EXPECT_EQ(answer->getValue<int>("code"), 7);
}

} // namespace
} // namespace ktr
