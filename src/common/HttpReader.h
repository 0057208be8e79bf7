#pragma once

#include "ClientSocket.h"

#include "ktr/common/WebApiBasic.h"

#include <Poco/Net/HTTPRequest.h>

#include <cstddef>
#include <string>

namespace ktr {

/// Reads the requests of one connection, each within the limits: the whole header and the whole
/// body have a time of their own however the client cuts them up.
class HttpReader {
public:
    HttpReader(ClientSocket& socket, const WebApiBasic::Limits& limits);

    /// Waits for the first byte of a request; false when none comes before the idle time is over or
    /// the connection ends.
    bool waitForRequest();

    /// Reads one header into `request`. Throws HttpFault.
    void readHeader(Poco::Net::HTTPRequest& request);

    /// Reads the body that the header announces, to its end. Throws HttpFault.
    std::string readBody(const Poco::Net::HTTPRequest& request);

    /// Takes what the client still sends, for a short time: closing on a client that is not done
    /// sending would have the kernel throw the answer away.
    void drain();

private:
    using Clock = ClientSocket::Clock;

    void receiveMore();
    std::string take(std::size_t size);
    std::string takeLine();
    std::string readChunks();
    std::size_t readChunkSize();
    void readTrailer();

    ClientSocket& socket;
    const WebApiBasic::Limits limits;
    /// Received and not used yet.
    std::string buffer;
    Clock::time_point deadline;
};

} // namespace ktr
