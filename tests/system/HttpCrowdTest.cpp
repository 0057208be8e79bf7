#include "HardeningHost.h"

#include <algorithm>
#include <memory>
#include <ostream>
#include <sys/resource.h>

namespace ktr::test {
namespace {

using testing::StartsWith;

constexpr int kCrowd = 1000;

struct Member {
    const char* name;
    std::string text;
};

void PrintTo(const Member& member, std::ostream* out) {
    *out << member.name;
}

class HttpCrowdTest : public HardeningTest {
protected:
    void SetUp() override {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
        HardeningTest::SetUp();
    }

    void TearDown() override {
        // while the crowd is still there
        EXPECT_TRUE(
            waitUntil([this, before = good->answers()] { return good->answers() >= before + 5; }));
        clients.clear();
        HardeningTest::TearDown();
    }

    void come(int count, const std::string& text) {
        for (int i = 0; i < count; ++i) {
            clients.push_back(std::make_unique<RawClient>(address));
            try {
                clients.back()->send(text);
            } catch (const Poco::Exception&) {
                // it had to make room already
            }
        }
    }

    std::vector<std::unique_ptr<RawClient>> clients;
};

class ThousandClients : public HttpCrowdTest, public testing::WithParamInterface<Member> {};

TEST_P(ThousandClients, KeepNoGoodClientOut) {
    come(kCrowd, GetParam().text);
}

std::string requests(int times) {
    std::string all;
    for (int i = 0; i < times; ++i)
        all += "GET / HTTP/1.1\r\n\r\n";
    return all;
}

INSTANTIATE_TEST_SUITE_P(
    Http, ThousandClients,
    testing::Values(Member{"Silent", ""}, Member{"InTheirHeader", "GET / HTTP/1.1\r\nA: "},
                    Member{"InTheirBody", "POST / HTTP/1.1\r\nContent-Length: 9\r\n\r\nabc"},
                    Member{"Malformed", "G(T / HTTP/1.1\r\n\r\n"},
                    Member{"ManyRequestsAhead", requests(5)}),
    [](const auto& test) { return std::string(test.param.name); });

TEST_F(HttpCrowdTest, AnswersAThousandThatComeAtOnce) {
    // it stands in line with as many that are as good
    patience = std::chrono::seconds(5);
    come(kCrowd, "GET " + std::string(kReport) + " HTTP/1.1\r\nConnection: close\r\n\r\n");
    for (const auto& client : clients)
        EXPECT_THAT(client->answer(), StartsWith("HTTP/1.1 200"));
}

// One that waits for an idle connection to end, or for a thread, does so every time.
TEST_F(HttpCrowdTest, SixtyIdleConnectionsKeepTheNextClientNoTimeWaiting) {
    come(60, get(kReport));
    for (const auto& client : clients)
        client->answer();
    std::chrono::steady_clock::duration shortest = std::chrono::hours(1);
    for (int tries = 0; tries < 5; ++tries) {
        const auto start = std::chrono::steady_clock::now();
        RawClient next(address);
        next.send(get(kReport));
        EXPECT_THAT(next.answer(), StartsWith("HTTP/1.1 200"));
        shortest = std::min(shortest, std::chrono::steady_clock::now() - start);
    }
    EXPECT_LT(shortest, std::chrono::milliseconds(100));
    // and none of them had to go
    for (const auto& client : clients) {
        client->send(get(kReport));
        EXPECT_THAT(client->answer(), StartsWith("HTTP/1.1 200"));
    }
}

} // namespace
} // namespace ktr::test
