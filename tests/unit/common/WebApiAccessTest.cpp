#include "AccessControl.h"
#include "BoundedLog.h"
#include "NetworkList.h"

#include "ktr/common/JsonAnswer.h"
#include "ktr/common/WebApiBasic.h"
#include "support/Certificates.h"
#include "support/Ipv6.h"
#include "support/LogCapture.h"
#include "support/OwnAddress.h"
#include "support/RawClient.h"
#include "support/WaitUntil.h"

#include <Poco/Exception.h>
#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/SecureStreamSocket.h>
#include <Poco/StreamCopier.h>

#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <deque>
#include <fstream>
#include <string_view>

namespace ktr {
namespace {

using Poco::Net::Context;
using Poco::Net::IPAddress;
using Poco::Net::SocketAddress;
using test::LogCapture;
using test::RawClient;
using test::waitUntil;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;
using namespace std::chrono_literals;

using Clock = std::chrono::steady_clock;

const std::string kToken = "0123456789abcdef0123456789ABCDEF";
const std::string kGet = "GET /echo HTTP/1.1\r\nHost: x\r\n\r\n";
const std::string kServed = "HTTP/1.1 200";

std::string getWith(const std::string& header) {
    return "GET /echo HTTP/1.1\r\nHost: x\r\n" + header + "\r\n\r\n";
}

struct Membership {
    std::vector<std::string> networks;
    std::string address;
    bool expected;
};

class NetworkListTest : public testing::TestWithParam<Membership> {};

TEST_P(NetworkListTest, TellsWhetherAnAddressIsInOneOfItsNetworks) {
    EXPECT_EQ(NetworkList(GetParam().networks).contains(IPAddress(GetParam().address)),
              GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    WebApi, NetworkListTest,
    testing::Values(Membership{{}, "192.0.2.1", false}, //
                    Membership{{"192.0.2.0/24"}, "192.0.2.0", true},
                    Membership{{"192.0.2.0/24"}, "192.0.2.255", true},
                    Membership{{"192.0.2.0/24"}, "192.0.3.0", false},
                    Membership{{"192.0.2.0/24"}, "192.0.1.255", false},
                    Membership{{"192.0.2.64/27"}, "192.0.2.95", true},
                    Membership{{"192.0.2.64/27"}, "192.0.2.96", false},
                    Membership{{"192.0.2.64/27"}, "192.0.2.63", false},
                    Membership{{"192.0.2.7"}, "192.0.2.7", true},
                    Membership{{"192.0.2.7"}, "192.0.2.6", false},
                    Membership{{"192.0.2.6/31"}, "192.0.2.7", true},
                    Membership{{"128.0.0.0/1"}, "255.0.0.1", true},
                    Membership{{"128.0.0.0/1"}, "127.255.255.255", false},
                    Membership{{"0.0.0.0/0"}, "203.0.113.9", true},
                    Membership{{"0.0.0.0/0"}, "2001:db8::1", false},
                    Membership{{"198.51.100.0/24", "192.0.2.0/24"}, "192.0.2.1", true},
                    Membership{{"2001:db8::/32"}, "2001:db8:ffff::1", true},
                    Membership{{"2001:db8::/32"}, "2001:db9::1", false},
                    Membership{{"2001:db8::8"}, "2001:db8::8", true},
                    Membership{{"2001:db8::8"}, "2001:db8::9", false},
                    Membership{{"::/0"}, "2001:db8::1", true},
                    Membership{{"::/0"}, "192.0.2.1", false},
                    Membership{{"::/0"}, "::ffff:192.0.2.1", false},
                    Membership{{"192.0.2.0/24"}, "::ffff:192.0.2.1", true},
                    Membership{{"192.0.2.0/24"}, "::ffff:192.0.3.1", false},
                    Membership{{"192.0.2.0/24"}, "::192.0.2.1", false},
                    Membership{{"::ffff:192.0.2.0/120"}, "192.0.2.1", true},
                    Membership{{"::ffff:192.0.2.0/120"}, "192.0.3.1", false},
                    Membership{{"c000::/8"}, "192.0.2.1", false}));

TEST(NetworkListErrors, RejectsWhatIsNoNetworkAndNamesIt) {
    for (const char* entry : {"",
                              "/",
                              "/24",
                              "192.0.2/24",
                              "192.0.2.0/",
                              "192.0.2.0/33",
                              "192.0.2.0/-1",
                              "192.0.2.0/+8",
                              "192.0.2.0/8x",
                              "192.0.2.0/24/24",
                              "192.0.2.0/99999999999",
                              "300.0.0.0/8",
                              " 192.0.2.0/24",
                              "192.0.2.0 /24",
                              "localhost",
                              "2001:db8::/129",
                              "2001:db8::g",
                              "[2001:db8::]/32",
                              "fe80::1%lo",
                              "192.0.2.0-192.0.2.9"}) {
        SCOPED_TRACE(entry);
        try {
            const NetworkList list({"192.0.2.0/24", entry});
            ADD_FAILURE() << "taken";
        } catch (const Poco::InvalidArgumentException& e) {
            EXPECT_THAT(e.message(), HasSubstr("'" + std::string(entry) + "'"));
        }
    }
}

TEST(NetworkListErrors, TellsHowToWriteANetworkThatIsNamedByAnAddressWithin) {
    const std::vector<std::pair<std::string, std::string>> cases{
        {"192.0.2.9/24", "192.0.2.0/24"},
        {"10.1.0.0/8", "10.0.0.0/8"},
        {"2001:db8::1/32", "2001:db8::/32"},
        {"::ffff:192.0.2.9/120", "192.0.2.0/24"},
        {"::1/0", "::/0"},
    };
    for (const auto& [entry, remedy] : cases) {
        SCOPED_TRACE(entry);
        try {
            const NetworkList list({entry});
            ADD_FAILURE() << "taken";
        } catch (const Poco::InvalidArgumentException& e) {
            EXPECT_THAT(e.message(), HasSubstr(" " + remedy + ","));
        }
    }
}

TEST(AccessControlTest, TakesThisMachineForItsOwnAndNothingElse) {
    for (const char* own : {"127.0.0.1", "127.0.0.2", "127.255.255.255", "::1", "::ffff:127.0.0.1"})
        EXPECT_TRUE(isLoopback(IPAddress(own))) << own;
    for (const char* other :
         {"0.0.0.0", "126.255.255.255", "128.0.0.1", "192.0.2.1", "::", "::2", "::127.0.0.1",
          "::ffff:192.0.2.1", "2001:db8::1", "fe80::1", "fd00::1"})
        EXPECT_FALSE(isLoopback(IPAddress(other))) << other;
}

TEST(AccessControlTest, AdmitsEverybodyWithoutAList) {
    const AccessControl access;
    EXPECT_TRUE(access.admits(IPAddress("203.0.113.9")));
    EXPECT_TRUE(access.admits(IPAddress("2001:db8::1")));
}

TEST(AccessControlTest, AdmitsThisMachineAndTheListedNetworksAlone) {
    AccessControl access;
    access.allow(NetworkList({"192.0.2.0/24", "2001:db8::/32"}));
    for (const char* admitted :
         {"192.0.2.1", "::ffff:192.0.2.1", "2001:db8::1", "127.0.0.1", "::1", "::ffff:127.0.0.1"})
        EXPECT_TRUE(access.admits(IPAddress(admitted))) << admitted;
    for (const char* refused : {"198.51.100.1", "::ffff:198.51.100.1", "2001:db9::1", "0.0.0.0"})
        EXPECT_FALSE(access.admits(IPAddress(refused))) << refused;
}

class TokenTest : public testing::Test {
protected:
    TokenTest() { access.requireToken(kToken); }

    bool authorizes(const std::vector<std::string>& values,
                    const std::string& peer = "192.0.2.1") const {
        Poco::Net::MessageHeader header;
        for (const std::string& value : values)
            header.add("Authorization", value);
        return access.authorizes(IPAddress(peer), header);
    }

    AccessControl access;
};

TEST_F(TokenTest, AuthorizesWhoeverSendsIt) {
    EXPECT_TRUE(authorizes({"Bearer " + kToken}));
    EXPECT_TRUE(authorizes({"bearer   " + kToken}));
    EXPECT_TRUE(authorizes({"Bearer " + kToken}, "::ffff:192.0.2.1"));
    EXPECT_TRUE(authorizes({"Bearer " + kToken}, "2001:db8::1"));
}

TEST_F(TokenTest, AuthorizesNobodyWhoSendsAnythingElse) {
    std::string otherCase = kToken;
    otherCase.back() = 'f';
    const std::vector<std::vector<std::string>> cases{
        {},
        {""},
        {"Bearer"},
        {"Bearer "},
        {kToken},
        {"Bearer" + kToken},
        {"Basic " + kToken},
        {"Bearer " + otherCase},
        {"Bearer " + kToken + "x"},
        {"Bearer " + kToken + " x"},
        {"Bearer " + kToken.substr(1)},
        {"Bearer " + kToken.substr(0, 31)},
        {"Bearer " + kToken + kToken},
        {"Bearer Bearer " + kToken},
        {"Bearer " + std::string(8000, 'x')},
        {"Bearer " + kToken, "Bearer " + kToken},
        {"Bearer x", "Bearer " + kToken},
    };
    for (const auto& values : cases)
        EXPECT_FALSE(authorizes(values)) << testing::PrintToString(values);
    EXPECT_FALSE(authorizes({}, "::ffff:192.0.2.1"));
    EXPECT_FALSE(authorizes({}, "2001:db8::1"));
}

TEST_F(TokenTest, AsksThisMachineForNothing) {
    for (const char* own : {"127.0.0.1", "127.0.0.2", "::1", "::ffff:127.0.0.1"}) {
        EXPECT_TRUE(authorizes({}, own)) << own;
        EXPECT_TRUE(authorizes({"Bearer wrong"}, own)) << own;
    }
}

TEST_F(TokenTest, AnEmptyOneAsksNobody) {
    access.requireToken("");
    EXPECT_TRUE(authorizes({}));
}

TEST_F(TokenTest, MustBeLongAndFitForAHeaderAndAnUnfitOneChangesNothing) {
    for (const std::string& unfit :
         {std::string(31, 'x'), std::string(4097, 'x'), std::string(32, ' '),
          std::string(16, 'x') + " " + std::string(16, 'x'), std::string(40, '\x7f'),
          std::string(31, 'x') + "\n", std::string(31, 'x') + '\0',
          std::string(30, 'x') + "\xc3\xa4"})
        EXPECT_THROW(access.requireToken(unfit), Poco::InvalidArgumentException) << unfit;
    EXPECT_TRUE(authorizes({"Bearer " + kToken}));
    access.requireToken(std::string(4096, '~'));
    EXPECT_TRUE(authorizes({"Bearer " + std::string(4096, '~')}));
}

TEST(BoundedLogTest, LogsOnceAPeriodAndTellsHowManyItLeftOut) {
    LogCapture log;
    BoundedLog bounded(50ms);
    bounded.warning("knock 1");
    const auto first = Clock::now();
    int more = 0;
    while (log.count("knock") < 2 && Clock::now() - first < 10s) {
        ++more;
        bounded.warning("knock 2");
    }
    EXPECT_GE(Clock::now() - first, 49ms);
    EXPECT_THAT(log.texts(Poco::Message::PRIO_WARNING),
                testing::ElementsAre("knock 1", "knock 2 (and " + std::to_string(more - 1) +
                                                    " more like it before)"));
}

class WebApiAccessTest : public testing::Test {
protected:
    WebApiAccessTest() {
        api.apiRegist("/echo", [this](auto& request, auto& response, const auto&) {
            ++calls;
            std::string body;
            Poco::StreamCopier::copyToString(request.stream(), body);
            response.setContentLength(static_cast<std::streamsize>(body.size()));
            response.send() << body;
        });
    }

    void serve(const std::string& ip) {
        port = api.bind(ip).port();
        api.serve();
    }

    std::string exchange(const std::string& host, const std::string& request = kGet) const {
        RawClient client(SocketAddress(host, port));
        client.send(request);
        return client.answer();
    }

    // a handler may still run when a test fails
    std::atomic<int> calls{0};
    LogCapture log;
    WebApiBasic api;
    unsigned short port = 0;
};

TEST_F(WebApiAccessTest, RejectsBadSettingsAndKeepsTheFormer) {
    api.allowNetworks({"203.0.113.0/24"});
    EXPECT_THROW(api.allowNetworks({"0.0.0.0/0", "nowhere"}), Poco::InvalidArgumentException);
    api.requireToken(kToken);
    EXPECT_THROW(api.requireToken("short"), Poco::InvalidArgumentException);
    const auto own = test::ownAddress(IPAddress::IPv4);
    if (!own)
        GTEST_SKIP() << "this machine has no IPv4 address but loopback";
    serve("0.0.0.0");
    EXPECT_TRUE(RawClient(SocketAddress(*own, port)).closedByServer());
}

TEST_F(WebApiAccessTest, TakesItsOwnMachineForGrantedAlsoThroughAnIpv6Socket) {
    if (!test::hasIpv6())
        GTEST_SKIP() << "this machine has no IPv6";
    api.allowNetworks({"203.0.113.0/24"});
    api.requireToken(kToken);
    serve("::");
    for (const char* host : {"127.0.0.1", "127.0.0.2", "::1"})
        EXPECT_THAT(exchange(host), StartsWith(kServed)) << host;
}

TEST_F(WebApiAccessTest, TakesAnIpv4PeerOfAnIpv6SocketForIpv4) {
    const auto own = test::ownAddress(IPAddress::IPv4);
    if (!own || !test::hasIpv6())
        GTEST_SKIP() << "this machine has no IPv6, or no IPv4 address but loopback";
    api.allowNetworks({own->toString() + "/32"});
    serve("::");
    EXPECT_THAT(exchange(own->toString()), StartsWith(kServed));
    api.stop();
    api.allowNetworks({"::/0"});
    serve("::");
    EXPECT_TRUE(RawClient(SocketAddress(*own, port)).closedByServer());
}

/// A peer that is not on a loopback address: this machine by one of its other addresses.
class OutsideTest : public WebApiAccessTest, public testing::WithParamInterface<IPAddress::Family> {
protected:
    void SetUp() override {
        const auto own = test::ownAddress(GetParam());
        if (!own)
            GTEST_SKIP() << "this machine has no such address but loopback and link-local";
        outside = own->toString();
    }

    bool v6() const { return GetParam() == IPAddress::IPv6; }
    std::string any() const { return v6() ? "::" : "0.0.0.0"; }
    std::string loopback() const { return v6() ? "::1" : "127.0.0.1"; }
    std::string elsewhere() const { return v6() ? "2001:db8:ffff::/48" : "198.51.100.0/24"; }

    std::string outside;
};

INSTANTIATE_TEST_SUITE_P(WebApi, OutsideTest, testing::Values(IPAddress::IPv4, IPAddress::IPv6),
                         [](const auto& test) {
                             return test.param == IPAddress::IPv6 ? "IPv6" : "IPv4";
                         });

TEST_P(OutsideTest, IsServedFromAnAllowedNetwork) {
    api.allowNetworks({elsewhere(), outside});
    serve(any());
    EXPECT_THAT(exchange(outside), StartsWith(kServed));
    EXPECT_THAT(exchange(loopback()), StartsWith(kServed));
}

TEST_P(OutsideTest, IsClosedUnreadFromAnyOtherNetworkAndLoggedOnce) {
    api.allowNetworks({elsewhere()});
    serve(any());
    for (int i = 0; i < 50; ++i) {
        RawClient client(SocketAddress(outside, port));
        EXPECT_TRUE(client.closedByServer());
    }
    EXPECT_THAT(exchange(loopback()), StartsWith(kServed));
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(log.count("closed: it is in no allowed network"), 1);
    EXPECT_EQ(log.count(outside), 1);
}

TEST_P(OutsideTest, MakesNobodyLeaveWhereItIsNotAdmitted) {
    api.allowNetworks({elsewhere()});
    WebApiBasic::Limits limits;
    limits.connections = 1;
    api.setLimits(limits);
    serve(any());
    RawClient idle(SocketAddress(loopback(), port));
    idle.send(kGet);
    EXPECT_THAT(idle.answer(), StartsWith(kServed));
    for (int i = 0; i < 20; ++i)
        EXPECT_TRUE(RawClient(SocketAddress(outside, port)).closedByServer());
    idle.send(kGet);
    EXPECT_THAT(idle.answer(), StartsWith(kServed));
}

TEST_P(OutsideTest, IsServedWithTheToken) {
    api.requireToken(kToken);
    serve(any());
    RawClient client(SocketAddress(outside, port));
    for (int i = 0; i < 2; ++i) {
        client.send(getWith("Authorization: Bearer " + kToken));
        EXPECT_THAT(client.answer(), StartsWith(kServed));
    }
}

TEST_P(OutsideTest, IsAnswered401WithoutTheTokenBeforeAnyHandler) {
    api.requireToken(kToken);
    serve(any());
    const std::string wrong = "ThisIsNotTheTokenThatTheHostWants";
    for (const std::string& header :
         {std::string("Accept: */*"), "Authorization: Bearer " + wrong,
          "Authorization: Basic " + kToken, "Authorization: Bearer " + kToken.substr(0, 31)}) {
        SCOPED_TRACE(header);
        RawClient client(SocketAddress(outside, port));
        client.send(getWith(header) + kGet);
        EXPECT_THAT(client.rest(), AllOf(StartsWith("HTTP/1.1 401 "),
                                         HasSubstr("\r\nWWW-Authenticate: Bearer\r\n"),
                                         HasSubstr("\r\nContent-Type: application/json\r\n"),
                                         HasSubstr("\r\nConnection: Close\r\n"),
                                         HasSubstr("{\"code\":-1,\"msg\":\"")));
    }
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(log.count("refused with 401"), 1);
    EXPECT_EQ(log.count(wrong), 0);
    EXPECT_EQ(log.count(kToken), 0);
    EXPECT_THAT(exchange(loopback()), StartsWith(kServed));
}

TEST_P(OutsideTest, IsAnswered401BeforeTheBodyIsRead) {
    api.requireToken(kToken);
    serve(any());
    RawClient client(SocketAddress(outside, port));
    client.send("POST /echo HTTP/1.1\r\nHost: x\r\nExpect: 100-continue\r\n"
                "Content-Length: 1000000\r\n\r\n");
    EXPECT_THAT(client.answer(), StartsWith("HTTP/1.1 401 "));
}

TEST_P(OutsideTest, NeedsBothWhereBothAreAskedFor) {
    api.requireToken(kToken);
    api.allowNetworks({outside});
    serve(any());
    EXPECT_THAT(exchange(outside), StartsWith("HTTP/1.1 401 "));
    EXPECT_THAT(exchange(outside, getWith("Authorization: Bearer " + kToken)), StartsWith(kServed));
    api.stop();
    api.allowNetworks({elsewhere()});
    serve(any());
    EXPECT_TRUE(RawClient(SocketAddress(outside, port)).closedByServer());
}

/// Makes what takes long once for all tests.
const test::Certificates& certificates() {
    static const test::Certificates made;
    return made;
}

Context::Ptr clientContext() {
    Context::Ptr context(new Context(Context::TLS_CLIENT_USE, certificates().caFile(),
                                     Context::VERIFY_STRICT, 9, false, "ALL:@SECLEVEL=0"));
    return context;
}

/// Goes on with TLS on what a raw client has connected.
void startTls(RawClient& client, const Context::Ptr& context = clientContext()) {
    Poco::Net::SecureStreamSocket secure =
        Poco::Net::SecureStreamSocket::attach(client.stream(), "127.0.0.1", context);
    secure.completeHandshake();
    client.stream() = secure;
}

class WebApiTlsTest : public WebApiAccessTest {
protected:
    void serveTls(const std::string& ip = "127.0.0.1") {
        api.setLimits(limits);
        api.useTls(certificates().certificateFile(), certificates().keyFile());
        serve(ip);
    }

    /// Longer than what the sockets on both sides hold.
    void registerLongAnswer() {
        api.apiRegist("/long", [](auto&, auto& response, const auto&) {
            std::ostream& out = response.send();
            const std::string part(1'000'000, 'x');
            for (int i = 0; i < 30 && out.good(); ++i)
                out << part;
        });
    }

    SocketAddress address() const { return {"127.0.0.1", port}; }

    void expectServedSoon() const {
        const auto start = Clock::now();
        RawClient client(address());
        startTls(client);
        client.send(kGet);
        EXPECT_THAT(client.answer(), StartsWith(kServed));
        EXPECT_LT(Clock::now() - start, 1s);
    }

    std::string writeFile(const std::string& name, const std::string& text) const {
        std::string path = folder / name;
        std::ofstream(path) << text;
        return path;
    }

    test::TempDir folder;
    WebApiBasic::Limits limits;
};

TEST_F(WebApiTlsTest, ServesSeveralRequestsOnAConnection) {
    bool secure = false;
    api.apiRegist("/secure", [&](auto& request, auto&, const auto&) { secure = request.secure(); });
    serveTls();
    RawClient client(address());
    startTls(client);
    for (int i = 0; i < 3; ++i) {
        client.send("POST /echo HTTP/1.1\r\nHost: x\r\nContent-Length: 5\r\n\r\nhello");
        EXPECT_THAT(client.answer(),
                    AllOf(StartsWith(kServed), testing::EndsWith("\r\n\r\nhello")));
    }
    client.send("GET /secure HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_THAT(client.answer(), StartsWith(kServed));
    EXPECT_TRUE(secure);
}

TEST_F(WebApiTlsTest, TakesTls12And13AndNothingEarlier) {
    serveTls();
    constexpr int refusing13 = Context::PROTO_TLSV1_3;
    constexpr int refusing12 =
        Context::PROTO_TLSV1_2 | Context::PROTO_TLSV1_1 | Context::PROTO_TLSV1;
    for (const int refused : {refusing12, refusing13}) {
        RawClient client(address());
        Context::Ptr context = clientContext();
        context->disableProtocols(refused);
        startTls(client, context);
        client.send(kGet);
        EXPECT_THAT(client.answer(), StartsWith(kServed));
    }
    RawClient old(address());
    Context::Ptr context = clientContext();
    context->disableProtocols(Context::PROTO_TLSV1_2 | Context::PROTO_TLSV1_3);
    EXPECT_THROW(startTls(old, context), Poco::Exception);
    EXPECT_TRUE(waitUntil([&] { return log.count("TLS handshake with") > 0; }));
    EXPECT_EQ(log.count("unsupported protocol"), 1);
}

TEST_F(WebApiTlsTest, CarriesLargeBodiesAndAnswers) {
    limits.bodyBytes = 20'000'000;
    serveTls();
    std::string body(5'000'000, 'x');
    for (std::size_t i = 0; i < body.size(); i += 1000)
        body[i] = static_cast<char>('a' + i / 1000 % 26);
    RawClient client(address());
    startTls(client);
    client.send("POST /echo HTTP/1.1\r\nHost: x\r\nContent-Length: " + std::to_string(body.size()) +
                "\r\n\r\n" + body);
    const std::string answer = client.answer();
    EXPECT_THAT(answer.substr(0, 20), StartsWith(kServed));
    EXPECT_TRUE(answer.size() > body.size() &&
                answer.compare(answer.size() - body.size(), body.size(), body) == 0);
}

// The server takes no more of a record than a header may have, and the rest of it is on no
// descriptor any more.
TEST_F(WebApiTlsTest, ServesRequestsThatCameInOneRecord) {
    limits.headerBytes = 1000;
    limits.idleTime = Poco::Timespan(1, 0);
    serveTls();
    RawClient client(address());
    startTls(client);
    const std::size_t padding = limits.headerBytes - getWith("X-Padding: ").size();
    const std::string request = getWith("X-Padding: " + std::string(padding, 'x'));
    client.send(request + request + request);
    for (int i = 0; i < 3; ++i)
        EXPECT_THAT(client.answer(), StartsWith(kServed));
}

TEST_F(WebApiTlsTest, TellsTheEndOfAnAnswerThatHasNoOther) {
    api.apiRegist("/long", [](auto&, auto& response, const auto&) {
        response.send() << std::string(100'000, 'x');
    });
    serveTls();
    RawClient client(address());
    startTls(client);
    client.send("GET /long HTTP/1.0\r\n\r\n");
    std::string answer;
    std::array<char, 16'384> piece;
    // throws for a stream that is broken off instead of ended
    while (const int size = client.stream().receiveBytes(piece.data(), piece.size()))
        answer.append(piece.data(), static_cast<std::size_t>(size));
    EXPECT_GT(answer.size(), 100'000U);
}

TEST_F(WebApiTlsTest, RefusesARequestWithAnAnswerAndAnEnd) {
    serveTls();
    RawClient client(address());
    startTls(client);
    client.send("GET /echo HTTP/3.0\r\n\r\n" + std::string(100'000, 'x'));
    EXPECT_THAT(client.answer(), StartsWith("HTTP/1.1 505"));
    EXPECT_TRUE(client.closedByServer());
}

TEST_F(WebApiTlsTest, SilentClientsKeepNobodyWaitingAndAreClosedInTheHeadersTime) {
    limits.headerTime = Poco::Timespan(0, 700'000);
    serveTls();
    const auto start = Clock::now();
    std::deque<RawClient> silent;
    for (int i = 0; i < 20; ++i)
        silent.emplace_back(address());
    expectServedSoon();
    for (RawClient& client : silent)
        EXPECT_TRUE(client.closedByServer());
    EXPECT_GE(Clock::now() - start, 600ms);
    EXPECT_LT(Clock::now() - start, 5s);
    EXPECT_EQ(log.count("TLS handshake with"), 0);
}

TEST_F(WebApiTlsTest, ClientsThatStopInTheHandshakeAreClosedInTheHeadersTimeAndLoggedOnce) {
    limits.headerTime = Poco::Timespan(0, 700'000);
    serveTls();
    const auto start = Clock::now();
    std::deque<RawClient> stalled;
    for (int i = 0; i < 20; ++i) {
        stalled.emplace_back(address());
        stalled.back().send("\x16\x03\x01");
    }
    expectServedSoon();
    for (RawClient& client : stalled)
        EXPECT_TRUE(client.closedByServer());
    EXPECT_GE(Clock::now() - start, 600ms);
    EXPECT_LT(Clock::now() - start, 5s);
    EXPECT_EQ(log.count("TLS handshake with"), 1);
}

TEST_F(WebApiTlsTest, AHandshakeInDripsEndsInTheHeadersTime) {
    limits.headerTime = Poco::Timespan(0, 500'000);
    serveTls();
    RawClient client(address());
    const std::string_view begun("\x16\x03\x01\x02\x00", 5);
    client.send(std::string(begun));
    const auto start = Clock::now();
    // one byte is always under way
    while (!client.stream().poll(Poco::Timespan(0, 10'000), RawClient::readable) &&
           Clock::now() - start < 5s)
        client.send("x");
    EXPECT_LT(Clock::now() - start, 2s);
}

TEST_F(WebApiTlsTest, AConnectionThatIsIdleOrNotSecuredYetMakesRoom) {
    limits.connections = 2;
    serveTls();
    RawClient silent(address());
    RawClient idle(address());
    startTls(idle);
    idle.send(kGet);
    EXPECT_THAT(idle.answer(), StartsWith(kServed));
    expectServedSoon();
    EXPECT_TRUE(silent.closedByServer());
    idle.send(kGet);
    EXPECT_THAT(idle.answer(), StartsWith(kServed));
}

TEST_F(WebApiTlsTest, AClientThatDoesNotTakeItsAnswerIsGivenUp) {
    limits.headerTime = Poco::Timespan(0, 300'000);
    limits.connections = 1;
    registerLongAnswer();
    serveTls();
    RawClient client(address());
    startTls(client);
    client.send("GET /long HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_TRUE(waitUntil([&] { return log.count("does not take its answer") > 0; }));
    expectServedSoon();
}

// OpenSSL writes without MSG_NOSIGNAL, and nothing here ignores SIGPIPE.
TEST_F(WebApiTlsTest, SurvivesAClientThatGoesInTheMiddleOfItsAnswer) {
    limits.connections = 1;
    registerLongAnswer();
    serveTls();
    for (int i = 0; i < 3; ++i) {
        RawClient client(address());
        startTls(client);
        client.send("GET /long HTTP/1.1\r\nHost: x\r\n\r\n");
        std::array<char, 100> some;
        EXPECT_GT(client.stream().receiveBytes(some.data(), some.size()), 0);
        client.stream().setLinger(true, 0);
    }
    expectServedSoon();
}

TEST_F(WebApiTlsTest, StopsWhileClientsAreSilentOrInTheHandshakeOrIdle) {
    serveTls();
    RawClient silent(address());
    RawClient stalled(address());
    stalled.send("\x16\x03\x01");
    RawClient idle(address());
    startTls(idle);
    idle.send(kGet);
    EXPECT_THAT(idle.answer(), StartsWith(kServed));
    const auto start = Clock::now();
    api.stop();
    EXPECT_LT(Clock::now() - start, 2s);
    EXPECT_EQ(log.count("TLS handshake with"), 0);
    EXPECT_TRUE(silent.closedByServer() && stalled.closedByServer());
}

TEST_F(WebApiTlsTest, ServesPlainHttpToItsOwnMachine) {
    serveTls();
    EXPECT_THAT(exchange("127.0.0.1"), StartsWith(kServed));
    EXPECT_EQ(log.count("does not speak TLS"), 0);
}

TEST_F(WebApiTlsTest, ClosesPlainHttpFromOutsideAndLogsItOnce) {
    const auto own = test::ownAddress(IPAddress::IPv4);
    if (!own)
        GTEST_SKIP() << "this machine has no IPv4 address but loopback";
    serveTls("0.0.0.0");
    for (int i = 0; i < 20; ++i) {
        RawClient client(SocketAddress(*own, port));
        client.send(kGet);
        EXPECT_EQ(client.rest(), "");
    }
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(log.count("does not speak TLS"), 1);
    expectServedSoon();
}

TEST_F(WebApiTlsTest, AsksForTheTokenOverTls) {
    const auto own = test::ownAddress(IPAddress::IPv4);
    if (!own)
        GTEST_SKIP() << "this machine has no IPv4 address but loopback";
    api.requireToken(kToken);
    serveTls("0.0.0.0");
    RawClient without(SocketAddress(*own, port));
    startTls(without);
    without.send(kGet);
    EXPECT_THAT(without.answer(), StartsWith("HTTP/1.1 401 "));
    RawClient with(SocketAddress(*own, port));
    startTls(with);
    with.send(getWith("Authorization: Bearer " + kToken));
    EXPECT_THAT(with.answer(), StartsWith(kServed));
}

TEST_F(WebApiTlsTest, RejectsFilesThatCannotBeUsed) {
    const test::Certificates& files = certificates();
    const std::string rubbish = writeFile("rubbish.pem", "no certificate\n");
    const std::vector<std::pair<std::string, std::string>> cases{
        {files.certificateFile(), ""},
        {"", files.keyFile()},
        {files.certificateFile(), files.clientKeyFile()},
        {files.certificateFile(), files.certificateFile()},
        {files.certificateFile(), rubbish},
        {rubbish, files.keyFile()},
        {files.certificateFile(), folder / "missing"},
        {folder / "missing", files.keyFile()},
    };
    for (const auto& [certificate, key] : cases)
        EXPECT_THROW(api.useTls(certificate, key), Poco::InvalidArgumentException)
            << certificate << " " << key;
}

TEST_F(WebApiTlsTest, RejectsAnEncryptedKeyInsteadOfAskingForItsPassphrase) {
    const std::string key = folder / "encrypted.key";
    test::ChildProcess openssl({"/usr/bin/openssl", "ec", "-in", certificates().keyFile(), "-out",
                                key, "-aes256", "-passout", "pass:secret"},
                               folder / "openssl.log");
    ASSERT_EQ(openssl.wait(), 0);
    EXPECT_THROW(api.useTls(certificates().certificateFile(), key), Poco::InvalidArgumentException);
}

TEST_F(WebApiTlsTest, ServesPlainHttpAgainWhenTlsIsTakenBack) {
    serveTls();
    api.stop();
    api.useTls("", "");
    serve("127.0.0.1");
    EXPECT_THAT(exchange("127.0.0.1"), StartsWith(kServed));
    RawClient client(address());
    EXPECT_THROW(startTls(client), Poco::Exception);
}

} // namespace
} // namespace ktr
