#include "HardeningHost.h"
#include "support/Certificates.h"
#include "support/FreePort.h"

#include <Poco/Net/Context.h>
#include <Poco/Net/SecureStreamSocket.h>

#include <algorithm>

namespace ktr::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

/// A request in which "TARGET" stands for a route.
struct Request {
    const char* name;
    std::string text;
    int status;
    /// When it is for a route that does not exist.
    int statusOfMissing;
};

std::string forRoute(std::string text, const std::string& route) {
    const std::string mark = "TARGET";
    for (auto at = text.find(mark); at != std::string::npos; at = text.find(mark))
        text.replace(at, mark.size(), route);
    return text;
}

Request malformed(const char* name, std::string text, int status = 400) {
    return {name, std::move(text), status, status};
}

/// A header with `fields`, each with its line break.
Request malformedFields(const char* name, const std::string& fields, int status = 400) {
    return malformed(name, "POST TARGET HTTP/1.1\r\n" + fields + "\r\n0\r\n\r\n", status);
}

std::string repeated(int times, const std::string& text) {
    std::string all;
    for (int i = 0; i < times; ++i)
        all += text;
    return all;
}

const std::string kNul(1, '\0');
const std::string kChunked = "Transfer-Encoding: chunked\r\n";

std::vector<Request> malformedLines() {
    const std::string hello = "\x16\x03\x01\x02" + kNul + "\x01" + kNul + "\x01\xfc\x03\x03";
    return {
        malformed("HTTP/0.9", "GET TARGET\r\n"),
        malformed("the preface of HTTP/2", "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n" + kNul, 505),
        malformed("a protocol in small letters", "GET TARGET http/1.1\r\n\r\n"),
        malformed("a version of two digits", "GET TARGET HTTP/1.10\r\n\r\n"),
        malformed("the beginning of TLS", hello + std::string(500, 'x')),
        malformed("the beginning of SSL 2", "\x80\x2e\x01" + kNul + "\x02" + kNul),
        malformed("a long method", std::string(8000, 'A') + " TARGET HTTP/1.1\r\n\r\n"),
        malformed("a long target", "GET TARGET" + std::string(20'000, 'a') + " HTTP/1.1\r\n\r\n",
                  431),
        malformed("an endless target", "GET TARGET" + std::string(3'000'000, 'a'), 431),
        malformed("NUL in the method", "G" + kNul + "T TARGET HTTP/1.1\r\n\r\n"),
        malformed("NUL in the target", "GET TARGET" + kNul + " HTTP/1.1\r\n\r\n"),
        malformed("NUL in the query", "GET TARGET?ip=" + kNul + " HTTP/1.1\r\n\r\n"),
        malformed("NUL in the version", "GET TARGET HTTP/1.1" + kNul + "\r\n\r\n"),
        malformed("an escape without digits", "GET TARGET% HTTP/1.1\r\n\r\n"),
        malformed("an escape of one digit", "GET TARGET%2 HTTP/1.1\r\n\r\n"),
        malformed("an escape of other letters", "GET TARGET%zz HTTP/1.1\r\n\r\n"),
        malformed("an authority for a target", "CONNECT host:80 HTTP/1.1\r\n\r\n"),
        malformed("an asterisk for a target", "OPTIONS * HTTP/1.1\r\n\r\n"),
        malformed("another scheme", "GET ftp://hostTARGET HTTP/1.1\r\n\r\n"),
        malformed("a port that is none", "GET http://host:99999TARGET HTTP/1.1\r\n\r\n"),
        malformed("an address without end", "GET http://[::1TARGET HTTP/1.1\r\n\r\n"),
    };
}

std::vector<Request> malformedHeaders() {
    return {
        malformedFields("NUL in a name", "A" + kNul + ": b\r\n"),
        malformedFields("NUL in a value", "A: b" + kNul + "\r\n"),
        malformedFields("a long name", std::string(300, 'A') + ": b\r\n", 431),
        malformedFields("a long value", "A: " + std::string(9000, 'b') + "\r\n", 431),
        malformedFields("many fields", repeated(101, "A: b\r\n"), 431),
        malformedFields("a large header", repeated(3, "A: " + std::string(8000, 'b') + "\r\n"),
                        431),
        malformedFields("an empty name", ": b\r\n"),
        malformedFields("a tab before the colon", "Content-Length\t: 0\r\n"),
        malformedFields("a coding on a line of its own", "Transfer-Encoding:\r\n chunked\r\n"),
        malformedFields("a list of equal lengths", "Content-Length: 5, 5\r\n"),
        malformedFields("a list of lengths", "Content-Length: 5, 6\r\n"),
        malformedFields("a length twice", "Content-Length: 5\r\nContent-Length: 5\r\n"),
        malformedFields("no length", "Content-Length:\r\n"),
        malformedFields("a length with a prefix", "Content-Length: 0x5\r\n"),
        malformedFields("a broken length", "Content-Length: 5.0\r\n"),
        malformedFields("a length with an exponent", "Content-Length: 1e1\r\n"),
        malformedFields("a length beyond 64 bits", "Content-Length: 18446744073709551621\r\n"),
        malformedFields("a length beyond 63 bits", "Content-Length: 9223372036854775813\r\n"),
        malformedFields("the largest length", "Content-Length: 9223372036854775807\r\n", 413),
        malformedFields("a length beyond 32 bits", "Content-Length: 4294967301\r\n", 413),
        malformedFields("a length after a coding", kChunked + "Content-Length: 5\r\n"),
        malformedFields("a coding twice", kChunked + kChunked),
        malformedFields("two codings", "Transfer-Encoding: gzip, chunked\r\n", 501),
        malformedFields("a coding in quotes", "Transfer-Encoding: \"chunked\"\r\n", 501),
        malformedFields("a coding with a parameter", "Transfer-Encoding: chunked;q=1\r\n", 501),
        malformedFields("no coding", "Transfer-Encoding: identity\r\n", 501),
        malformedFields("an empty coding", "Transfer-Encoding:\r\n", 501),
        malformedFields("a large body announced",
                        "Expect: 100-continue\r\nContent-Length: 5000000\r\n", 413),
    };
}

std::string post(const std::string& type, const std::string& body) {
    return "POST TARGET HTTP/1.1\r\nContent-Type: " + type +
           "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::vector<Request> oddRequests() {
    const std::string form = "application/x-www-form-urlencoded";
    std::string members = "{\"a0\":1";
    for (int i = 1; i <= 1000; ++i)
        members += ",\"a" + std::to_string(i) + "\":1";
    return {
        {"an unknown method", "BREW TARGET HTTP/1.1\r\n\r\n", 200, 404},
        {"a method in small letters", "get TARGET HTTP/1.1\r\n\r\n", 200, 404},
        {"TRACE", "TRACE TARGET HTTP/1.1\r\nCookie: secret\r\n\r\n", 200, 404},
        {"an absolute target", "GET http://host:80TARGET?a HTTP/1.1\r\n\r\n", 200, 404},
        {"two slashes", "GET /TARGET HTTP/1.1\r\n\r\n", 404, 404},
        {"a way round", "GET /x/..TARGET HTTP/1.1\r\n\r\n", 404, 404},
        {"a byte beyond ASCII", "GET TARGET?ip=\xc3\xa4 HTTP/1.1\r\n\r\n", 200, 404},
        {"an escaped NUL in the path", "GET TARGET%00 HTTP/1.1\r\n\r\n", 404, 404},
        {"an escaped NUL in the query", "GET TARGET?ip=%00 HTTP/1.1\r\n\r\n", 200, 404},
        {"an overlong escape", "GET TARGET?%c0%af=%fe%ff HTTP/1.1\r\n\r\n", 200, 404},
        {"a malformed escape in the query", "GET TARGET?ip=% HTTP/1.1\r\n\r\n", 400, 404},
        {"a malformed escape in a name", "GET TARGET?%g0=1 HTTP/1.1\r\n\r\n", 400, 404},
        {"a malformed escape in the body", post(form, "ip=%g"), 400, 404},
        {"NUL in a form", post(form, "ip=" + kNul + "&" + kNul + "=" + kNul), 200, 404},
        {"NUL in JSON", post("application/json", R"({"ip":")" + kNul + R"("})"), 400, 404},
        {"NUL in a body of no type", post("", kNul), 200, 404},
        {"a form of many fields", post(form, repeated(1001, "a=b&")), 400, 404},
        {"JSON of many members", post("application/json", members + "}"), 400, 404},
        {"a query of many fields", "GET TARGET?" + repeated(1001, "a&") + " HTTP/1.1\r\n\r\n", 400,
         404},
        {"a length with zeros", "POST TARGET HTTP/1.1\r\nContent-Length: 00000000000003\r\n\r\nabc",
         200, 404},
        {"an unknown expectation", "GET TARGET HTTP/1.1\r\nExpect: wonders\r\n\r\n", 200, 404},
        {"line feeds alone", "GET TARGET HTTP/1.1\nA: b\n\n", 200, 404},
        {"two hosts", "GET TARGET HTTP/1.1\r\nHost: a\r\nHost: b\r\n\r\n", 200, 404},
    };
}

std::string statusLine(int status) {
    return "HTTP/1.1 " + std::to_string(status) + " ";
}

class HttpHardeningTest : public HardeningTest {
protected:
    void expectRefused(const Request& request, const std::string& route) {
        SCOPED_TRACE(request.name + std::string(" for ") + route);
        const int before = countOf(host->err(), "refused with ");
        RawClient client(address);
        client.send(forRoute(request.text, route));
        const std::string all = client.rest();
        EXPECT_THAT(all, AllOf(StartsWith(statusLine(request.status)),
                               HasSubstr("\r\n\r\n{\"code\":-1,\"msg\":\"")));
        EXPECT_EQ(countOf(all, "\r\nContent-Length: "), 1) << all;
        EXPECT_TRUE(host->waitLogged("refused with ", before + 1));
        EXPECT_EQ(countOf(host->err(), "refused with "), before + 1);
    }

    /// Shows that the connection goes on as well.
    void expectAnswered(const Request& request, const std::string& route, int status) const {
        SCOPED_TRACE(request.name + std::string(" for ") + route);
        RawClient client(address);
        client.send(forRoute(request.text, route));
        EXPECT_THAT(client.answer(),
                    AllOf(StartsWith(statusLine(status)), HasSubstr("{\"code\":-1,\"msg\":\"")));
        client.send(get(kReport));
        EXPECT_THAT(client.answer(), StartsWith(statusLine(200)));
    }
};

TEST_F(HttpHardeningTest, RefusesMalformedRequestLinesOnEveryRoute) {
    for (const Request& request : malformedLines())
        for (const char* route : {kReport, kMissing})
            expectRefused(request, route);
}

TEST_F(HttpHardeningTest, RefusesMalformedHeadersOnEveryRoute) {
    for (const Request& request : malformedHeaders())
        for (const char* route : {kReport, kMissing})
            expectRefused(request, route);
}

TEST_F(HttpHardeningTest, AnswersOddRequestsAndGoesOn) {
    for (const Request& request : oddRequests()) {
        expectAnswered(request, kReport, request.status);
        expectAnswered(request, kMissing, request.statusOfMissing);
    }
}

TEST_F(HttpHardeningTest, AnswersRequestsInTheirOrderUpToTheFirstBadOne) {
    RawClient client(address);
    client.send(get(kReport) + get(kMissing) + get(kReport) + "G(T / HTTP/1.1\r\n\r\n" +
                get(kReport));
    for (const int status : {200, 404, 200, 400})
        EXPECT_THAT(client.answer(), StartsWith(statusLine(status)));
    EXPECT_TRUE(client.closedByServer());
}

TEST_F(HttpHardeningTest, TakesWhatIsBehindAShortLengthForTheNextRequest) {
    RawClient client(address);
    client.send("POST " + std::string(kReport) + " HTTP/1.1\r\nContent-Length: 2\r\n\r\nip=1\r\n");
    EXPECT_THAT(client.answer(), StartsWith(statusLine(200)));
    EXPECT_THAT(client.answer(), StartsWith(statusLine(400)));
    EXPECT_TRUE(client.closedByServer());
}

TEST_F(HttpHardeningTest, AnswersClientsThatHaveClosedTheirHalf) {
    const std::string head = "POST " + std::string(kReport) + " HTTP/1.1\r\nContent-Length: 9\r\n";
    const std::vector<std::pair<std::string, std::string>> halves{
        {get(kReport), statusLine(200)},
        {get(kReport) + get(kReport), statusLine(200)},
        {head, statusLine(400)},
        {head + "\r\nabc", statusLine(400)},
        {"", ""}};
    for (const auto& [text, answer] : halves) {
        RawClient client(address);
        client.send(text);
        client.stream().shutdownSend();
        EXPECT_THAT(client.rest(), StartsWith(answer)) << text;
    }
}

TEST_F(HttpHardeningTest, SurvivesClientsThatResetTheirConnections) {
    const std::string pipelined = repeated(100, get(kReport));
    const std::string head = "POST " + std::string(kReport) + " HTTP/1.1\r\n";
    for (int round = 0; round < 20; ++round)
        for (const std::string& text :
             {std::string(), get(kReport).substr(0, 9), head + "Content-Length: 9\r\n\r\nabc",
              head + kChunked + "\r\n5\r\na", get(kReport), pipelined}) {
            RawClient client(address);
            client.send(text);
            client.stream().setLinger(true, 0);
        }
}

TEST_F(HttpHardeningTest, TellsATlsClientAtOnceThatThePortIsPlain) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_THROW(Poco::Net::SecureStreamSocket(
                     address, new Poco::Net::Context(Poco::Net::Context::TLS_CLIENT_USE, "",
                                                     Poco::Net::Context::VERIFY_NONE)),
                 Poco::Exception);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_TRUE(host->waitLogged("a request from 127.0.0.1"));
}

TEST_F(HttpHardeningTest, ClosesWhatOnlyBeginsLikeTls) {
    const Certificates files;
    const unsigned short port = freePort();
    const DeviceRoot other;
    HostProcess secure(other,
                       {"--port=" + std::to_string(port), "--tls-cert=" + files.certificateFile(),
                        "--tls-key=" + files.keyFile()});
    ASSERT_TRUE(waitUntil([&] { return countOf(secure.out(), "ready on https://") == 1; },
                          std::chrono::seconds(30)))
        << secure.err();
    const Poco::Net::SocketAddress where("127.0.0.1", port);
    GoodClient served(where, kReport);
    for (const std::string& rubbish : {"\x16" + std::string(200, 'x'), "\x16" + get(kReport),
                                       "\x16\x03\x01" + kNul + "\x05hello"}) {
        RawClient client(where);
        client.send(rubbish);
        // a record of TLS says why, at most
        EXPECT_LT(client.rest().size(), 16U);
    }
    EXPECT_TRUE(secure.waitLogged("TLS handshake with 127.0.0.1"));
    EXPECT_LT(served.longestWait(), std::chrono::seconds(1));
}

} // namespace
} // namespace ktr::test
