#include "support/LogCapture.h"
#include "support/RawClient.h"

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
                 "POST /x HTTP/1.1\r\nContent-Length\r\n\r\nGET /smuggled HTTP/1.1\r\n\r\n"},
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

struct BadChunks {
    const char* name;
    std::string body;
    int status;
};

void PrintTo(const BadChunks& chunks, std::ostream* out) {
    *out << chunks.name;
}

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

class MalformedChunks : public HostileInputTest, public testing::WithParamInterface<BadChunks> {};

TEST_P(MalformedChunks, AreRefusedAndEndTheConnection) {
    const test::LogCapture log;
    RawClient client(address);
    client.send("POST /echo HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n" + GetParam().body);
    client.stream().shutdownSend();
    EXPECT_THAT(client.rest(), AllOf(StartsWith("HTTP/1.1 " + std::to_string(GetParam().status)),
                                     HasSubstr("{\"code\":-1,"), Not(HasSubstr("HTTP/1.1 200"))));
    EXPECT_EQ(log.texts(Poco::Message::PRIO_WARNING).size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(
    WebApiBasic, MalformedChunks,
    testing::Values(
        BadChunks{"WithoutSize", "\r\nhello\r\n0\r\n\r\n", 400},
        BadChunks{"OfANegativeSize", "-5\r\nhello\r\n0\r\n\r\n", 400},
        BadChunks{"OfAPrefixedSize", "0x5\r\nhello\r\n0\r\n\r\n", 400},
        BadChunks{"WithABlankBeforeTheSize", " 5\r\nhello\r\n0\r\n\r\n", 400},
        BadChunks{"WithABlankBehindTheSize", "5 \r\nhello\r\n0\r\n\r\n", 400},
        BadChunks{"WithRubbishBehindTheSize", "5zz\r\nhello\r\n0\r\n\r\n", 400},
        BadChunks{"OfASizeBeyond32Bits", "100000005\r\nhello\r\n0\r\n\r\n", 413},
        BadChunks{"OfASizeBeyond64Bits", "10000000000000005\r\nhello\r\n0\r\n\r\n", 400},
        BadChunks{"OfTheLargestSize", "ffffffffffffffff\r\nhello\r\n0\r\n\r\n", 413},
        BadChunks{"WithHalfALineBreakBehindTheSize", "5\nhello\r\n0\r\n\r\n", 400},
        BadChunks{"WithTheOtherHalfBehindTheSize", "5\rhello\r\n0\r\n\r\n", 400},
        BadChunks{"WithHalfALineBreakBehindTheExtension", "5;a\nhello\r\n0\r\n\r\n", 400},
        BadChunks{"WithAControlCharacterInTheExtension", "5;\x01\r\nhello\r\n0\r\n\r\n", 400},
        BadChunks{"WithHalfALineBreakBehindTheContent", "5\r\nhello\n0\r\n\r\n", 400},
        BadChunks{"WithoutLineBreakBehindTheContent", "5\r\nhello0\r\n\r\n", 400},
        BadChunks{"LongerThanTheySay", "4\r\nhello\r\n0\r\n\r\n", 400},
        BadChunks{"ShorterThanTheySay", "9\r\nhello\r\n0\r\n\r\n", 400},
        BadChunks{"WithRubbishBehindTheLastSize", "5\r\nhello\r\n0x\r\n\r\n", 400},
        BadChunks{"WithoutEnd", "5\r\nhello\r\n", 400},
        BadChunks{"WithHalfALineBreakInTheTrailer", "5\r\nhello\r\n0\r\nA: b\n\r\n", 400},
        BadChunks{"WithoutEndOfTheTrailer", "5\r\nhello\r\n0\r\nA: b\r\n", 400},
        BadChunks{"WithALongExtension", "5;" + std::string(9000, 'a') + "\r\nhello\r\n0\r\n\r\n",
                  413},
        BadChunks{"WithALongTrailer",
                  "5\r\nhello\r\n0\r\nA: " + std::string(9000, 'a') + "\r\n\r\n", 413}),
    [](const auto& test) { return std::string(test.param.name); });

TEST_F(HostileInputTest, TakesChunksOfAnySizeWithTheirExtensionsAndTrailer) {
    const std::string large(5000, 'x');
    RawClient client(address);
    client.send("POST /echo HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n"
                "1;a=\"b\"; c\r\na\r\n0000000000001388\r\n" +
                large + "\r\nA;\tx\r\n\r\n\r\n\r\n\xff\xff\n\n\r\n0;last\r\nA: b\r\nC: d\r\n\r\n");
    EXPECT_THAT(client.answer(), testing::EndsWith("a" + large + "\r\n\r\n\r\n\xff\xff\n\n"));
}

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

std::string objectOf(int members, const std::string& value) {
    std::string text;
    for (int i = 0; i < members; ++i)
        text += (i == 0 ? "{\"" : ",\"") + std::to_string(i) + "\":" + value;
    return text + "}";
}

TEST_F(HostileInputTest, RefusesJsonOfMoreMembersThanAFormMayHaveFields) {
    const auto statusOf = [this](const std::string& body) {
        RawClient client(address);
        client.send("POST /echo HTTP/1.1\r\nContent-Type: application/json\r\nContent-Length: " +
                    std::to_string(body.size()) + "\r\n\r\n" + body);
        return client.answer().substr(9, 3);
    };
    EXPECT_EQ(statusOf(objectOf(1000, "1")), "200");
    // what is inside a member is none of the parameters
    EXPECT_EQ(statusOf("{\"a\":" + objectOf(1001, "1") + "}"), "200");
    const test::LogCapture log;
    for (const char* value : {"1", "null", "[]", "\"text\""})
        EXPECT_EQ(statusOf(objectOf(1001, value)), "400") << value;
    EXPECT_EQ(log.count("the body is malformed"), 4);
}

} // namespace
} // namespace ktr
