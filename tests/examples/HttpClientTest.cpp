#include "common/HttpClient.h"
#include "common/JsonServer.h"

#include "support/WaitUntil.h"

#include <Poco/Exception.h>
#include <Poco/Net/ServerSocket.h>

#include <gmock/gmock.h>

#include <chrono>
#include <thread>

namespace ktr::example {
namespace {

using namespace std::chrono_literals;

TEST(HttpClientTest, bringsStatusAndBody) {
    const JsonServer server({{"GET /x", [](const JsonRequest&) { return failure(409, "no"); }}});
    HttpClient client("127.0.0.1", server.port(), Poco::Timespan(5, 0));
    const HttpAnswer answer = client.get("/x");
    EXPECT_EQ(409, answer.status);
    EXPECT_EQ(R"({"code":-1,"msg":"no"})", answer.body);
}

TEST(HttpClientTest, sendsTheBody) {
    const JsonServer server(
        {{"POST /x", [](const JsonRequest& request) { return failure(200, request.body); }}});
    HttpClient client("127.0.0.1", server.port(), Poco::Timespan(5, 0));
    EXPECT_EQ(R"({"code":-1,"msg":"hello"})", client.post("/x", "hello").body);
}

TEST(HttpClientTest, throwsWhenNothingListens) {
    unsigned short port = 0;
    {
        const Poco::Net::ServerSocket unused(Poco::Net::SocketAddress("127.0.0.1", 0));
        port = unused.address().port();
    }
    HttpClient client("127.0.0.1", port, Poco::Timespan(5, 0));
    EXPECT_THROW(client.get("/"), Poco::Exception);
}

TEST(HttpClientTest, throwsForAnAddressThatIsANameWithoutLookingItUp) {
    HttpClient client("localhost", 4711, Poco::Timespan(5, 0));
    EXPECT_THROW(client.get("/"), Poco::Exception);
}

TEST(HttpClientTest, throwsWhenTheAnswerDoesNotCome) {
    const Poco::Net::ServerSocket silent(Poco::Net::SocketAddress("127.0.0.1", 0));
    HttpClient client("127.0.0.1", silent.address().port(), Poco::Timespan(0, 20000));
    EXPECT_THROW(client.get("/"), Poco::TimeoutException);
}

/// Answers with `text` whatever is asked, and then drips bytes until the client is gone.
class DrippingServer {
public:
    explicit DrippingServer(const std::string& text)
        : thread([this, text] {
              Poco::Net::StreamSocket peer = socket.acceptConnection();
              try {
                  peer.sendBytes(text.data(), static_cast<int>(text.size()));
                  // slowly: what it tests is a server that never quite stops
                  while (peer.sendBytes("x", 1) == 1)
                      std::this_thread::sleep_for(1ms);
              } catch (const Poco::Exception&) {
                  // the client is gone: this is the end that we wait for
              }
          }) {}
    ~DrippingServer() { thread.join(); }
    unsigned short port() const { return socket.address().port(); }

private:
    Poco::Net::ServerSocket socket{Poco::Net::SocketAddress("127.0.0.1", 0)};
    std::thread thread;
};

TEST(HttpClientTest, givesUpAnAnswerThatOnlyDrips) {
    const DrippingServer server("HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\n");
    HttpClient client("127.0.0.1", server.port(), Poco::Timespan(0, 50000));
    EXPECT_THROW(client.get("/"), Poco::TimeoutException);
}

TEST(HttpClientTest, givesUpAnAnswerThatIsTooLong) {
    const DrippingServer server("HTTP/1.1 200 OK\r\n\r\n" +
                                std::string(std::size_t{1024} * 1024 + 1, 'x'));
    HttpClient client("127.0.0.1", server.port(), Poco::Timespan(10, 0));
    EXPECT_THROW(client.get("/"), Poco::DataException);
}

TEST(HttpClientTest, abortsAWaitingRequestAndEveryLaterOne) {
    const Poco::Net::ServerSocket silent(Poco::Net::SocketAddress("127.0.0.1", 0));
    HttpClient client("127.0.0.1", silent.address().port(), Poco::Timespan(60, 0));
    const auto begin = std::chrono::steady_clock::now();
    std::thread waiting([&] { EXPECT_THROW(client.get("/"), Poco::Exception); });
    EXPECT_TRUE(silent.poll(Poco::Timespan(10, 0), Poco::Net::Socket::SELECT_READ));
    client.abort();
    waiting.join();
    EXPECT_THROW(client.get("/"), Poco::Exception);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 20s);
}

} // namespace
} // namespace ktr::example
