#include "ktr/common/WebApiBasic.h"

#include "ktr/common/JsonAnswer.h"
#include "support/Ipv6.h"
#include "support/LogCapture.h"
#include "support/RawClient.h"
#include "support/TempDir.h"
#include "support/WaitUntil.h"

#include <Poco/Exception.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/NetException.h>
#include <Poco/StreamCopier.h>

#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <vector>

namespace ktr {
namespace {

using Poco::Net::HTTPRequest;
using Poco::Net::HTTPServerRequest;
using Poco::Net::HTTPServerResponse;
using Poco::Net::SocketAddress;
using test::RawClient;
using test::waitUntil;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;
using testing::StartsWith;
using testing::UnorderedElementsAre;
using namespace std::chrono_literals;

using Clock = std::chrono::steady_clock;

struct Reply {
    int status = 0;
    std::string type;
    std::string body;
};

std::size_t entries(const char* folder) {
    const std::filesystem::directory_iterator begin(folder);
    return static_cast<std::size_t>(std::distance(begin, {}));
}

std::size_t threadCount() {
    return entries("/proc/self/task");
}

std::size_t descriptorCount() {
    return entries("/proc/self/fd");
}

/// Lets calls in one by one from outside.
class Gate {
public:
    void pass() {
        ++entered;
        opened.wait();
    }
    /// Holds only the first call, so that others may ask whether the route is still there.
    void passFirst() {
        if (entered++ == 0)
            opened.wait();
    }
    void open() { promise.set_value(); }
    bool waitEntered(int count = 1) {
        return waitUntil([&] { return entered >= count; });
    }

private:
    std::promise<void> promise;
    std::shared_future<void> opened{promise.get_future()};
    std::atomic<int> entered{0};
};

class WebApiBasicTest : public testing::Test {
protected:
    void serve() {
        address = api.bind();
        api.serve();
    }

    void serve(const WebApiBasic::Limits& limits) {
        api.setLimits(limits);
        serve();
    }

    void answer(const std::string& route, const std::string& text) {
        api.apiRegist(route, [text](auto&, HTTPServerResponse& response, const auto&) {
            response.send() << text;
        });
    }

    /// Keeps the parameters of requests for `route`.
    void keepParameters(const std::string& route) {
        api.apiRegist(route, [this](auto&, HTTPServerResponse& response, const auto& params) {
            parameters = params;
            response.send() << makeJsonDefault(0, "success");
        });
    }

    Reply call(const std::string& method, const std::string& uri, const std::string& type = "",
               const std::string& body = "") const {
        Poco::Net::HTTPClientSession session(address);
        session.setTimeout(Poco::Timespan(10, 0));
        HTTPRequest request(method, uri, HTTPRequest::HTTP_1_1);
        if (!type.empty())
            request.setContentType(type);
        request.setContentLength(static_cast<std::streamsize>(body.size()));
        session.sendRequest(request) << body;
        Poco::Net::HTTPResponse response;
        Reply reply;
        Poco::StreamCopier::copyToString(session.receiveResponse(response), reply.body);
        reply.status = response.getStatus();
        reply.type = response.getContentType();
        return reply;
    }

    Reply get(const std::string& uri) const { return call(HTTPRequest::HTTP_GET, uri); }

    static std::string message(const Reply& reply) {
        const auto object =
            Poco::JSON::Parser().parse(reply.body).extract<Poco::JSON::Object::Ptr>();
        EXPECT_EQ(object->getValue<int>("code"), -1);
        return object->getValue<std::string>("msg");
    }

