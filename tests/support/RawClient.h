#pragma once

#include <Poco/Exception.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Timespan.h>

#include <array>
#include <chrono>
#include <string>

namespace ktr::test {

/// A client that says exactly what it is told, well-formed or not.
class RawClient {
public:
    explicit RawClient(const Poco::Net::SocketAddress& server) : socket(server) {
        socket.setReceiveTimeout(Poco::Timespan(10, 0));
        socket.setSendTimeout(Poco::Timespan(10, 0));
        socket.setNoDelay(true);
    }

    void send(const std::string& text) {
        std::size_t sent = 0;
        while (sent < text.size()) {
            const int length = static_cast<int>(text.size() - sent);
            sent += static_cast<std::size_t>(socket.sendBytes(text.data() + sent, length));
        }
    }

    /// One answer: its header and the body that the header announces, out of its chunks.
    std::string answer() {
        std::string header = take(until("\r\n\r\n"));
        const std::string mark = "Content-Length: ";
        if (const auto at = header.find(mark); at != std::string::npos)
            return header + take(std::stoul(header.substr(at + mark.size())));
        if (header.find("chunked") != std::string::npos)
            return header + takeChunks();
        return header;
    }

    /// What comes until the server closes; a reset counts as its end too.
    std::string rest() {
        try {
            while (receive()) {
            }
        } catch (const Poco::TimeoutException&) {
            throw;
        } catch (const Poco::Exception&) {
        }
        return take(received.size());
    }

    bool closedByServer() {
        try {
            return rest().empty();
        } catch (const Poco::TimeoutException&) {
            return false;
        }
    }

    static constexpr int readable = Poco::Net::Socket::SELECT_READ;
    Poco::Net::StreamSocket& stream() { return socket; }

private:
    bool receive() {
        std::array<char, 65536> buffer;
        const int size = socket.receiveBytes(buffer.data(), static_cast<int>(buffer.size()));
        received.append(buffer.data(), static_cast<std::size_t>(size));
        return size > 0;
    }

    /// How many bytes there are up to the end of `mark`; waits for it.
    std::size_t until(const std::string& mark) {
        while (received.find(mark) == std::string::npos)
            if (!receive())
                throw Poco::IOException("closed after: " + received);
        return received.find(mark) + mark.size();
    }

    std::string take(std::size_t size) {
        while (received.size() < size)
            if (!receive())
                throw Poco::IOException("closed after: " + received);
        std::string taken = received.substr(0, size);
        received.erase(0, size);
        return taken;
    }

    std::string takeChunks() {
        std::string body;
        for (;;) {
            const std::size_t size = std::stoul(take(until("\r\n")), nullptr, 16);
            body += take(size);
            if (take(2) != "\r\n")
                throw Poco::IOException("a chunk is longer than it says");
            if (size == 0)
                return body;
        }
    }

    Poco::Net::StreamSocket socket;
    std::string received;
};

} // namespace ktr::test
