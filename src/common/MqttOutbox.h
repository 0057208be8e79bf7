#pragma once

#include "ktr/common/MqttClient.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <utility>

namespace ktr {

/// The messages that are to be sent and those that the broker has not confirmed yet.
///
/// Thread safety: none; the client guards it.
class MqttOutbox {
public:
    using Id = std::uintptr_t;

    /// MQTT allows 65535; beyond some hundreds it is only memory.
    static constexpr std::size_t maxOnTheWay = 500;

    /// Keeps `message`; drops the oldest ones, of which it returns the number, to hold `capacity`.
    std::size_t put(MqttClient::Message message, std::size_t capacity);

    /// Whether next() may be called: something waits and not too much is on its way.
    bool canSend() const;
    bool isIdle() const { return waiting.empty() && onTheWay.empty(); }
    std::size_t size() const { return waiting.size() + onTheWay.size(); }

    /// The oldest message, which is on its way from here on.
    std::pair<Id, MqttClient::Message> next();

    /// The message arrived or is lost for good; an unknown id does nothing.
    void done(Id id) { onTheWay.erase(id); }
    /// The message was not sent: it waits again, before all others.
    void putBack(Id id);
    /// The connection is gone: what is on its way with a QoS above 0 waits again, in its old order,
    /// unconfirmed QoS 0 does not. Returns how many old ones it dropped to hold `capacity`.
    std::size_t recover(std::size_t capacity);

private:
    std::size_t trim(std::size_t capacity);

    std::deque<MqttClient::Message> waiting;
    std::map<Id, MqttClient::Message> onTheWay;
    Id lastId = 0;
};

} // namespace ktr
