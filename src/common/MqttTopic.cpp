#include "MqttTopic.h"

#include <Poco/UTF8Encoding.h>

#include <cstddef>
#include <string_view>

namespace ktr {
namespace {

constexpr std::size_t kMaxTopicBytes = 65535;

bool isText(const std::string& text) {
    const Poco::UTF8Encoding utf8;
    std::size_t pos = 0;
    while (pos < text.size()) {
        const auto* bytes = reinterpret_cast<const unsigned char*>(text.data()) + pos;
        const int length = utf8.sequenceLength(bytes, 1);
        if (*bytes == 0 || length < 1 || text.size() - pos < static_cast<std::size_t>(length) ||
            !Poco::UTF8Encoding::isLegal(bytes, length))
            return false;
        pos += static_cast<std::size_t>(length);
    }
    return !text.empty() && text.size() <= kMaxTopicBytes;
}

/// Takes the first level off `rest`; the rest of the last level has no data.
std::string_view takeLevel(std::string_view& rest) {
    const std::size_t slash = rest.find('/');
    const std::string_view level = rest.substr(0, slash);
    rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash + 1);
    return level;
}

} // namespace

bool isMqttTopic(const std::string& topic) {
    return isText(topic) && topic.find_first_of("+#") == std::string::npos;
}

bool isMqttFilter(const std::string& filter) {
    if (!isText(filter))
        return false;
    std::string_view rest = filter;
    while (rest.data() != nullptr) {
        const std::string_view level = takeLevel(rest);
        if (level.size() > 1 && level.find_first_of("+#") != std::string_view::npos)
            return false;
        if (level == "#" && rest.data() != nullptr)
            return false;
    }
    return true;
}

bool matchesMqttFilter(const std::string& filter, const std::string& topic) {
    if (topic[0] == '$' && (filter[0] == '+' || filter[0] == '#'))
        return false;
    std::string_view wanted = filter;
    std::string_view given = topic;
    while (wanted.data() != nullptr) {
        const std::string_view level = takeLevel(wanted);
        if (level == "#")
            return true;
        if (given.data() == nullptr)
            return false;
        const std::string_view found = takeLevel(given);
        if (level != "+" && level != found)
            return false;
    }
    return given.data() == nullptr;
}

} // namespace ktr
