#include "HttpSession.h"

#include <Poco/Exception.h>

#include <sys/socket.h>
#include <utility>

namespace ktr {

bool HttpSession::skipLineBreaks() {
    while (peek() == '\r' || peek() == '\n')
        get();
    return peek() != std::char_traits<char>::eof();
}

int HttpSession::write(const char* data, std::streamsize size) {
    if (holding) {
        held.append(data, static_cast<std::size_t>(size));
        return static_cast<int>(size);
    }
    try {
        waiting = more;
        return socket().sendBytes(data, static_cast<int>(size), more ? MSG_MORE : 0);
    } catch (const Poco::Exception& e) {
        setException(e);
        throw;
    }
}

void HttpSession::flush() {
    more = holding = false;
    try {
        if (!held.empty())
            write(held.data(), static_cast<std::streamsize>(held.size()));
        else if (std::exchange(waiting, false))
            socket().setNoDelay(true); // it was so before; the system sends what waits all the same
    } catch (const Poco::Exception& e) {
        setException(e);
    }
    held.clear();
}

} // namespace ktr
