#include "common/JsonServer.h"
#include "common/HttpClient.h"

#include <Poco/Exception.h>
#include <Poco/Net/StreamSocket.h>

#include <gmock/gmock.h>

#include <chrono>
#include <memory>
#include <stdexcept>

namespace ktr::example {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;

class JsonServerTest : public ::testing::Test {
protected:
    std::unique_ptr<JsonServer> server = std::make_unique<JsonServer>(Endpoints{
        {"GET /echo",
         [](const JsonRequest& request) { return failure(200, request.query.at("word")); }},
        {"POST /length",
         [](const JsonRequest& request) {
             return failure(200, std::to_string(request.body.size()));
         }},
        {"GET /throw",
         [](const JsonRequest&) -> JsonAnswer { throw std::runtime_error("broken"); }}});
    HttpClient client{"127.0.0.1", server->port(), Poco::Timespan(10, 0)};
};

TEST_F(JsonServerTest, handsParametersToTheEndpoint) {
    EXPECT_EQ(R"({"code":-1,"msg":"a b&c"})", client.get("/echo?word=a%20b%26c&word=second").body);
}

TEST_F(JsonServerTest, answers404ForAnUnknownPath) {
    const auto answer = client.get("/none");
    EXPECT_EQ(404, answer.status);
    EXPECT_THAT(answer.body, HasSubstr(R"("code":-1)"));
}

TEST_F(JsonServerTest, answers405ForAnotherMethod) {
    EXPECT_EQ(405, client.post("/echo", "").status);
}

TEST_F(JsonServerTest, answers500WithTheReasonWhenTheEndpointThrows) {
    const auto answer = client.get("/throw");
    EXPECT_EQ(500, answer.status);
    EXPECT_THAT(answer.body, HasSubstr("broken"));
}

TEST_F(JsonServerTest, takesABodyUpToTheLimitAndAnswers413Above) {
    const auto answer = client.post("/length", std::string(65536, 'x'));
    EXPECT_EQ(R"({"code":-1,"msg":"65536"})", answer.body);
    EXPECT_EQ(413, client.post("/length", std::string(65537, 'x')).status);
}

TEST_F(JsonServerTest, endsAtOnceWithAnIdleConnectionAndWithOneThatIsMidRequest) {
    Poco::Net::StreamSocket idle(Poco::Net::SocketAddress("127.0.0.1", server->port()));
    Poco::Net::StreamSocket slow(Poco::Net::SocketAddress("127.0.0.1", server->port()));
    const std::string half = "POST /length HTTP/1.1\r\nContent-Length: 10\r\n\r\nhalf";
    slow.sendBytes(half.data(), static_cast<int>(half.size()));
    client.get("/echo?word=x");
    const auto begin = std::chrono::steady_clock::now();
    server.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 1s);
}

} // namespace
} // namespace ktr::example
