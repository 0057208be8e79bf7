#pragma once

#include "ktr/Export.h"

#include <Poco/AbstractObserver.h>
#include <Poco/Notification.h>
#include <Poco/NotificationCenter.h>
#include <Poco/Observer.h>
#include <Poco/SharedPtr.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>

namespace ktr {

/// The target of one registration: forwards every notification to its handler.
class Observer {
public:
    /// `name_` only identifies it; `handler_` may be empty.
    Observer(std::string name_, std::function<void(Poco::Notification*)> handler_)
        : name(std::move(name_)), handler(std::move(handler_)) {}

    /// Calls the handler, if there is one. The reference that Poco's adaptor took on `notification`
    /// is not given back: handlers get a plain pointer that stays valid, and must not release it.
    void handle(Poco::Notification* notification) {
        if (handler)
            handler(notification);
    }

private:
    std::string name;
    std::function<void(Poco::Notification*)> handler;
};

/// Registers typed handlers for notifications posted on Poco::NotificationCenter::defaultCenter().
///
/// Thread safety: all functions may be called from any thread. A handler runs on the posting
/// thread, inside the post, under the lock of its own registration only: one registration handles
/// one notification at a time, different ones may run in parallel.
class KTR_API NotificationCenter {
public:
    /// The process-wide centre; it lives until the process ends.
    static NotificationCenter& defaultCenter();

    NotificationCenter();
    ~NotificationCenter();
    NotificationCenter(const NotificationCenter&) = delete;
    NotificationCenter& operator=(const NotificationCenter&) = delete;

    /// Has `handler` called with every notification of type T (derived from Poco::Notification). An
    /// empty handler is accepted and ignores everything. What it throws leaves the post. `name`
    /// only identifies the registration: register each name once, since a second one under the same
    /// name leaves Poco's centre with a dangling observer. On failure nothing is registered and the
    /// exception (std::system_error, std::bad_alloc or Poco's) leaves this function.
    template <class T>
    void addObserver(std::string name, std::function<void(T*)> handler) {
        const std::lock_guard<std::mutex> lock(mutex);
        std::shared_ptr<ObserverNode> node(new ObserverNode);
        node->observer = std::shared_ptr<Observer>(
            new Observer(name, [handler](Poco::Notification* notification) {
                if (auto* typed = dynamic_cast<T*>(notification); typed && handler)
                    handler(typed);
            }));
        node->pocoObserver =
            new Poco::Observer<Observer, Poco::Notification>(*node->observer, &Observer::handle);
        Poco::NotificationCenter::defaultCenter().addObserver(*node->pocoObserver);
        try {
            observers[name] = node;
        } catch (...) {
            // Poco's copy must not outlive the observer that it points at
            Poco::NotificationCenter::defaultCenter().removeObserver(*node->pocoObserver);
            throw;
        }
    }

    /// Ends the registration `name`: takes it out of Poco's centre, waits until its handler no
    /// longer runs, and drops it. An unknown name does nothing. Must not be called from the handler
    /// itself.
    void removeObserver(const std::string& name);

private:
    struct ObserverNode {
        Poco::SharedPtr<Poco::AbstractObserver> pocoObserver;
        std::shared_ptr<Observer> observer;
    };

    // guards observers; held for the whole of a registration
    std::mutex mutex;
    std::unordered_map<std::string, std::shared_ptr<ObserverNode>> observers;
};

} // namespace ktr