    test::LogCapture log;
    WebApiBasic api;
    SocketAddress address;
    WebApiBasic::Parameters parameters;
};

TEST_F(WebApiBasicTest, AnswersARouteWithWhatItsHandlerWrites) {
    answer("/index/api/hello", "{\"hello\":1}");
    serve();
    const Reply reply = get("/index/api/hello");
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.type, "application/json");
    EXPECT_EQ(reply.body, "{\"hello\":1}");
}

TEST_F(WebApiBasicTest, TakesRoutesAsExactDecodedPathsWithoutQuery) {
    answer("/a b", "blank");
    answer("/Case", "upper");
    serve();
    EXPECT_EQ(get("/a%20b?x=1").body, "blank");
    EXPECT_EQ(get("http://host:80/Case?x").body, "upper");
    EXPECT_EQ(get("/case").status, 404);
    EXPECT_EQ(get("/Case/").status, 404);
}

TEST_F(WebApiBasicTest, AnswersAnUnknownRouteWith404AndAWarning) {
    serve();
    const Reply reply = get("/missing");
    EXPECT_EQ(reply.status, 404);
    EXPECT_EQ(reply.type, "application/json");
    EXPECT_EQ(message(reply), "no such route: /missing");
    EXPECT_THAT(log.texts(Poco::Message::PRIO_WARNING),
                testing::ElementsAre(AllOf(HasSubstr("GET /missing"), HasSubstr("404"))));
}

TEST_F(WebApiBasicTest, KeepsLineBreaksOfAClientOutOfTheLog) {
    serve();
    EXPECT_EQ(get("/a%0Afaked%1b%e2line").status, 404);
    EXPECT_THAT(log.texts(Poco::Message::PRIO_WARNING),
                testing::ElementsAre(AllOf(Not(HasSubstr("\n")), Not(HasSubstr("\x1b")))));
}

TEST_F(WebApiBasicTest, ShortensTheLongTextsOfAClient) {
    serve();
    const std::string route = "/" + std::string(300, 'x');
    EXPECT_EQ(message(get(route)), ("no such route: " + route).substr(0, 200) + "...");
    const auto warnings = log.texts(Poco::Message::PRIO_WARNING);
    ASSERT_EQ(warnings.size(), 1U);
    EXPECT_THAT(warnings[0], HasSubstr(("GET " + route).substr(0, 200) + "..."));
    EXPECT_THAT(warnings[0], Not(HasSubstr(route)));
}

TEST_F(WebApiBasicTest, AnswersHandlerExceptionsOfAnyTypeWith500AndAnErrorLine) {
    api.apiRegist("/poco",
                  [](auto&, auto&, const auto&) { throw Poco::IOException("broken pump"); });
    api.apiRegist("/std",
                  [](auto&, auto&, const auto&) { throw std::runtime_error("broken fan"); });
    api.apiRegist("/int", [](auto&, auto&, const auto&) { throw 7; });
    serve();
    for (const auto& [route, text] :
         {std::pair{"/poco", "broken pump"}, {"/std", "broken fan"}, {"/int", "unknown type"}}) {
        const Reply reply = get(route);
        EXPECT_EQ(reply.status, 500);
        EXPECT_EQ(reply.type, "application/json");
        EXPECT_THAT(message(reply), HasSubstr(route));
        EXPECT_THAT(log.texts(Poco::Message::PRIO_ERROR).back(),
                    AllOf(HasSubstr(route), HasSubstr(text)));
    }
    EXPECT_EQ(log.texts(Poco::Message::PRIO_ERROR).size(), 3U);
}

TEST_F(WebApiBasicTest, AnswersAThrowingHandlerAsIfItHadPreparedNothing) {
    api.apiRegist("/half", [](auto&, HTTPServerResponse& response, const auto&) {
        response.set("X-Half", "yes");
        response.setContentLength(3);
        throw std::runtime_error("early");
    });
    serve();
    RawClient client(address);
    for (int i = 0; i < 2; ++i) {
        client.send("GET /half HTTP/1.1\r\n\r\n");
        EXPECT_THAT(client.answer(), AllOf(StartsWith("HTTP/1.1 500"), Not(HasSubstr("X-Half")),
                                           HasSubstr("/half"), HasSubstr("host's log\"}")));
    }
}

TEST_F(WebApiBasicTest, CutsAnAnswerThatBreaksOffHalfSent) {
    api.apiRegist("/half", [](auto&, HTTPServerResponse& response, const auto&) {
        response.send() << "half" << std::flush;
        throw std::runtime_error("too late");
    });
    serve();
    RawClient client(address);
    client.send("GET /half HTTP/1.1\r\n\r\n");
    EXPECT_THAT(client.rest(), AllOf(HasSubstr("chunked"), EndsWith("4\r\nhalf\r\n")));
    EXPECT_EQ(log.count("too late"), 1);
}

struct Malformed {
    const char* name;
    const char* request;
    int status;
};

class MalformedRequest : public WebApiBasicTest, public testing::WithParamInterface<Malformed> {};

TEST_P(MalformedRequest, IsRefusedWithJsonAndAWarningAndEndsTheConnection) {
    answer("/x", "never");
    serve();
    RawClient client(address);
    client.send(GetParam().request);
    client.stream().shutdownSend();
    const std::string all = client.rest();
    // the version is the client's own
    EXPECT_EQ(all.substr(8, 5), " " + std::to_string(GetParam().status) + " ") << all;
    EXPECT_THAT(all, AllOf(HasSubstr("Content-Type: application/json\r\n"),
                           HasSubstr("\r\n\r\n{\"code\":-1,"), Not(HasSubstr("never"))));
    EXPECT_EQ(log.texts(Poco::Message::PRIO_WARNING).size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(
    WebApiBasic, MalformedRequest,
    testing::Values(
        Malformed{"NoRequestLine", "nonsense\r\n\r\n", 400},
        Malformed{"BadMethod", "G(T /x HTTP/1.1\r\n\r\n", 400},
        Malformed{"NoVersion", "GET /x\r\n\r\n", 400},
        Malformed{"OtherProtocol", "GET /x SIP/2.0\r\n\r\n", 400},
        Malformed{"OtherVersion", "GET /x HTTP/2.0\r\n\r\n", 505},
        Malformed{"BlankInTarget", "GET /x y HTTP/1.1\r\n\r\n", 400},
        Malformed{"RelativeTarget", "GET x HTTP/1.1\r\n\r\n", 400},
        Malformed{"BadEscape", "GET /%zz HTTP/1.1\r\n\r\n", 400},
        Malformed{"BlankBeforeColon", "GET /x HTTP/1.1\r\nHost : a\r\n\r\n", 400},
        Malformed{"ControlCharacter", "GET /x HTTP/1.1\r\nA: b\x01\r\n\r\n", 400},
        Malformed{"BareCarriageReturn", "GET /x HTTP/1.1\r\nA: b\rc: d\r\n\r\n", 400},
        Malformed{"CutLine", "GET /x HTTP/1.1\r\nA", 400},
        Malformed{"CutHeader", "GET /x HTTP/1.1\r\nA: b", 400},
        Malformed{"HeaderWithoutEnd", "GET /x HTTP/1.1\r\nA: b\r\n", 400},
        Malformed{"CutBody", "POST /x HTTP/1.1\r\nContent-Length: 5\r\n\r\n123", 400},
        Malformed{"LengthAndChunked",
                  "POST /x HTTP/1.1\r\nContent-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n"
                  "0\r\n\r\n",
                  400},
        Malformed{"TwoLengths",
                  "POST /x HTTP/1.1\r\nContent-Length: 1\r\ncontent-length: 2\r\n\r\nab", 400},
        Malformed{"NegativeLength", "POST /x HTTP/1.1\r\nContent-Length: -1\r\n\r\n", 400},
        Malformed{"SignedLength", "POST /x HTTP/1.1\r\nContent-Length: +1\r\n\r\na", 400},
        Malformed{"HugeLength",
                  "POST /x HTTP/1.1\r\nContent-Length: 99999999999999999999999\r\n\r\n", 400},
        Malformed{"OtherCoding", "POST /x HTTP/1.1\r\nTransfer-Encoding: gzip\r\n\r\n", 501},
        Malformed{"ChunkedInOldVersion",
                  "POST /x HTTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n", 400},
        Malformed{"BadChunkSize",
                  "POST /x HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n-5\r\nabcde\r\n0\r\n\r\n",
                  400},
        Malformed{"LongChunk",
                  "POST /x HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nabcde\r\n0\r\n\r\n",
                  400}),
    [](const auto& test) { return std::string(test.param.name); });

TEST_F(WebApiBasicTest, RefusesABodyOverTheLimitHoweverItIsSent) {
    WebApiBasic::Limits limits;
    limits.bodyBytes = 1000;
    answer("/x", "fits");
    serve(limits);
    EXPECT_EQ(call("POST", "/x", "text/plain", std::string(1000, 'a')).status, 200);
    EXPECT_EQ(call("POST", "/x", "text/plain", std::string(1001, 'a')).status, 413);

    const std::string chunk = "1f4\r\n" + std::string(500, 'a') + "\r\n";
    const std::string header = "POST /x HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n";
    RawClient fits(address);
    fits.send(header + chunk + chunk + "0\r\n\r\n");
    EXPECT_THAT(fits.answer(), StartsWith("HTTP/1.1 200"));
    RawClient tooLarge(address);
    tooLarge.send(header + chunk + chunk + "1\r\na\r\n0\r\n\r\n");
    EXPECT_THAT(tooLarge.rest(), AllOf(StartsWith("HTTP/1.1 413"), HasSubstr("1000 bytes")));
    EXPECT_EQ(log.texts(Poco::Message::PRIO_WARNING).size(), 2U);
}

// A server that closes on unread data has the client lose the answer.
TEST_F(WebApiBasicTest, GetsTheRefusalToAClientThatIsStillSending) {
    serve();
    RawClient client(address);
    // more than the kernel holds for both ends
    std::string body;
    body.resize(12'000'000, 'a');
    client.send("POST /x HTTP/1.1\r\nContent-Length: 12000000\r\n\r\n" + body);
    EXPECT_THAT(client.answer(), StartsWith("HTTP/1.1 413"));
}

TEST_F(WebApiBasicTest, RefusesAHeaderOverTheLimit) {
    WebApiBasic::Limits limits;
    limits.headerBytes = 10'000;
    answer("/x", "fits");
    serve(limits);
    RawClient fits(address);
    const std::string half = "A: " + std::string(4'900, 'a') + "\r\n";
    fits.send("GET /x HTTP/1.1\r\n" + half + half + "\r\n");
    EXPECT_THAT(fits.answer(), StartsWith("HTTP/1.1 200"));
    std::string many;
    for (int i = 0; i < 101; ++i)
        many += "A: b\r\n";
    for (const std::string& fields : {half + half + "B: " + std::string(170, 'b') + "\r\n",
                                      "A: " + std::string(100'000, 'a') + "\r\n",
                                      "A: " + std::string(9'000, 'a') + "\r\n", many}) {
        RawClient client(address);
        client.send("GET /x HTTP/1.1\r\n" + fields + "\r\n");
        EXPECT_THAT(client.rest(), AllOf(StartsWith("HTTP/1.1 431"), HasSubstr("{\"code\":-1,")));
    }
}

TEST_F(WebApiBasicTest, KeepsTheConnectionAfterAnswersWithoutLength) {
    const std::string large(200'000, 'x');
    answer("/small", "small");
    answer("/large", large);
    api.apiRegist("/none", [](auto&, auto&, const auto&) {});
    api.apiRegist("/flushed", [](auto&, HTTPServerResponse& response, const auto&) {
        response.send() << "one" << std::flush << "two" << std::endl;
    });
    serve();
    RawClient client(address);
    for (int i = 0; i < 3; ++i) {
        client.send("GET /small HTTP/1.1\r\n\r\n");
        EXPECT_THAT(client.answer(), AllOf(EndsWith("small"), HasSubstr("Connection: Keep-Alive")));
        client.send("GET /large HTTP/1.1\r\n\r\n");
        EXPECT_GT(client.answer().size(), large.size());
        client.send("GET /none HTTP/1.1\r\n\r\n");
        EXPECT_THAT(client.answer(), HasSubstr("Content-Length: 0\r\n"));
        client.send("GET /flushed HTTP/1.1\r\n\r\n");
        EXPECT_THAT(client.answer(), EndsWith("\r\n\r\nonetwo\n"));
        client.send("GET /missing HTTP/1.1\r\n\r\n");
        EXPECT_THAT(client.answer(), StartsWith("HTTP/1.1 404"));
    }
    EXPECT_EQ(get("/large").body, large);
}

TEST_F(WebApiBasicTest, SendsTheHeaderWhileTheHandlerHasYetToSayMore) {
    Gate gate;
    api.apiRegist("/slow", [&](auto&, HTTPServerResponse& response, const auto&) {
        std::ostream& body = response.send();
        gate.pass();
        body << "late";
    });
    serve();
    RawClient client(address);
    client.send("GET /slow HTTP/1.1\r\n\r\n");
    EXPECT_TRUE(client.stream().poll(Poco::Timespan(5, 0), RawClient::readable));
    gate.open();
    EXPECT_THAT(client.answer(), AllOf(HasSubstr("chunked"), EndsWith("late")));
}

TEST_F(WebApiBasicTest, SendsAnAnswerWithoutABodyAtOnce) {
    answer("/x", "12345");
    api.apiRegist("/none", [](auto&, auto&, const auto&) {});
    serve();
    RawClient client(address);
    const auto start = Clock::now();
    std::array<char, 4096> header;
    // kept back by the system, each would take 200 ms
    for (int i = 0; i < 20; ++i) {
        client.send("HEAD /x HTTP/1.1\r\n\r\n");
        EXPECT_GT(client.stream().receiveBytes(header.data(), header.size()), 0);
        client.send("GET /none HTTP/1.1\r\n\r\n");
        EXPECT_THAT(client.answer(), EndsWith("\r\n\r\n"));
    }
    EXPECT_LT(Clock::now() - start, 2s);
}

TEST_F(WebApiBasicTest, AnswersOldClientsToTheEndOfTheConnection) {
    const std::string large(200'000, 'x');
    answer("/large", large);
    api.apiRegist("/sized", [](auto&, HTTPServerResponse& response, const auto&) {
        response.setContentLength(4);
        response.send() << "kept";
    });
    serve();
    RawClient client(address);
    client.send("GET /large HTTP/1.0\r\nConnection: keep-alive\r\n\r\n");
    EXPECT_THAT(client.rest(), AllOf(StartsWith("HTTP/1.0 200"), Not(HasSubstr("chunked")),
                                     HasSubstr("Connection: Close"), EndsWith("\r\n\r\n" + large)));
    RawClient kept(address);
    for (int i = 0; i < 2; ++i) {
        kept.send("GET /sized HTTP/1.0\r\nConnection: keep-alive\r\n\r\n");
        EXPECT_THAT(kept.answer(), EndsWith("kept"));
    }
}

TEST_F(WebApiBasicTest, ClosesWhenTheClientOrTheHandlerWantsIt) {
    answer("/x", "x");
    api.apiRegist("/last", [](auto&, HTTPServerResponse& response, const auto&) {
        response.setKeepAlive(false);
        response.send() << "last";
    });
    serve();
    RawClient client(address);
    client.send("GET /x HTTP/1.1\r\nConnection: te, close\r\n\r\n");
    EXPECT_THAT(client.answer(), AllOf(HasSubstr("Connection: Close\r\n"), EndsWith("x")));
    EXPECT_TRUE(client.closedByServer());
    RawClient other(address);
    other.send("GET /last HTTP/1.1\r\n\r\n");
    EXPECT_THAT(other.answer(), EndsWith("last"));
    EXPECT_TRUE(other.closedByServer());
}

TEST_F(WebApiBasicTest, AnswersHeadWithTheHeaderOfGet) {
    answer("/x", "12345");
    serve();
    RawClient client(address);
    client.send("HEAD /x HTTP/1.1\r\n\r\nHEAD /x HTTP/1.1\r\nConnection: close\r\n\r\n");
    const std::string all = client.rest();
    EXPECT_THAT(all, AllOf(HasSubstr("chunked\r\n"), Not(HasSubstr("12345"))));
    EXPECT_NE(all.find("HTTP/1.1 200"), all.rfind("HTTP/1.1 200"));
}

TEST_F(WebApiBasicTest, SendsNoBodyWhereTheStatusHasNone) {
    api.apiRegist("/empty", [](auto&, HTTPServerResponse& response, const auto&) {
        response.setStatusAndReason(HTTPServerResponse::HTTP_NO_CONTENT);
        response.send() << "ignored";
    });
    answer("/x", "next");
    serve();
    RawClient client(address);
    client.send("GET /empty HTTP/1.1\r\n\r\n");
    EXPECT_THAT(client.answer(), AllOf(StartsWith("HTTP/1.1 204"), Not(HasSubstr("Length")),
                                       Not(HasSubstr("Transfer"))));
    client.send("GET /x HTTP/1.1\r\n\r\n");
    EXPECT_THAT(client.answer(), EndsWith("next"));
}

TEST_F(WebApiBasicTest, TakesEveryWayOfAnswering) {
    const test::TempDir folder;
    const std::string file = folder / "file.txt";
    std::ofstream(file) << "content";
    api.apiRegist("/file", [file](auto&, HTTPServerResponse& response, const auto&) {
        response.sendFile(file, "text/plain");
    });
    api.apiRegist("/nofile", [file](auto&, HTTPServerResponse& response, const auto&) {
        response.sendFile(file + ".missing", "text/plain");
    });
    api.apiRegist("/buffer", [](auto&, HTTPServerResponse& response, const auto&) {
        response.sendBuffer("buffer", 6);
    });
    api.apiRegist("/redirect", [](auto&, HTTPServerResponse& response, const auto&) {
        response.redirect("http://host/");
    });
    api.apiRegist("/secret", [](auto&, HTTPServerResponse& response, const auto&) {
        response.requireAuthentication("realm");
        response.send();
    });
    serve();
    EXPECT_EQ(get("/file").body, "content");
    EXPECT_EQ(get("/file").type, "text/plain");
    EXPECT_EQ(get("/nofile").status, 500);
    EXPECT_EQ(get("/buffer").body, "buffer");
    EXPECT_EQ(get("/redirect").status, 302);
    EXPECT_EQ(get("/secret").status, 401);
}

TEST_F(WebApiBasicTest, TakesNoUnreadBodyForTheNextRequest) {
    answer("/x", "fine");
    serve();
    RawClient client(address);
    const std::string smuggled = "GET /missing HTTP/1.1\r\n\r\n";
    for (int i = 0; i < 2; ++i) {
        client.send("POST /x HTTP/1.1\r\nContent-Length: " + std::to_string(smuggled.size()) +
                    "\r\n\r\n" + smuggled);
        EXPECT_THAT(client.answer(), EndsWith("fine"));
    }
    // the request in the trailer is one field of it, or none
    client.send("POST /x HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n19;ext=1\r\n" + smuggled +
                "\r\n0\r\nTrailer: yes\r\n" + smuggled);
    EXPECT_THAT(client.answer(), AllOf(HasSubstr("Connection: Close"), EndsWith("fine")));
    EXPECT_TRUE(client.closedByServer());
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(WebApiBasicTest, AnswersRequestsThatComeTogetherInTheirOrder) {
    answer("/1", "first");
    answer("/2", "second");
    serve();
    RawClient client(address);
    client.send("GET /1 HTTP/1.1\r\n\r\nGET /2 HTTP/1.1\r\n\r\n\r\nGET /1 HTTP/1.1\n\n");
    EXPECT_THAT(client.answer(), EndsWith("first"));
    EXPECT_THAT(client.answer(), EndsWith("second"));
    EXPECT_THAT(client.answer(), EndsWith("first"));
}

TEST_F(WebApiBasicTest, AsksForABodyThatTheClientHoldsBack) {
    keepParameters("/x");
    serve();
    RawClient client(address);
    client.send("POST /x HTTP/1.1\r\nContent-Type: application/x-www-form-urlencoded\r\n"
                "Content-Length: 3\r\nExpect: 100-continue\r\n\r\n");
    EXPECT_EQ(client.answer(), "HTTP/1.1 100 Continue\r\n\r\n");
    client.send("a=b");
    EXPECT_THAT(client.answer(), StartsWith("HTTP/1.1 200"));
    EXPECT_THAT(parameters, UnorderedElementsAre(Pair("a", "b")));
}

TEST_F(WebApiBasicTest, TakesParametersFromTheQuery) {
    keepParameters("/x");
    serve();
    EXPECT_EQ(get("/x?ip=127.0.0.1&name=a+b%26c&empty=&flag&ip=second#part").status, 200);
    EXPECT_THAT(parameters, UnorderedElementsAre(Pair("ip", "127.0.0.1"), Pair("name", "a b&c"),
                                                 Pair("empty", ""), Pair("flag", "")));
    get("/x");
    EXPECT_THAT(parameters, IsEmpty());
}

TEST_F(WebApiBasicTest, TakesParametersFromAnUrlencodedBodyBeforeTheQuery) {
    keepParameters("/x");
    serve();
    EXPECT_EQ(call("POST", "/x?a=query&b=query", "Application/X-WWW-Form-Urlencoded; charset=utf-8",
                   "a=body&a=second&A=upper")
                  .status,
              200);
    EXPECT_THAT(parameters,
                UnorderedElementsAre(Pair("a", "body"), Pair("A", "upper"), Pair("b", "query")));
}

TEST_F(WebApiBasicTest, TakesTheFieldsOfAMultipartBody) {
    keepParameters("/x");
    serve();
    const std::string body = "--cut\r\nContent-Disposition: form-data; name=\"a\"\r\n\r\none\r\n"
                             "--cut\r\nContent-Disposition: form-data; name=\"f\"; "
                             "filename=\"f.bin\"\r\n\r\nfile\r\n"
                             "--cut\r\nContent-Disposition: form-data; name=\"b\"\r\n\r\ntwo\r\n"
                             "--cut--\r\n";
    EXPECT_EQ(call("PUT", "/x?b=query", "multipart/form-data; boundary=cut", body).status, 200);
    EXPECT_THAT(parameters, UnorderedElementsAre(Pair("a", "one"), Pair("b", "two")));
    EXPECT_EQ(call("POST", "/x", "multipart/form-data", body).status, 400);
}

TEST_F(WebApiBasicTest, TakesTheMembersOfAJsonObject) {
    keepParameters("/x");
    serve();
    const std::string body = R"({"text":"a \"b\"","int":-5,"big":18446744073709551615,"float":1.5,
        "yes":true,"no":false,"null":null,"object":{"inner":1},"array":[{"deep":1},2],
        "text":"again","after":1})";
    EXPECT_EQ(
        call("POST", "/x?int=query&null=query", "application/json; charset=utf-8", body).status,
        200);
    EXPECT_THAT(parameters,
                UnorderedElementsAre(Pair("text", "a \"b\""), Pair("int", "-5"),
                                     Pair("big", "18446744073709551615"), Pair("float", "1.5"),
                                     Pair("yes", "true"), Pair("no", "false"),
                                     Pair("null", "query"), Pair("after", "1")));
    EXPECT_EQ(call("POST", "/x", "application/json", "[{\"a\":1}]").status, 200);
    EXPECT_THAT(parameters, IsEmpty());
    EXPECT_EQ(call("POST", "/x", "application/json", "").status, 200);
}

TEST_F(WebApiBasicTest, RefusesBodiesAndQueriesThatDoNotParse) {
    keepParameters("/x");
    serve();
    std::string unclosed;
    unclosed.resize(200'000, '[');
    for (const std::string& body :
         {std::string("{\"a\":"), std::string("{} {}"), std::string("nothing"), unclosed,
          std::string("{\"a\":99999999999999999999999}")}) {
        const Reply reply = call("POST", "/x", "application/json", body);
        EXPECT_EQ(reply.status, 400) << body.substr(0, 30);
        EXPECT_THAT(message(reply), StartsWith("the body is malformed: "));
    }
    EXPECT_THAT(message(get("/x?a=%zz")), StartsWith("the query is malformed: "));
    EXPECT_EQ(call("POST", "/x", "application/x-www-form-urlencoded", "a=%z").status, 400);
    std::string many;
    for (int i = 0; i <= 1000; ++i)
        many += "a&";
    EXPECT_EQ(call("POST", "/x", "application/x-www-form-urlencoded", many).status, 400);
    EXPECT_EQ(log.texts(Poco::Message::PRIO_WARNING).size(), 8U);
    EXPECT_EQ(call("POST", "/missing", "application/json", "{").status, 404);
}

TEST_F(WebApiBasicTest, LeavesTheBodyReadableForTheHandler) {
    api.apiRegist("/echo",
                  [](HTTPServerRequest& request, HTTPServerResponse& response, const auto& params) {
                      std::string body;
                      Poco::StreamCopier::copyToString(request.stream(), body);
                      response.send() << request.getMethod() << ' ' << body << ' ' << params.size();
                  });
    serve();
    EXPECT_EQ(call("PATCH", "/echo", "text/plain", "a=b").body, "PATCH a=b 0");
    EXPECT_EQ(call("POST", "/echo", "application/json", "{\"a\":[1]}").body, "POST {\"a\":[1]} 0");
    EXPECT_EQ(get("/echo?q=1").body, "GET  1");
}

TEST_F(WebApiBasicTest, TellsTheHandlerWhoAsks) {
    SocketAddress client;
    SocketAddress server;
    api.apiRegist("/x", [&](HTTPServerRequest& request, HTTPServerResponse& response, const auto&) {
        client = request.clientAddress();
        server = request.serverAddress();
        EXPECT_EQ(&request.response(), &response);
        EXPECT_FALSE(request.secure());
        EXPECT_EQ(request.getURI(), "/x?a=1");
        EXPECT_EQ(request.get("X-Own"), "value");
    });
    serve();
    RawClient raw(address);
    raw.send("GET /x?a=1 HTTP/1.1\r\nx-own:  value \r\n\r\n");
    raw.answer();
    EXPECT_EQ(client, raw.stream().address());
    EXPECT_EQ(server, address);
}

// One byte at a time never lets a time-out per receive expire.
TEST_F(WebApiBasicTest, CutsAClientThatDribblesItsHeaderOrBody) {
    WebApiBasic::Limits limits;
    limits.headerTime = Poco::Timespan(0, 200'000);
    serve(limits);
    for (const std::string begin :
         {"GET /x HTTP/1.1\r\nA: ", "POST /x HTTP/1.1\r\nContent-Length: 1000\r\n\r\n",
          "POST /x HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n1;"}) {
        RawClient client(address);
        const auto start = Clock::now();
        client.send(begin);
        // the server's answer ends the dribble
        while (!client.stream().poll(Poco::Timespan(0, 10'000), RawClient::readable) &&
               Clock::now() - start < 5s)
            client.send("a");
        EXPECT_LT(Clock::now() - start, 2s);
        EXPECT_GE(Clock::now() - start, 200ms);
        EXPECT_THAT(client.answer(), StartsWith("HTTP/1.1 408"));
    }
    EXPECT_EQ(log.count("takes too long"), 3);
}

TEST_F(WebApiBasicTest, ClosesAConnectionThatStaysIdle) {
    WebApiBasic::Limits limits;
    limits.idleTime = Poco::Timespan(0, 100'000);
    answer("/x", "x");
    serve(limits);
    RawClient silent(address);
    RawClient client(address);
    client.send("GET /x HTTP/1.1\r\n\r\n");
    client.answer();
    const auto start = Clock::now();
    EXPECT_TRUE(client.closedByServer());
    EXPECT_TRUE(silent.closedByServer());
    EXPECT_LT(Clock::now() - start, 2s);
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(WebApiBasicTest, ServesTheNextClientWhile60ConnectionsIdle) {
    answer("/x", "x");
    serve();
    std::vector<std::unique_ptr<RawClient>> idle;
    for (int i = 0; i < 60; ++i) {
        idle.push_back(std::make_unique<RawClient>(address));
        idle.back()->send("GET /x HTTP/1.1\r\n\r\n");
        idle.back()->answer();
    }
    const auto start = Clock::now();
    EXPECT_EQ(get("/x").body, "x");
    EXPECT_LT(Clock::now() - start, 1s);
    idle.front()->send("GET /x HTTP/1.1\r\n\r\n");
    EXPECT_THAT(idle.front()->answer(), EndsWith("x"));
}

TEST_F(WebApiBasicTest, EndsTheLongestIdleConnectionWhenAllAreTaken) {
    WebApiBasic::Limits limits;
    limits.connections = 2;
    answer("/x", "x");
    serve(limits);
    // idle from the start: a client has its answer before its connection counts as idle again
    RawClient first(address);
    RawClient second(address);
    // an answer arrives a moment before its connection counts as idle
    for (int i = 0; i < 20; ++i) {
        second.send("GET /x HTTP/1.1\r\n\r\n");
        second.answer();
    }
    EXPECT_EQ(get("/x").body, "x");
    EXPECT_TRUE(first.closedByServer());
    second.send("GET /x HTTP/1.1\r\n\r\n");
    EXPECT_THAT(second.answer(), EndsWith("x"));
}

TEST_F(WebApiBasicTest, HasClientsWaitWhileEveryConnectionIsBusy) {
    WebApiBasic::Limits limits;
    limits.connections = 2;
    Gate gate;
    api.apiRegist("/slow", [&](auto&, auto&, const auto&) { gate.pass(); });
    answer("/x", "x");
    serve(limits);
    RawClient one(address);
    RawClient two(address);
    one.send("GET /slow HTTP/1.1\r\n\r\n");
    two.send("GET /slow HTTP/1.1\r\n\r\n");
    ASSERT_TRUE(gate.waitEntered(2));
    RawClient third(address);
    third.send("GET /x HTTP/1.1\r\n\r\n");
    EXPECT_FALSE(third.stream().poll(Poco::Timespan(0, 100'000), RawClient::readable));
    gate.open();
    EXPECT_THAT(third.answer(), EndsWith("x"));
}

TEST_F(WebApiBasicTest, AnswersSeveralClientsAtOnce) {
    Gate gate;
    api.apiRegist("/slow", [&](auto&, auto&, const auto&) { gate.pass(); });
    answer("/x", "x");
    serve();
    RawClient slow(address);
    slow.send("GET /slow HTTP/1.1\r\n\r\n");
    ASSERT_TRUE(gate.waitEntered());
    EXPECT_EQ(get("/x").body, "x");
    gate.open();
    EXPECT_THAT(slow.answer(), StartsWith("HTTP/1.1 200"));
}

TEST_F(WebApiBasicTest, SendsSmallAnswersWithoutDelay) {
    answer("/x", "x");
    serve();
    RawClient client(address);
    client.send("GET /x HTTP/1.1\r\n\r\n");
    client.answer();
    int found = 0;
    for (int fd = 0; fd < 1024; ++fd) {
        sockaddr_in peer{};
        socklen_t length = sizeof(peer);
        if (::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) != 0 ||
            ntohs(peer.sin_port) != client.stream().address().port())
            continue;
        int on = 0;
        socklen_t size = sizeof(on);
        ASSERT_EQ(::getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, &size), 0);
        EXPECT_EQ(on, 1);
        ++found;
    }
    EXPECT_EQ(found, 1);
}

TEST_F(WebApiBasicTest, RefusesRoutesAndHandlersThatCannotBe) {
    const auto handler = [](auto&, auto&, const auto&) {};
    EXPECT_THROW(api.apiRegist("", handler), Poco::InvalidArgumentException);
    EXPECT_THROW(api.apiRegist("x", handler), Poco::InvalidArgumentException);
    EXPECT_THROW(api.apiRegist("/x?a", handler), Poco::InvalidArgumentException);
    EXPECT_THROW(api.apiRegist("/x", nullptr), Poco::InvalidArgumentException);
    api.apiUnregist("/unknown");
}

TEST_F(WebApiBasicTest, ReplacesAHandlerWhoseCallsGoOn) {
    Gate gate;
    api.apiRegist("/x", [&](auto&, HTTPServerResponse& response, const auto&) {
        gate.pass();
        response.send() << "old";
    });
    serve();
    RawClient client(address);
    client.send("GET /x HTTP/1.1\r\n\r\n");
    ASSERT_TRUE(gate.waitEntered());
    answer("/x", "new");
    EXPECT_EQ(get("/x").body, "new");
    gate.open();
    EXPECT_THAT(client.answer(), EndsWith("old"));
}

TEST_F(WebApiBasicTest, UnregistersOnlyAfterTheLastCallAndWithTheHandlerGone) {
    Gate gate;
    auto token = std::make_shared<int>(0);
    const std::weak_ptr<int> alive = token;
    api.apiRegist(
        "/x", [&gate, kept = std::move(token)](auto&, auto&, const auto&) { gate.passFirst(); });
    serve();
    RawClient client(address);
    client.send("GET /x HTTP/1.1\r\n\r\n");
    ASSERT_TRUE(gate.waitEntered());
    auto removal = std::async(std::launch::async, [&] { api.apiUnregist("/x"); });
    // a second remover waits just the same
    auto other = std::async(std::launch::async, [&] { api.apiUnregist("/x"); });
    ASSERT_TRUE(waitUntil([&] { return get("/x").status == 404; }));
    EXPECT_EQ(removal.wait_for(50ms), std::future_status::timeout);
    EXPECT_FALSE(alive.expired());
    gate.open();
    removal.get();
    other.get();
    EXPECT_TRUE(alive.expired());
    EXPECT_THAT(client.answer(), StartsWith("HTTP/1.1 200"));
}

// The code of a handler, its destructor included, may be unloaded once the route is gone.
TEST_F(WebApiBasicTest, UnregistersOnlyWhenAReplacedHandlerIsDestroyed) {
    struct SlowEnd {
        explicit SlowEnd(std::atomic<bool>& ended_) : ended(ended_) {}
        ~SlowEnd() {
            waitUntil([] { return false; }, 50ms);
            ended = true;
        }
        SlowEnd(const SlowEnd&) = delete;
        SlowEnd& operator=(const SlowEnd&) = delete;
        std::atomic<bool>& ended;
    };
    Gate gate;
    std::atomic<bool> ended{false};
    api.apiRegist("/x", [&gate, kept = std::make_shared<SlowEnd>(ended)](
                            auto&, auto&, const auto&) { gate.pass(); });
    serve();
    RawClient client(address);
    client.send("GET /x HTTP/1.1\r\n\r\n");
    ASSERT_TRUE(gate.waitEntered());
    answer("/x", "new");
    auto removal = std::async(std::launch::async, [&] {
        api.apiUnregist("/x");
        return ended.load();
    });
    ASSERT_TRUE(waitUntil([&] { return get("/x").status == 404; }));
    gate.open();
    EXPECT_TRUE(removal.get());
}

TEST_F(WebApiBasicTest, UnregisteringWaitsForReplacedHandlersButNotForLaterOnes) {
    Gate old;
    Gate later;
    api.apiRegist("/x", [&](auto&, auto&, const auto&) { old.pass(); });
    serve();
    RawClient first(address);
    first.send("GET /x HTTP/1.1\r\n\r\n");
    ASSERT_TRUE(old.waitEntered());
    answer("/x", "replaced");
    auto removal = std::async(std::launch::async, [&] { api.apiUnregist("/x"); });
    ASSERT_TRUE(waitUntil([&] { return get("/x").status == 404; }));
    EXPECT_EQ(removal.wait_for(50ms), std::future_status::timeout);
    api.apiRegist("/x", [&](auto&, auto&, const auto&) { later.pass(); });
    RawClient second(address);
    second.send("GET /x HTTP/1.1\r\n\r\n");
    ASSERT_TRUE(later.waitEntered());
    old.open();
    EXPECT_EQ(removal.wait_for(10s), std::future_status::ready);
    later.open();
    second.answer();
}

TEST_F(WebApiBasicTest, LetsHandlersUnregisterAndRegisterThemselves) {
    api.apiRegist("/x", [this](auto&, HTTPServerResponse& response, const auto&) {
        api.apiUnregist("/x");
        answer("/y", "born");
        response.send() << "gone";
    });
    serve();
    EXPECT_EQ(get("/x").body, "gone");
    EXPECT_EQ(get("/x").status, 404);
    EXPECT_EQ(get("/y").body, "born");
}

TEST_F(WebApiBasicTest, LetsTwoCallsUnregisterTheirHandlerAtOnce) {
    Gate gate;
    api.apiRegist("/x", [&](auto&, HTTPServerResponse& response, const auto&) {
        gate.pass();
        api.apiUnregist("/x");
        response.send() << "done";
    });
    serve();
    RawClient one(address);
    RawClient two(address);
    one.send("GET /x HTTP/1.1\r\n\r\n");
    two.send("GET /x HTTP/1.1\r\n\r\n");
    ASSERT_TRUE(gate.waitEntered(2));
    gate.open();
    EXPECT_THAT(one.answer(), EndsWith("done"));
    EXPECT_THAT(two.answer(), EndsWith("done"));
    EXPECT_EQ(get("/x").status, 404);
}

TEST_F(WebApiBasicTest, RoutesChangeWhileRequestsCome) {
    serve();
    std::atomic<bool> ended{false};
    std::thread changer([&] {
        for (int i = 0; i < 200; ++i) {
            // a call after the removal would use this after its end
            const auto value = std::make_unique<std::string>("alive");
            api.apiRegist("/x", [&value = *value](auto&, HTTPServerResponse& response,
                                                  const auto&) { response.send() << value; });
            std::this_thread::yield();
            api.apiUnregist("/x");
        }
        ended = true;
    });
    RawClient client(address);
    while (!ended) {
        client.send("GET /x HTTP/1.1\r\n\r\n");
        EXPECT_THAT(client.answer(), testing::AnyOf(EndsWith("alive"), HasSubstr("404")));
    }
    changer.join();
}

TEST_F(WebApiBasicTest, HasEarlyClientsWaitUntilItServes) {
    answer("/x", "x");
    address = api.bind();
    RawClient early(address);
    early.send("GET /x HTTP/1.1\r\n\r\n");
    EXPECT_FALSE(early.stream().poll(Poco::Timespan(0, 50'000), RawClient::readable));
    api.serve();
    EXPECT_THAT(early.answer(), EndsWith("x"));
}

TEST_F(WebApiBasicTest, ClosesUnreadWhoWaitsWhenItIsToldTo) {
    std::atomic<int> calls{0};
    api.apiRegist("/x", [&](auto&, HTTPServerResponse& response, const auto&) {
        ++calls;
        response.send() << "x";
    });
    address = api.bind();
    EXPECT_EQ(api.discardWaiting(), 0U);
    RawClient silent(address);
    RawClient early(address);
    early.send("GET /x HTTP/1.1\r\n\r\n");
    EXPECT_EQ(api.discardWaiting(), 2U);
    EXPECT_TRUE(silent.closedByServer());
    EXPECT_TRUE(early.closedByServer());

    RawClient later(address);
    later.send("GET /x HTTP/1.1\r\n\r\n");
    EXPECT_FALSE(later.stream().poll(Poco::Timespan(0, 50'000), RawClient::readable));
    api.serve();
    EXPECT_THAT(later.answer(), EndsWith("x"));
    EXPECT_EQ(calls, 1);
}

TEST_F(WebApiBasicTest, NamesTheAddressThatItCannotBind) {
    address = api.bind();
    WebApiBasic other;
    try {
        other.bind("127.0.0.1", address.port());
        FAIL() << "bound twice";
    } catch (const Poco::Net::NetException& e) {
        EXPECT_THAT(e.displayText(), AllOf(HasSubstr(address.toString()), HasSubstr("in use")));
    }
    try {
        other.bind("no such address", 1);
        FAIL() << "bound to nonsense";
    } catch (const Poco::Net::NetException& e) {
        EXPECT_THAT(e.displayText(), HasSubstr("no such address:1"));
    }
    // a failure leaves it as it was
    EXPECT_NE(other.bind().port(), 0);
}

TEST_F(WebApiBasicTest, RefusesCallsOutOfOrder) {
    EXPECT_THROW(api.serve(), Poco::IllegalStateException);
    EXPECT_THROW(api.discardWaiting(), Poco::IllegalStateException);
    api.stop();
    api.bind();
    EXPECT_THROW(api.bind(), Poco::IllegalStateException);
    api.serve();
    EXPECT_THROW(api.serve(), Poco::IllegalStateException);
    EXPECT_THROW(api.discardWaiting(), Poco::IllegalStateException);
    api.stop();
    api.stop();
    EXPECT_THROW(api.serve(), Poco::IllegalStateException);
    EXPECT_THROW(api.discardWaiting(), Poco::IllegalStateException);
}

TEST_F(WebApiBasicTest, ServesTheSamePortAgainAfterAStop) {
    answer("/x", "x");
    serve();
    EXPECT_EQ(get("/x").body, "x");
    for (int i = 0; i < 3; ++i) {
        api.stop();
        EXPECT_THROW(get("/x"), Poco::Net::ConnectionRefusedException);
        api.bind("127.0.0.1", address.port());
        api.serve();
        EXPECT_EQ(get("/x").body, "x");
    }
}

TEST_F(WebApiBasicTest, ServesIpv6) {
    if (!test::hasIpv6())
        GTEST_SKIP() << "this machine has no IPv6";
    answer("/x", "x");
    address = api.bind("::1");
    api.serve();
    EXPECT_EQ(address.host().toString(), "::1");
    EXPECT_EQ(get("/x").body, "x");
    WebApiBasic other;
    try {
        other.bind("::1", address.port());
        FAIL() << "bound twice";
    } catch (const Poco::Net::NetException& e) {
        EXPECT_THAT(e.displayText(), HasSubstr(address.toString()));
    }
}

TEST_F(WebApiBasicTest, StopLetsRunningAnswersGoOut) {
    Gate gate;
    const std::string large(1'000'000, 'x');
    api.apiRegist("/slow", [&](auto&, HTTPServerResponse& response, const auto&) {
        gate.pass();
        response.send() << large;
    });
    serve();
    RawClient client(address);
    client.send("GET /slow HTTP/1.1\r\n\r\n");
    ASSERT_TRUE(gate.waitEntered());
    auto stopped = std::async(std::launch::async, [&] { api.stop(); });
    EXPECT_EQ(stopped.wait_for(50ms), std::future_status::timeout);
    gate.open();
    const std::string all = client.rest();
    EXPECT_THAT(all, EndsWith("\r\n0\r\n\r\n"));
    EXPECT_GT(all.size(), large.size());
    stopped.get();
}

TEST_F(WebApiBasicTest, StopsAtOnceWhenClientsStallAndLeavesNothingBehind) {
    // the sanitizer of threads adds one of its own to the first
    std::thread([] {}).join();
    const std::size_t threads = threadCount();
    const std::size_t descriptors = descriptorCount();
    answer("/x", "x");
    serve();
    {
        std::vector<std::unique_ptr<RawClient>> clients;
        for (const char* begin :
             {"", "GET /x HT", "POST /x HTTP/1.1\r\nContent-Length: 9\r\n\r\nabc",
              "POST /x HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nab",
              "GET /x HTTP/1.1\r\n\r\n"}) {
            clients.push_back(std::make_unique<RawClient>(address));
            clients.back()->send(begin);
        }
        clients.back()->answer();
        ASSERT_TRUE(waitUntil([&] { return threadCount() >= threads + 6; }));
        const auto start = Clock::now();
        api.stop();
        // milliseconds on an idle machine; a stop that waits for a client takes 10 s or more
        EXPECT_LT(Clock::now() - start, 2s);
        for (const auto& client : clients)
            EXPECT_TRUE(client->closedByServer());
    }
    EXPECT_TRUE(waitUntil([&] { return threadCount() == threads; }));
    EXPECT_EQ(descriptorCount(), descriptors);
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(WebApiBasicTest, StopsAlthoughAClientDoesNotTakeItsAnswer) {
    Gate gate;
    api.apiRegist("/large", [&](auto&, HTTPServerResponse& response, const auto&) {
        gate.pass();
        const std::string piece(1'000'000, 'x');
        std::ostream& out = response.send();
        // more than the kernel holds for both ends
        for (int i = 0; i < 30; ++i)
            out << piece;
    });
    serve();
    RawClient client(address);
    client.send("GET /large HTTP/1.1\r\n\r\n");
    ASSERT_TRUE(gate.waitEntered());
    gate.open();
    const auto start = Clock::now();
    api.stop();
    EXPECT_LT(Clock::now() - start, 5s);
    EXPECT_EQ(log.count("does not take its answer"), 1);
}

TEST_F(WebApiBasicTest, EndedConnectionsLeaveNoDescriptorAndThreadsForTheNextOnes) {
    WebApiBasic::Limits limits;
    limits.connections = 4;
    answer("/x", "x");
    const std::size_t threads = threadCount();
    serve(limits);
    const std::size_t descriptors = descriptorCount();
    for (int i = 0; i < 50; ++i)
        get("/x");
    EXPECT_TRUE(waitUntil([&] { return descriptorCount() <= descriptors; }));
    // one that accepts, and two for each connection of which one may just be ending
    EXPECT_LE(threadCount(), threads + 1 + 8);
}

class DescriptorLimit {
public:
    DescriptorLimit() {
        ::getrlimit(RLIMIT_NOFILE, &former);
        rlimit low = former;
        low.rlim_cur = 256;
        ::setrlimit(RLIMIT_NOFILE, &low);
        int fd = 0;
        while ((fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0)
            taken.push_back(fd);
    }
    ~DescriptorLimit() {
        for (const int fd : taken)
            ::close(fd);
        ::setrlimit(RLIMIT_NOFILE, &former);
    }
    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;

private:
    rlimit former{};
    std::vector<int> taken;
};

std::chrono::nanoseconds processorTime() {
    timespec used{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
}

TEST_F(WebApiBasicTest, TellsWhenItHasNoDescriptorToCloseWhoWaits) {
    address = api.bind();
    RawClient early(address);
    try {
        const DescriptorLimit noneLeft;
        api.discardWaiting();
        FAIL() << "took a connection without a descriptor";
    } catch (const Poco::SystemException& e) {
        EXPECT_EQ(e.code(), EMFILE);
        EXPECT_THAT(e.message(), EndsWith("Too many open files"));
    }
    EXPECT_EQ(api.discardWaiting(), 1U);
    EXPECT_TRUE(early.closedByServer());
}

TEST_F(WebApiBasicTest, SurvivesHavingNoDescriptorsLeftWithoutSpinning) {
    answer("/x", "x");
    serve();
    // has its descriptor before they are gone
    Poco::Net::StreamSocket prepared(SocketAddress::IPv4);
    // the sanitizer of undefined behaviour opens descriptors when it first meets a class
    const std::size_t open = descriptorCount();
    {
        Poco::Net::StreamSocket first(SocketAddress::IPv4);
        first.connect(address);
        EXPECT_EQ(get("/unknown").status, 404);
    }
    ASSERT_TRUE(waitUntil([&] { return descriptorCount() == open; }));
    {
        DescriptorLimit limit;
        prepared.connect(address);
        ASSERT_TRUE(waitUntil([&] { return log.count("cannot accept connections") > 0; }));
        const auto before = processorTime();
        const auto end = Clock::now() + 300ms;
        waitUntil([&] { return Clock::now() >= end; }, 300ms);
        EXPECT_LT(processorTime() - before, 150ms);
        EXPECT_EQ(log.count("cannot accept connections"), 1);
    }
    const std::string request = "GET /x HTTP/1.1\r\nConnection: close\r\n\r\n";
    prepared.sendBytes(request.data(), static_cast<int>(request.size()));
    prepared.setReceiveTimeout(Poco::Timespan(10, 0));
    std::array<char, 512> answered;
    EXPECT_GT(prepared.receiveBytes(answered.data(), static_cast<int>(answered.size())), 0);
    EXPECT_EQ(get("/x").body, "x");
}

TEST(WebApiBasicInstance, IsOneForTheProcess) {
    const auto router = WebApiBasic::instance();
    EXPECT_NE(router, nullptr);
    EXPECT_EQ(router, WebApiBasic::instance());
}

[[noreturn]] void exitWhileServing() {
    const auto router = WebApiBasic::instance();
    router->apiRegist(
        "/x", [](auto&, HTTPServerResponse& response, const auto&) { response.send() << "x"; });
    const SocketAddress address = router->bind();
    router->serve();
    // outlives main, as a client does
    auto* const client = new RawClient(address);
    client->send("GET /x HTTP/1.1\r\n\r\n");
    const bool answered = client->answer().find("\r\n\r\nx") != std::string::npos;
    std::atexit([] { WebApiBasic::instance()->apiUnregist("/x"); });
    std::exit(answered ? 0 : 1);
}

TEST(WebApiBasicDeathTest, TheProcessExitsCleanlyWhileItServes) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_EXIT(exitWhileServing(), testing::ExitedWithCode(0), "");
}

} // namespace
} // namespace ktr
