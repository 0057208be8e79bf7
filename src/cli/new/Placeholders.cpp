#include "Placeholders.h"

#include <Poco/RegularExpression.h>

#include <stdexcept>

namespace ktr::cli {

std::string fill(const std::string& text, const Placeholders& values) {
    static const Poco::RegularExpression placeholder("@([A-Za-z]+)@");
    std::string filled;
    std::size_t from = 0;
    Poco::RegularExpression::MatchVec match;
    while (placeholder.match(text, from, match) != 0) {
        const auto value = values.find(text.substr(match[1].offset, match[1].length));
        if (value == values.end())
            throw std::invalid_argument("the placeholder " +
                                        text.substr(match[0].offset, match[0].length) +
                                        " is not known");
        filled.append(text, from, match[0].offset - from).append(value->second);
        from = match[0].offset + match[0].length;
    }
    return filled.append(text, from, std::string::npos);
}

} // namespace ktr::cli
