#pragma once

#include <Poco/Net/HTTPServerSession.h>

#include <string>

namespace ktr {

/// The session of one connection. Poco sends an answer's header, its text and its end one by one,
/// and each of them wakes the client; here they go together where nobody can tell.
class HttpSession : public Poco::Net::HTTPServerSession {
public:
    using HTTPServerSession::buffered;
    using HTTPServerSession::HTTPServerSession;

    /// Takes the line breaks with which clients of old end a body without counting them; false when
    /// the client has nothing more to ask.
    bool skipLineBreaks();

    /// Whether what is written goes out with what follows it, or some 200 ms later.
    void expectMore(bool expected) { more = expected; }
    /// Keeps what is written from now on until flush().
    void hold() { holding = true; }
    /// Sends what waits. Tells of a failure as the streams do: networkException() is set.
    void flush();

protected:
    int write(const char* data, std::streamsize size) override;

private:
    bool more = false;
    /// Whether the last that was sent waits for more.
    bool waiting = false;
    bool holding = false;
    std::string held;
};

} // namespace ktr
