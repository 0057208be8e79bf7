#pragma once

#include <cstddef>
#include <cstdint>
#include <streambuf>
#include <string>

namespace ktr {

/// Takes a body out of its chunks. Poco's own passes over rubbish in the lines between them, where
/// another reader may see other chunks, and over any number of bytes there.
class ChunkedBody {
public:
    explicit ChunkedBody(std::streambuf& source_) : source(source_) {}

    /// Reads on to the end of the trailer, which it drops. Throws HttpFault for chunks that are
    /// malformed or that hold more than `limit` bytes together, and what the source throws.
    std::string read(std::size_t limit);

private:
    std::uint64_t readSize();
    void append(std::uint64_t size, std::string& content);
    /// How many bytes it has passed over.
    std::size_t skipLine();
    char next();
    void expectLineFeed();

    std::streambuf& source;
    /// How much of extensions and trailer may still come.
    std::size_t extrasLeft = 8192;
};

} // namespace ktr
