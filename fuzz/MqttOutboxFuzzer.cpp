// The outbox against the plainest model of it: each byte is an operation. No message is lost or
// sent out of its order but those that the outbox says it dropped.

#include "../src/common/MqttOutbox.h"
#include "Support.h"

#include <algorithm>
#include <deque>
#include <map>

namespace {

using namespace ktr::fuzz;
using ktr::MqttOutbox;

class Model {
public:
    void step(std::uint8_t operation) {
        const std::size_t argument = operation / 8;
        switch (operation % 8) {
        case 0:
        case 1:
        case 2:
            put(argument);
            break;
        case 3:
        case 4:
            send();
            break;
        case 5:
            confirm(argument);
            break;
        case 6:
            giveBack(argument);
            break;
        default:
            recover(argument);
            break;
        }
        require(outbox.size() == waiting.size() + onTheWay.size(), "the outbox counts right");
        require(outbox.isIdle() == (waiting.empty() && onTheWay.empty()),
                "it knows when it is idle");
        require(outbox.canSend() == (!waiting.empty() && onTheWay.size() < MqttOutbox::maxOnTheWay),
                "what waits can be sent while not too much is on its way");
    }

private:
    struct Sent {
        int number;
        int qos;
    };

    void put(std::size_t argument) {
        const int qos = static_cast<int>(argument % 3);
        waiting.push_back({++last, qos});
        drop(outbox.put({"t", std::to_string(last), qos, false}, argument), argument);
    }

    void send() {
        if (!outbox.canSend())
            return;
        const auto [id, message] = outbox.next();
        require(message.payload == std::to_string(waiting.front().number),
                "messages are sent in their order");
        require(onTheWay.emplace(id, waiting.front()).second, "an id is given once");
        waiting.pop_front();
    }

    /// An id that is on its way, or one that never was.
    MqttOutbox::Id choose(std::size_t argument) const {
        if (argument >= onTheWay.size())
            return ~MqttOutbox::Id{0} - argument;
        return std::next(onTheWay.begin(), static_cast<std::ptrdiff_t>(argument))->first;
    }

    void confirm(std::size_t argument) {
        const MqttOutbox::Id id = choose(argument);
        outbox.done(id);
        onTheWay.erase(id);
    }

    void giveBack(std::size_t argument) {
        const MqttOutbox::Id id = choose(argument);
        outbox.putBack(id);
        if (const auto found = onTheWay.find(id); found != onTheWay.end()) {
            waiting.push_front(found->second);
            onTheWay.erase(found);
        }
    }

    void recover(std::size_t capacity) {
        const std::size_t dropped = outbox.recover(capacity);
        for (auto sent = onTheWay.rbegin(); sent != onTheWay.rend(); ++sent)
            if (sent->second.qos > 0)
                waiting.push_front(sent->second);
        onTheWay.clear();
        drop(dropped, capacity);
    }

    void drop(std::size_t said, std::size_t capacity) {
        require(said == waiting.size() - std::min(waiting.size(), capacity),
                "as many are dropped as are too many");
        waiting.erase(waiting.begin(), waiting.begin() + static_cast<std::ptrdiff_t>(said));
    }

    MqttOutbox outbox;
    std::deque<Sent> waiting;
    std::map<MqttOutbox::Id, Sent> onTheWay;
    int last = 0;
};

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Model model;
    for (Bytes bytes(data, size); !bytes.empty();)
        model.step(bytes.take());
    return 0;
}
