#pragma once

#include "ktr/common/MqttClient.h"

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace ktr {

/// Hands incoming messages to the handlers of their filters, on a thread of its own: a slow handler
/// must not hold Paho's thread, which keeps the connection alive.
///
/// Thread safety: all functions may be called from any thread; start, finish and the destructor not
/// at the same time.
class MqttInbox {
public:
    MqttInbox() = default;
    ~MqttInbox();
    MqttInbox(const MqttInbox&) = delete;
    MqttInbox& operator=(const MqttInbox&) = delete;

    void start();
    /// From here on no handler is called, and put() never waits; what waits is dropped.
    void close();
    /// Closes, and returns when no handler is running any more.
    void finish();
    /// Whether a handler is calling.
    bool isOwnThread() const;

    /// Takes a message; waits while too many are waiting, so that the broker feels it.
    void put(MqttClient::Message message);

    void set(const std::string& filter, MqttClient::Handler handler);
    void erase(const std::string& filter);
    /// Returns when no handler of `filter` is running, at once on the inbox's own thread.
    void waitForHandler(const std::string& filter);

private:
    struct Entry {
        std::string filter;
        MqttClient::Handler handler;
    };
    using EntryPtr = std::shared_ptr<const Entry>;

    void run();
    std::vector<EntryPtr> matching(const std::string& topic) const;
    void dispatch(const EntryPtr& entry, const MqttClient::Message& message);

    mutable std::mutex mutex;
    std::condition_variable changed;

    // guarded by mutex
    std::map<std::string, EntryPtr> entries;
    std::deque<MqttClient::Message> waiting;
    EntryPtr running;
    bool open = false;
    std::thread::id threadId;

    std::thread thread;
};

} // namespace ktr
