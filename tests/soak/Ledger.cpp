#include "Ledger.h"

#include <algorithm>
#include <iterator>
#include <thread>

namespace ktr::soak {
namespace {

std::string nameOf(const EventId& id) {
    return std::string(pathOf(id.stream) == 0 ? "normal" : "rapid") + " event " +
           std::to_string(id.number) + " of stream " + std::to_string(id.stream);
}

std::string nameOf(const Delivery& delivery) {
    return nameOf(delivery.id) + " at plugin " + std::to_string(delivery.receiver);
}

} // namespace

void Ledger::raised(std::uint32_t number, std::uint64_t upTo) {
    Stream& stream = streams.at(number);
    const auto now = Clock::now();
    for (; stream.last < upTo; ++counts.at(pathOf(number)).sent) {
        ++stream.last;
        Pending& pending = stream.pending[stream.last];
        pending.since = now;
        for (const std::uint32_t plugin : makeEvent(seed, {number, stream.last}).to)
            pending.missing.set(plugin);
    }
}

void Ledger::delivered(const Delivery& delivery) {
    Stream& stream = streams.at(delivery.id.stream);
    if (delivery.id.number == 0 || delivery.id.number > stream.last) {
        problems.add(nameOf(delivery) + " was never raised");
        return;
    }
    const auto to = makeEvent(seed, delivery.id).to;
    const auto recipient = std::find(to.begin(), to.end(), delivery.receiver);
    if (recipient == to.end()) {
        problems.add(nameOf(delivery) + " was not addressed to it");
        return;
    }
    ++counts.at(pathOf(delivery.id.stream)).delivered;
    if (settle(stream, delivery))
        checkOrder(delivery, static_cast<std::size_t>(std::distance(to.begin(), recipient)));
    else
        problems.add(nameOf(delivery) + " was delivered twice");
}

/// False if it has been delivered before.
bool Ledger::settle(Stream& stream, const Delivery& delivery) {
    const auto pending = stream.pending.find(delivery.id.number);
    if (pending == stream.pending.end() || !pending->second.missing.test(delivery.receiver))
        return false;
    pending->second.missing.reset(delivery.receiver);
    if (pending->second.missing.none())
        stream.pending.erase(pending);
    return true;
}

void Ledger::checkOrder(const Delivery& delivery, std::size_t position) {
    const Step step{delivery.id.number, position};
    Step& last = progress[{delivery.thread, delivery.id.stream}];
    if (step < last)
        problems.add(nameOf(delivery) + " came out of order, after event " +
                     std::to_string(last.first));
    last = step;
}

std::size_t Ledger::outstanding() const {
    std::size_t all = 0;
    for (const Stream& stream : streams)
        all += stream.pending.size();
    return all;
}

void Ledger::tellLost(Clock::duration age) {
    const auto latest = Clock::now() - age;
    for (std::uint32_t number = 0; number < kStreams; ++number) {
        auto& pending = streams.at(number).pending;
        // raised in the order of their numbers
        while (!pending.empty() && pending.begin()->second.since <= latest) {
            const auto& [event, left] = *pending.begin();
            problems.add(nameOf(EventId{number, event}) + " was lost by " +
                         std::to_string(left.missing.count()) + " of its recipients");
            pending.erase(pending.begin());
        }
    }
}

void takeJournal(Shared& shared, Ledger& ledger, Problems& problems) {
    const std::uint64_t written = shared.written;
    // read after that: whatever was delivered had been raised before
    for (std::uint32_t stream = 0; stream < kStreams; ++stream)
        ledger.raised(stream, shared.sent.at(stream));
    if (written - shared.read > Shared::kJournal) {
        problems.add("more was delivered than the journal holds");
        shared.read = written;
    }
    for (std::uint64_t place = shared.read; place < written; ++place) {
        const Slot& slot = shared.journal.at(place % Shared::kJournal);
        while (slot.turn < place + 1)
            std::this_thread::yield(); // somebody is writing it
        ledger.delivered(slot.delivery);
        shared.read = place + 1;
    }
}

} // namespace ktr::soak
