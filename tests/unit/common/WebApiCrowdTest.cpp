#include "support/GoodClient.h"
#include "support/LogCapture.h"
#include "support/RawClient.h"
#include "support/WaitUntil.h"

#include "ktr/common/WebApiBasic.h"

#include <Poco/Net/HTTPServerResponse.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace ktr {
namespace {

using Poco::Net::HTTPServerResponse;
using test::GoodClient;
using test::RawClient;
using test::waitUntil;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;
using namespace std::chrono_literals;

constexpr auto kServed = 1000ms;

class WebApiCrowdTest : public testing::Test {
protected:
    WebApiCrowdTest() {
        api.apiRegist(
            "/x", [](auto&, HTTPServerResponse& response, const auto&) { response.send() << "x"; });
        // more than the kernel holds for both ends
        api.apiRegist("/large", [](auto&, HTTPServerResponse& response, const auto&) {
            const std::string piece(1'000'000, 'x');
            std::ostream& out = response.send();
            for (int i = 0; i < 30 && out.good(); ++i)
                out << piece;
        });
    }

    void serve(int connections) {
        limits.connections = connections;
        api.setLimits(limits);
        address = api.bind();
        api.serve();
    }

    void crowd(int count, const std::string& text) {
        for (int i = 0; i < count; ++i) {
            clients.push_back(std::make_unique<RawClient>(address));
            clients.back()->send(text);
        }
    }

    /// Lets a good client come until it was answered some times.
    std::chrono::milliseconds longestWait() const {
        GoodClient good(address, "/x");
        waitUntil([&] { return good.answers() >= 5; });
        return good.longestWait();
    }

    const test::LogCapture log;
    WebApiBasic::Limits limits;
    WebApiBasic api;
    Poco::Net::SocketAddress address;
    std::vector<std::unique_ptr<RawClient>> clients;
};

struct Slow {
    const char* name;
    const char* text;
};

void PrintTo(const Slow& slow, std::ostream* out) {
    *out << slow.name;
}

class SlowClients : public WebApiCrowdTest, public testing::WithParamInterface<Slow> {};

TEST_P(SlowClients, MakeRoomForAGoodOneAndAreLoggedOnce) {
    serve(4);
    crowd(12, GetParam().text);
    EXPECT_LT(longestWait(), kServed);
    EXPECT_EQ(log.count("all 4 connections are taken"), 1);
}

INSTANTIATE_TEST_SUITE_P(
    WebApiBasic, SlowClients,
    testing::Values(Slow{"InTheirHeader", "GET /x HTTP/1.1\r\nA: "},
                    Slow{"InTheirBody", "POST /x HTTP/1.1\r\nContent-Length: 9\r\n\r\nabc"},
                    Slow{"InAChunk",
                         "POST /x HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n5\r\na"},
                    Slow{"ToTakeTheirAnswer", "GET /large HTTP/1.1\r\n\r\n"}),
    [](const auto& test) { return std::string(test.param.name); });

TEST_F(WebApiCrowdTest, SilentClientsMakeRoomForAGoodOne) {
    serve(4);
    crowd(12, "");
    EXPECT_LT(longestWait(), kServed);
}

TEST_F(WebApiCrowdTest, AClientThatAlwaysHasANextRequestMakesRoomForAGoodOne) {
    serve(1);
    const std::string request = "GET /x HTTP/1.1\r\n\r\n";
    std::string requests;
    for (int i = 0; i < 2000; ++i)
        requests += request;
    RawClient busy(address);
    busy.send(requests);
    EXPECT_THAT(busy.answer(), EndsWith("x"));
    EXPECT_LT(longestWait(), kServed);
}

// One that has just come counts as idle, and yet is not the one to go.
TEST_F(WebApiCrowdTest, AnswersEveryoneOfManyMoreClientsThanItHasConnections) {
    serve(8);
    crowd(200, "GET /x HTTP/1.1\r\nConnection: close\r\n\r\n");
    for (const auto& client : clients)
        EXPECT_THAT(client->answer(), AllOf(StartsWith("HTTP/1.1 200"), EndsWith("x")));
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(WebApiCrowdTest, GivesTheThreadsOfACrowdBack) {
    const auto threads = [] {
        const std::filesystem::directory_iterator begin("/proc/self/task");
        return std::distance(begin, {});
    };
    serve(64);
    crowd(1, "GET /x HTTP/1.1\r\n\r\n");
    clients.back()->answer();
    const auto before = threads();
    crowd(40, "GET /x HTTP/1.1\r\n\r\n");
    for (std::size_t i = 1; i < clients.size(); ++i)
        clients[i]->answer();
    EXPECT_GE(threads(), before + 40);
    clients.resize(1);
    EXPECT_TRUE(waitUntil([&] { return threads() <= before; }));
}

class StallingClient : public WebApiCrowdTest, public testing::WithParamInterface<Slow> {};

TEST_P(StallingClient, IsCutOffInTimeWhileAGoodOneIsServed) {
    limits.headerTime = Poco::Timespan(0, 200'000);
    serve(16);
    GoodClient good(address, "/x");
    RawClient client(address);
    const auto start = std::chrono::steady_clock::now();
    client.send(GetParam().text);
    EXPECT_THAT(client.rest(), HasSubstr("HTTP/1.1 408"));
    const auto time = std::chrono::steady_clock::now() - start;
    EXPECT_GE(time, 200ms);
    EXPECT_LT(time, 2s);
    EXPECT_EQ(log.count("takes too long"), 1);
    EXPECT_LT(good.longestWait(), kServed);
}

INSTANTIATE_TEST_SUITE_P(
    WebApiBasic, StallingClient,
    testing::Values(
        Slow{"InItsRequestLine", "GET /x"},
        Slow{"BeforeTheEndOfItsHeader", "GET /x HTTP/1.1\r\nA: b\r\n"},
        Slow{"AfterLineBreaks", "\r\n\r\n"},
        Slow{"InItsBody", "POST /x HTTP/1.1\r\nContent-Length: 9\r\n\r\nabc"},
        Slow{"BeforeItsBody",
             "POST /x HTTP/1.1\r\nContent-Length: 9\r\nExpect: 100-continue\r\n\r\n"},
        Slow{"InTheSizeOfAChunk", "POST /x HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n5"},
        Slow{"InAnExtension", "POST /x HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n5;a=b"},
        Slow{"InAChunk", "POST /x HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nabc"},
        Slow{"InItsTrailer",
             "POST /x HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n0\r\nA: b\r\n"}),
    [](const auto& test) { return std::string(test.param.name); });

} // namespace
} // namespace ktr
