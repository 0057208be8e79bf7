#include "Events.h"

#include "plugins/Board.h"

#include <cstdint>
#include <string_view>

namespace ktr::bench {
namespace {

constexpr std::string_view kHead = R"({"time":)";
// so that every moment has as many digits
constexpr std::int64_t kOrigin = 1'000'000'000'000'000'000;
constexpr std::size_t kDigits = 19;

std::int64_t moment() {
    const auto sinceBoot = std::chrono::steady_clock::now().time_since_epoch();
    return kOrigin + std::chrono::nanoseconds(sinceBoot).count();
}

std::string recipientList(std::size_t first, std::size_t recipients) {
    std::string list;
    for (std::size_t i = first; i < first + recipients; ++i)
        list += (i == first ? "\"" : ",\"") + guidOf(i) + "\"";
    return list;
}

} // namespace

std::string eventText(std::size_t size, std::size_t first, std::size_t recipients,
                      const std::string& api) {
    const auto event = [&](std::size_t count, const std::string& note) {
        return std::string(kHead) + std::to_string(kOrigin) + R"(,"to":[)" +
               recipientList(first, count) + R"(],"api":")" + api +
               R"(","payload":{"id":17,"value":21.5,"note":")" + note + "\"}}";
    };
    return event(recipients, std::string(size - event(1, "").size(), 'x'));
}

void stamp(std::string& event) {
    event.replace(kHead.size(), kDigits, std::to_string(moment()));
}

std::chrono::nanoseconds ageOf(const std::string& event) {
    return std::chrono::nanoseconds(moment() - std::stoll(event.substr(kHead.size(), kDigits)));
}

} // namespace ktr::bench
