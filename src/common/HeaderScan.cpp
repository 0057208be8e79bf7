#include "HeaderScan.h"

#include "HttpFault.h"
#include "HttpSyntax.h"

namespace ktr {
namespace {

HttpFault malformed(const std::string& what) {
    return {Poco::Net::HTTPResponse::HTTP_BAD_REQUEST, what};
}

HttpFault malformedRequestLine() {
    return malformed("the request line is not METHOD TARGET VERSION");
}

HttpFault malformedField() {
    return malformed("a header line is malformed");
}

/// Whether it may stand in any value and in any word of the request line, but for the blank.
constexpr bool isPlain(char c) {
    return static_cast<unsigned char>(c) >= 0x20 && c != 0x7f && c != '\xff';
}

} // namespace

/// Whether nothing can be wrong with it: a word of the request line, or a field's value, goes on.
inline bool HeaderScan::isOfWordOrValue(char c) const {
    return isPlain(c) && !afterReturn && (inRequestLine ? c != ' ' : named);
}

inline void HeaderScan::count(char c) {
    last = c;
    ++length;
}

std::size_t HeaderScan::find(std::string_view bytes) {
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        // most of a header is of that kind
        if (isOfWordOrValue(bytes[i]))
            count(bytes[i]);
        else
            take(bytes[i]);
        if (reached)
            return i + 1;
    }
    return bytes.size();
}

void HeaderScan::take(char c) {
    if (afterReturn && c != '\n')
        throw malformed("a line of the header ends with half a line break");
    // Poco takes the byte 255 for the end of the stream, and what follows for the next request
    if (c == '\xff' || (isControl(c) && c != '\n' && c != '\r'))
        throw malformed("the header holds a control character");
    if (c == '\n') {
        endLine();
    } else if (c == '\r') {
        afterReturn = true;
    } else {
        inRequestLine ? takeOfRequestLine(c) : takeOfField(c);
        count(c);
    }
}

void HeaderScan::takeOfRequestLine(char c) {
    if (c == '\t' || (c == ' ' && (length == 0 || last == ' ' || ++blanks > 2)))
        throw malformedRequestLine();
}

void HeaderScan::takeOfField(char c) {
    if (named)
        return;
    // a line that begins with a blank would continue the one before
    if (c == ':' ? length == 0 : !isTokenCharacter(c))
        throw malformedField();
    named = c == ':';
}

void HeaderScan::endLine() {
    const LineEnd end = afterReturn ? LineEnd::withReturn : LineEnd::without;
    afterReturn = false;
    if (inRequestLine && length == 0)
        return;
    // who wants carriage returns takes a line that ends without for a part of the next
    if (lineEnd != LineEnd::unknown && lineEnd != end)
        throw malformed("the lines of the header end in two ways");
    lineEnd = end;
    if (inRequestLine && (blanks != 2 || last == ' '))
        throw malformedRequestLine();
    if (!inRequestLine && length > 0 && !named)
        throw malformedField();
    reached = length == 0;
    inRequestLine = named = false;
    length = 0;
}

} // namespace ktr
