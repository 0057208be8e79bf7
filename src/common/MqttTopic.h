#pragma once

#include <string>

namespace ktr {

/// Whether a message may be published to `topic`: UTF-8 without wildcards, 1 to 65535 bytes.
bool isMqttTopic(const std::string& topic);

/// Whether `filter` may be subscribed to: + and # only as whole levels, # only as the last.
bool isMqttFilter(const std::string& filter);

/// Whether a message of `topic` belongs to `filter`. A leading wildcard does not match a topic that
/// begins with $.
bool matchesMqttFilter(const std::string& filter, const std::string& topic);

} // namespace ktr
