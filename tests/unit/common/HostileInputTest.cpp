#include "WebApiClient.h"
#include "support/LogCapture.h"

#include "ktr/common/WebApiBasic.h"

#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <ostream>

namespace ktr {
namespace {

using test::RawClient;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

struct Smuggled {
    const char* name;
    /// With a request for /smuggled in it, or behind it, that some readers see and others do not.
    std::string bytes;
};

void PrintTo(const Smuggled& smuggled, std::ostream* out) {
    *out << smuggled.name;
}

class SmuggledRequest : public testing::TestWithParam<Smuggled> {
protected:
    SmuggledRequest() {
        for (const char* route : {"/x", "/smuggled"})
            api.apiRegist(route, [this](auto&, auto& response, const auto&) {
                ++calls;
                response.send() << "served";
            });
        address = api.bind();
        api.serve();
    }

    const test::LogCapture log;
    std::atomic<int> calls{0};
    WebApiBasic api;
    Poco::Net::SocketAddress address;
};

// The server took a header to end in its midst and what followed for the next request, which
// whoever stands before the server takes for a part of the first.
TEST_P(SmuggledRequest, IsRefusedTogetherWithTheOneThatHidesIt) {
    RawClient client(address);
    client.send(GetParam().bytes);
    const std::string all = client.rest();
    EXPECT_THAT(all, AllOf(StartsWith("HTTP/1.1 400"), Not(HasSubstr("served"))));
    EXPECT_EQ(all.rfind("HTTP/1.1 "), 0U) << all;
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(log.texts(Poco::Message::PRIO_WARNING).size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(
    WebApiBasic, SmuggledRequest,
    testing::Values(
        Smuggled{"BehindByte255", "GET /x HTTP/1.1\r\n\xffGET /smuggled HTTP/1.1\r\n\r\n"},
        Smuggled{"BehindByte255InAValue",
                 "GET /x HTTP/1.1\r\nA: b\xff\xffGET /smuggled HTTP/1.1\r\n\r\n"},
        Smuggled{"BehindByte255InTheTarget", "GET /x\xff HTTP/1.1\r\n\r\n"},
        Smuggled{"BehindALineOfOneByte", "GET /x HTTP/1.1\r\nA\nGET /smuggled HTTP/1.1\r\n\r\n"},
        Smuggled{"BehindACarriageReturn",
                 "GET /x HTTP/1.1\r\n\rA: b\r\nGET /smuggled HTTP/1.1\r\n\r\n"},
        Smuggled{"BehindALineWithoutTarget", "GET\n\n/smuggled HTTP/1.1\r\n\r\n"},
        Smuggled{"BehindALineWithoutColon",
                 "POST /x HTTP/1.1\r\nContent-Length 30\r\n\r\nGET /smuggled HTTP/1.1\r\n\r\n"},
        Smuggled{"BehindAContinuedLine", "POST /x HTTP/1.1\r\nA: b\r\n Content-Length: 30\r\n\r\n"
                                         "GET /smuggled HTTP/1.1\r\n\r\n"},
        Smuggled{"BehindALineThatEndsOtherwise",
                 "POST /x HTTP/1.1\r\nA: b\nContent-Length: 26\r\n\r\n"
                 "GET /smuggled HTTP/1.1\r\n\r\n"},
        Smuggled{"BehindACodingAfterAControlCharacter",
                 "POST /x HTTP/1.1\r\nTransfer-Encoding: \x0b"
                 "chunked\r\n\r\n0\r\n\r\nGET /smuggled HTTP/1.1\r\n\r\n"},
        Smuggled{"BehindAFourthWord", "GET /x HTTP/1.1 GET /smuggled HTTP/1.1\r\n\r\n"},
        Smuggled{"BehindABlank", " GET /x HTTP/1.1\r\n\r\nGET /smuggled HTTP/1.1\r\n\r\n"},
        Smuggled{"BehindTwoBlanks", "GET  /x HTTP/1.1\r\n\r\nGET /smuggled HTTP/1.1\r\n\r\n"},
        Smuggled{"BehindABlankAtTheEnd", "GET /x HTTP/1.1 \r\n\r\nGET /smuggled HTTP/1.1\r\n\r\n"},
        Smuggled{"BehindATab", "GET\t/x HTTP/1.1\r\n\r\nGET /smuggled HTTP/1.1\r\n\r\n"},
        Smuggled{"BehindANul",
                 std::string("GET /x?") + '\0' + " HTTP/1.1\r\n\r\nGET /smuggled HTTP/1.1\r\n\r\n"},
        Smuggled{"BehindACarriageReturnAtTheEnd",
                 "GET /x HTTP/1.1\r\r\n\r\nGET /smuggled HTTP/1.1\r\n\r\n"}),
    [](const auto& test) { return std::string(test.param.name); });

class HostileInputTest : public testing::Test {
protected:
    HostileInputTest() {
        api.apiRegist("/echo", [](auto& request, auto& response, const auto&) {
            response.send() << request.stream().rdbuf();
        });
        address = api.bind();
        api.serve();
    }

    WebApiBasic api;
    Poco::Net::SocketAddress address;
};

TEST_F(HostileInputTest, TakesEveryByteInABodyAndTheRequestsBehindIt) {
    std::string body = "\n\n\r\n\r\n";
    for (int byte = 0; byte < 256; ++byte)
        body += static_cast<char>(byte);
    const std::string request =
        "POST /echo HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    RawClient client(address);
    client.send(request + request + "\r\n\n" + request);
    for (int answers = 0; answers < 3; ++answers)
        EXPECT_THAT(client.answer(), AllOf(StartsWith("HTTP/1.1 200"), HasSubstr(body)));
}

TEST_F(HostileInputTest, ServesRequestsThatComeByteByByte) {
    const std::string request = "POST /echo HTTP/1.1\nContent-Length: 4\n\n\n\xff\r\n";
    std::string all = request;
    all += "\r\n";
    all += request;
    RawClient client(address);
    for (const char byte : all)
        client.send(std::string(1, byte));
    for (int answers = 0; answers < 2; ++answers)
        EXPECT_THAT(client.answer(), AllOf(StartsWith("HTTP/1.1 200"), HasSubstr("\n\xff\r\n")));
}

// The parser goes one call deeper with each level: without a bound, the server's stack would be
// full long before the end of these.
TEST_F(HostileInputTest, RefusesJsonNestedSoDeepThatItWouldFillTheStack) {
    for (const char* level : {"[", "{\"a\":"}) {
        std::string body = "{\"a\":";
        for (int depth = 0; depth < 100'000; ++depth)
            body += level;
        RawClient client(address);
        client.send("POST /echo HTTP/1.1\r\nContent-Type: application/json\r\nContent-Length: " +
                    std::to_string(body.size()) + "\r\n\r\n" + body);
        EXPECT_THAT(client.answer(), AllOf(StartsWith("HTTP/1.1 400"), HasSubstr("depth")));
    }
}

} // namespace
} // namespace ktr
