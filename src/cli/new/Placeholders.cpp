#include "Placeholders.h"

#include <regex>
#include <stdexcept>

namespace ktr::cli {

std::string fill(const std::string& text, const Placeholders& values) {
    static const std::regex placeholder("@([A-Za-z]+)@");
    std::string filled;
    auto from = text.begin();
    for (auto at = std::sregex_iterator(text.begin(), text.end(), placeholder);
         at != std::sregex_iterator(); ++at) {
        const auto value = values.find((*at)[1]);
        if (value == values.end())
            throw std::invalid_argument("the placeholder " + at->str() + " is not known");
        filled.append(from, (*at)[0].first).append(value->second);
        from = (*at)[0].second;
    }
    return filled.append(from, text.end());
}

} // namespace ktr::cli
