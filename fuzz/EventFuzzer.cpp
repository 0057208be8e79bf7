// Event text through intake and delivery. The first byte tells which pools are busy; events follow,
// with 0xFF between them, a byte that no UTF-8 text holds.

// The whole source, so that its file-local functions and globals can be reached.
#include "../src/pluginmgr/PluginManager.cpp" // NOLINT(bugprone-suspicious-include): see above

#include "Support.h"
#include "support/fakes/FakeCommon.h"

#include <algorithm>
#include <stdexcept>
#include <vector>

namespace ktr::fuzz {
namespace {

namespace fakes = test::fakes;

constexpr const char* kToAll = R"({"to":["keeps","throws","raises"]})";
constexpr const char* kRaised = R"({"to":["keeps"],"api":"pushTelemetry"})";
constexpr std::uint8_t kNormalBusy = 1;
constexpr std::uint8_t kRapidBusy = 2;

std::vector<std::string> delivered;

void onMessageOf(const std::string& guid, const std::string& message) {
    delivered.push_back(message);
    if (guid == "throws")
        throw std::runtime_error("not now");
    if (guid == "raises")
        sEventCallback(kRaised);
}

class Recipient : public PluginBase {
public:
    explicit Recipient(std::string guid_) : guid(std::move(guid_)) {}
    void stop() override {}
    void onMessage(std::string message) override { onMessageOf(guid, message); }

private:
    const std::string guid;
};

void setUp() {
    muteLog();
    InitThreadPool();
    for (const char* guid : {"keeps", "throws", "raises"}) {
        auto plugin = std::make_shared<Plugin>();
        plugin->guid = guid;
        plugin->instance = std::make_shared<Recipient>(guid);
        s_plugins_map[guid] = plugin;
    }
}

void setBusy(std::uint8_t which) {
    fakes::setAvailable("eventCallBack", (which & kNormalBusy) == 0 ? 4 : 0);
    fakes::setAvailable("rapidEvent", (which & kRapidBusy) == 0 ? 4 : 0);
}

void raise(const std::string& event) {
    std::string raised = event;
    publishMsgToAllPlugin(raised);
    require(raised == event, "the raiser's text stays as it was");
    require(s_transform_message_queue->size() <= kQueueLimit + 1, "the queue has its bound");
    require(s_rapid_transform_message_queue->size() <= kRapidQueueLimit + 1,
            "the rapid queue has its bound");
    fakes::runTasks();
}

void checkDelivered(const std::vector<std::string>& events) {
    for (const std::string& message : delivered)
        require(message == kRaised || std::count(events.begin(), events.end(), message) > 0,
                "what is delivered is what was raised, byte for byte");
    delivered.clear();
}

/// Two events, for an overflow takes the batch after it along.
void checkUsable() {
    setBusy(0);
    raise(kToAll);
    raise(kRaised);
    delivered.clear();
    raise(kToAll);
    require(delivered == std::vector<std::string>{kToAll, kToAll, kToAll, kRaised},
            "an event goes to each recipient in its order");
    require(s_transform_message_queue->empty() && s_rapid_transform_message_queue->empty(),
            "nothing waits while threads are free");
    delivered.clear();
}

} // namespace
} // namespace ktr::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace ktr::fuzz;
    [[maybe_unused]] static const bool isSetUp = (setUp(), true);
    Bytes bytes(data, size);
    setBusy(bytes.take());
    const std::string rest = size > 0 ? text(data + 1, size - 1) : std::string();
    const std::vector<std::string> events = split(rest, '\xff', size + 1);
    for (const std::string& event : events)
        raise(event);
    checkDelivered(events);
    checkUsable();
    return 0;
}
