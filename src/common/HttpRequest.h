#pragma once

#include <Poco/MemoryStream.h>
#include <Poco/Net/HTTPServerRequestImpl.h>

#include <cstddef>
#include <istream>
#include <optional>
#include <string>

namespace ktr {

/// A request whose body is read to its end before it is answered, so that no handler waits for a
/// client and an unread body cannot be taken for the next request.
class HttpRequest : public Poco::Net::HTTPServerRequestImpl {
public:
    /// Reads the header. Throws what Poco's parser and the socket throw.
    HttpRequest(Poco::Net::HTTPServerResponseImpl& response, Poco::Net::HTTPServerSession& session,
                Poco::Net::HTTPServerParams& params);

    /// Throws HttpFault for a header that Poco's parser takes although two readers may disagree on
    /// where such a request ends, or which the router cannot serve.
    void check() const;

    /// Reads the body, of `limit` bytes at most. Throws HttpFault.
    void readBody(std::size_t limit);
    const std::string& body() const { return content; }
    /// The body. Made when it is asked for: few handlers do.
    std::istream& stream() override {
        if (!reader)
            reader.emplace(content.data(), static_cast<std::streamsize>(content.size()));
        return *reader;
    }

    /// Whether another request may follow on the connection.
    bool wantsKeepAlive() const;

private:
    void readAll(std::streambuf& source);

    std::string content;
    std::optional<Poco::MemoryInputStream> reader;
};

/// The target of a request, taken apart. Throws HttpFault.
struct Target {
    explicit Target(const std::string& uri);

    /// Decoded.
    std::string path;
    /// As sent, without the "?".
    std::string query;
};

} // namespace ktr
