#include "SteadyChannel.h"

#include "ktr/common/Logger.h"

#include <Poco/Exception.h>
#include <Poco/Message.h>

#include <exception>
#include <iostream>
#include <utility>

namespace ktr::host {

SteadyChannel::SteadyChannel(Poco::AutoPtr<Poco::Channel> target_) : target(std::move(target_)) {}

void SteadyChannel::open() {
    target->open();
}

void SteadyChannel::close() {
    try {
        target->close();
    } catch (const std::exception&) {
        // what could not be written before cannot be written now
    }
}

void SteadyChannel::log(const Poco::Message& message) {
    const Poco::FastMutex::ScopedLock lock(mutex);
    // a stream that once failed would take nothing more
    if (!std::cerr)
        std::cerr.clear();
    try {
        if (lost > 0)
            tellLost();
        target->log(message);
        return;
    } catch (const Poco::Exception& e) {
        reason = e.displayText();
    } catch (const std::exception& e) {
        reason = e.what();
    }
    ++lost;
    // Poco takes a file that once failed for a full one and rotates it with each message, until all
    // that was logged before is purged.
    close();
}

void SteadyChannel::tellLost() {
    target->log(Poco::Message(cachedLogger().name(),
                              std::to_string(lost) + " log lines could not be written: " + reason,
                              Poco::Message::PRIO_WARNING));
    lost = 0;
}

} // namespace ktr::host
