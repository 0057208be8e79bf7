// A plugin of the soak. While it is started a thread of its own raises events on both paths and
// publishes over MQTT; it answers
//   /soak/NUMBER/ask    what it was asked
//   /soak/NUMBER/heap   how many bytes the whole host has allocated
// and echoes what comes under soak/down/NUMBER. Every event that it receives it notes in the
// journal, before it throws if it is told to.

#include "Shared.h"

#include "ktr/PluginBase.h"
#include "ktr/common/MqttClient.h"
#include "ktr/common/WebApiBasic.h"

#include <Poco/JSON/Object.h>
#include <Poco/Net/HTTPServerResponse.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <dlfcn.h>
#include <filesystem>
#include <malloc.h>
#include <mutex>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>

namespace {

using namespace ktr::soak;

// below what overflows the queue of a path: then no event may be lost
constexpr std::array<int, kPaths> kMostUndelivered{45, 18};
constexpr std::chrono::milliseconds kPoll(2);

std::filesystem::path ownFile() {
    static const int anchor = 0;
    Dl_info info{};
    dladdr(&anchor, &info);
    return info.dli_fname;
}

/// What all objects of this library share. Never destroyed: threads may outlive statics.
struct Library {
    const std::uint32_t number = numberOf(ownFile());
    const std::string guid = guidOf(number);
    Shared& shared = mapShared(sharedFile(ownFile()));
    PluginState& state = shared.plugins.at(number);

    void throwIfTold(Place place) const {
        Place told = place;
        if (state.throwNext.compare_exchange_strong(told, Place::nowhere))
            throw std::runtime_error("soak plugin throws as it was told to");
    }

    /// Takes room for one more event on the path; false if there is none.
    bool enter(std::uint32_t path) const {
        auto& undelivered = shared.undelivered.at(path);
        int now = undelivered;
        do
            if (now >= kMostUndelivered.at(path) || !shared.hasRoom())
                return false;
        while (!undelivered.compare_exchange_weak(now, now + 1));
        auto& most = shared.mostUndelivered.at(path);
        int before = most;
        while (before <= now && !most.compare_exchange_weak(before, now + 1)) {
        }
        return true;
    }

    void leave(std::uint32_t path) const { --shared.undelivered.at(path); }
};

const Library& library() {
    static const auto* const made = new Library;
    return *made;
}

class SoakPlugin : public ktr::PluginBase {
public:
    SoakPlugin() { ++library().state.notifications; }
    ~SoakPlugin() override { end(); }

    void start(std::shared_ptr<ktr::WebApiBasic> webApi_,
               std::shared_ptr<ktr::MqttClient> mqttClient_, std::string ip_,
               unsigned short port_) override {
        // two reports in quick succession may start one object twice, and a start may come late
        const std::lock_guard<std::mutex> lock(life);
        if (started || ending)
            return;
        PluginBase::start(webApi_, mqttClient_, ip_, port_);
        library().throwIfTold(Place::start);
        started = true;
        serve("ask", [](const Parameters& asked) {
            Poco::JSON::Object said;
            said.set("plugin", library().guid);
            said.set("value", asked.at("value"));
            return said;
        });
        serve("heap", [](const Parameters&) {
            const auto heap = mallinfo2();
            Poco::JSON::Object said;
            said.set("bytes", heap.uordblks + heap.hblkhd);
            return said;
        });
        mqttClient->subscribe(topic(), 1, [client = mqttClient](const auto& message) {
            ++library().state.received;
            client->publish({"soak/echo", message.payload, 1, false});
        });
        producer = std::thread([this] { produce(); });
        ++library().state.starts;
    }

    void stop() override {
        end();
        try {
            library().throwIfTold(Place::stop);
        } catch (...) {
            // the object stays, so that the report makes none that would count itself
            ++library().state.notifications;
            throw;
        }
    }

    void onMessage(std::string text) override {
        const auto id = idOf(text);
        const Event event = id ? makeEvent(library().shared.seed, *id) : Event();
        if (!id || event.text != text) {
            ++library().state.altered;
            return;
        }
        library().shared.note({*id, library().number, gettid()});
        if (event.to.back() == library().number)
            library().leave(pathOf(id->stream));
        if (id->number % 50 == 0)
            // holds up the other deliveries, so that events pile up to batches
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        else if (id->number % 20 == 0)
            tryRaise(true, static_cast<std::uint32_t>(id->number / 20 % kPaths));
        library().throwIfTold(Place::message);
    }

private:
    using Parameters = ktr::WebApiBasic::Parameters;

    static std::string number() { return std::to_string(library().number); }
    static std::string route(const std::string& name) { return "/soak/" + number() + "/" + name; }
    static std::string topic() { return "soak/down/" + number(); }

    template <class Work>
    void serve(const std::string& name, Work work) const {
        webApi->apiRegist(route(name), [work](auto&, auto& response, const Parameters& asked) {
            work(asked).stringify(response.send());
        });
    }

    void end() {
        const std::lock_guard<std::mutex> lock(life);
        ending = true;
        if (webApi)
            for (const char* name : {"ask", "heap"})
                webApi->apiUnregist(route(name));
        if (mqttClient)
            mqttClient->unsubscribe(topic());
        if (producer.joinable())
            producer.join();
    }

    void produce() const {
        std::minstd_rand random(library().shared.seed + library().number);
        while (!ending) {
            pause(std::chrono::milliseconds(40 + random() % 120));
            if (library().shared.noEvents) {
                carryAlong();
                continue;
            }
            publish();
            for (auto burst = 1 + random() % 8; burst > 0; --burst)
                while (!ending && !tryRaise(false, static_cast<std::uint32_t>(random() % kPaths)))
                    std::this_thread::sleep_for(kPoll);
        }
    }

    /// Ends early with the object: the host's registry is locked while that stops.
    void pause(std::chrono::milliseconds time) const {
        const auto end = std::chrono::steady_clock::now() + time;
        while (!ending && std::chrono::steady_clock::now() < end)
            std::this_thread::sleep_for(kPoll);
    }

    /// What is pending while no thread of its path is free waits for the next event: the last ones
    /// would wait for ever.
    void carryAlong() const {
        for (std::uint32_t path = 0; path < kPaths && library().number == 0; ++path)
            if (library().shared.undelivered.at(path) > 0)
                tryRaise(false, path);
    }

    /// Raises the stream's next event unless too many are on their way.
    bool tryRaise(bool insideDelivery, std::uint32_t path) const {
        if (!library().enter(path))
            return false;
        const std::uint32_t stream = streamOf(library().number, insideDelivery, path);
        const EventId id{stream, ++library().shared.sent.at(stream)};
        eventCallback(makeEvent(library().shared.seed, id).text);
        return true;
    }

    void publish() const {
        auto& published = library().state.published;
        if (mqttClient->publish(
                {"soak/up", number() + " " + std::to_string(published + 1), 1, false}))
            ++published;
    }

    std::atomic<bool> ending{false};
    // guards the rest
    std::mutex life;
    bool started = false;
    std::thread producer;
};

} // namespace

extern "C" {

KTR_API void PluginLoad() {
    ktr::registerPlugin([] { return std::make_shared<SoakPlugin>(); }, library().guid.c_str());
}

KTR_API void PluginUnLoad() {}

KTR_API std::int32_t PluginType() {
    return 7;
}

KTR_API const char* PluginName() {
    return "soak";
}

KTR_API const char* PluginGuid() {
    return library().guid.c_str();
}
}
