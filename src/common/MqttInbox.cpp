#include "MqttInbox.h"

#include "MqttTopic.h"
#include "ktr/common/Logger.h"

#include <Poco/Exception.h>
#include <Poco/Format.h>

#include <cstddef>
#include <exception>
#include <pthread.h>
#include <utility>

namespace ktr {
namespace {

constexpr std::size_t kCapacity = 1000;

void logHandlerFailure(const std::string& topic, const std::string& reason) {
    if (cachedLogger().error())
        cachedLogger().error(
            Poco::format("the handler of an MQTT message failed, topic: %s, %s", topic, reason),
            __FILE__, __LINE__);
}

void call(const MqttClient::Handler& handler, const MqttClient::Message& message) {
    try {
        handler(message);
    } catch (const Poco::Exception& e) {
        logHandlerFailure(message.topic, e.displayText());
    } catch (const std::exception& e) {
        logHandlerFailure(message.topic, e.what());
    } catch (...) {
        logHandlerFailure(message.topic, "exception of unknown type");
    }
}

} // namespace

MqttInbox::~MqttInbox() {
    finish();
}

void MqttInbox::start() {
    const std::lock_guard<std::mutex> lock(mutex);
    open = true;
    thread = std::thread([this] { run(); });
    threadId = thread.get_id();
}

void MqttInbox::close() {
    const std::lock_guard<std::mutex> lock(mutex);
    open = false;
    if (!waiting.empty() && cachedLogger().warning())
        cachedLogger().warning(
            Poco::format("%z MQTT messages that came in were dropped, because the "
                         "client ends before their handlers were called",
                         waiting.size()),
            __FILE__, __LINE__);
    waiting.clear();
    changed.notify_all();
}

void MqttInbox::finish() {
    close();
    if (thread.joinable())
        thread.join();
    const std::lock_guard<std::mutex> lock(mutex);
    threadId = {};
}

bool MqttInbox::isOwnThread() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return threadId == std::this_thread::get_id();
}

void MqttInbox::put(MqttClient::Message message) {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [this] { return !open || waiting.size() < kCapacity; });
    if (!open)
        return;
    waiting.push_back(std::move(message));
    changed.notify_all();
}

void MqttInbox::set(const std::string& filter, MqttClient::Handler handler) {
    auto entry = std::make_shared<const Entry>(Entry{filter, std::move(handler)});
    const std::lock_guard<std::mutex> lock(mutex);
    entries[filter].swap(entry);
}

void MqttInbox::erase(const std::string& filter) {
    EntryPtr last; // dies after the lock: a handler's captures may do anything in their destructors
    const std::lock_guard<std::mutex> lock(mutex);
    const auto found = entries.find(filter);
    if (found == entries.end())
        return;
    last = found->second;
    entries.erase(found);
}

void MqttInbox::waitForHandler(const std::string& filter) {
    std::unique_lock<std::mutex> lock(mutex);
    if (threadId == std::this_thread::get_id())
        return;
    changed.wait(lock, [&] { return !running || running->filter != filter; });
}

void MqttInbox::run() {
    pthread_setname_np(pthread_self(), "mqtt-inbox");
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        changed.wait(lock, [this] { return !open || !waiting.empty(); });
        if (!open)
            return;
        const MqttClient::Message message = std::move(waiting.front());
        waiting.pop_front();
        changed.notify_all();
        std::vector<EntryPtr> matches = matching(message.topic);
        lock.unlock();
        for (const EntryPtr& entry : matches)
            dispatch(entry, message);
        matches.clear(); // a last handler dies here, while its captures may still call in
        lock.lock();
    }
}

std::vector<MqttInbox::EntryPtr> MqttInbox::matching(const std::string& topic) const {
    std::vector<EntryPtr> matches;
    for (const auto& [filter, entry] : entries)
        if (matchesMqttFilter(filter, topic))
            matches.push_back(entry);
    return matches;
}

void MqttInbox::dispatch(const EntryPtr& entry, const MqttClient::Message& message) {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        const auto found = entries.find(entry->filter);
        // an earlier handler of this message may have ended this subscription
        if (!open || found == entries.end() || found->second != entry)
            return;
        running = entry;
    }
    call(entry->handler, message);
    const std::lock_guard<std::mutex> lock(mutex);
    running = nullptr;
    changed.notify_all();
}

} // namespace ktr
