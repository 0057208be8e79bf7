#include "MqttOutbox.h"

namespace ktr {
std::size_t MqttOutbox::put(MqttClient::Message message, std::size_t capacity) {
    waiting.push_back(std::move(message));
    return trim(capacity);
}

bool MqttOutbox::canSend() const {
    return !waiting.empty() && onTheWay.size() < maxOnTheWay;
}

std::pair<MqttOutbox::Id, MqttClient::Message> MqttOutbox::next() {
    const Id id = ++lastId;
    const auto& sent = onTheWay.emplace(id, std::move(waiting.front())).first->second;
    waiting.pop_front();
    return {id, sent};
}

void MqttOutbox::putBack(Id id) {
    const auto found = onTheWay.find(id);
    if (found == onTheWay.end())
        return;
    waiting.push_front(std::move(found->second));
    onTheWay.erase(found);
}

std::size_t MqttOutbox::recover(std::size_t capacity) {
    for (auto last = onTheWay.rbegin(); last != onTheWay.rend(); ++last)
        if (last->second.qos > 0)
            waiting.push_front(std::move(last->second));
    onTheWay.clear();
    return trim(capacity);
}

std::size_t MqttOutbox::trim(std::size_t capacity) {
    std::size_t dropped = 0;
    for (; waiting.size() > capacity; ++dropped)
        waiting.pop_front();
    return dropped;
}

} // namespace ktr
