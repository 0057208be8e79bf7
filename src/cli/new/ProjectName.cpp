#include "ProjectName.h"

#include "../ExitCode.h"

#include <Poco/Ascii.h>

#include <algorithm>
#include <utility>

namespace ktr::cli {
namespace {

constexpr std::size_t kMaxLength = 40;

bool isSeparator(char c) {
    return c == '-' || c == '_';
}

bool isName(const std::string& text) {
    return !text.empty() && text.size() <= kMaxLength && Poco::Ascii::isAlpha(text.front()) &&
           std::all_of(text.begin(), text.end(),
                       [](char c) { return Poco::Ascii::isAlphaNumeric(c) || isSeparator(c); });
}

} // namespace

ProjectName::ProjectName(std::string name_) : name(std::move(name_)) {
    if (!isName(name))
        throw Failure(ExitUsage, "a name begins with a letter and has at most 40 letters, digits, "
                                 "'-' and '_', unlike '" +
                                     name + "'");
    if (name == "host")
        throw Failure(ExitUsage, "the service of 'host' would be called ketra-host, and the host "
                                 "ends whatever is called like a service; choose another name");
}

std::string ProjectName::className() const {
    std::string text;
    bool begins = true;
    for (const char c : name) {
        if (!isSeparator(c))
            text += begins ? static_cast<char>(Poco::Ascii::toUpper(c)) : c;
        begins = isSeparator(c);
    }
    return text;
}

} // namespace ktr::cli
