#include "Ledger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace ktr::soak {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::uint32_t kSeed = 5;
constexpr std::int32_t kThread = 4711;
constexpr std::uint32_t kStream = 6;

class LedgerTest : public testing::Test {
protected:
    static std::vector<std::uint32_t> recipients(std::uint64_t number) {
        return makeEvent(kSeed, {kStream, number}).to;
    }

    /// An event with several recipients.
    static std::uint64_t broadEvent() {
        std::uint64_t number = 1;
        while (recipients(number).size() < 3)
            ++number;
        return number;
    }

    void deliver(std::uint64_t number, std::uint32_t receiver, std::int32_t thread = kThread) {
        ledger.delivered({{kStream, number}, receiver, thread});
    }

    void deliverAll(std::uint64_t number, std::int32_t thread = kThread) {
        for (const std::uint32_t receiver : recipients(number))
            deliver(number, receiver, thread);
    }

    Problems problems;
    Ledger ledger{kSeed, problems};
};

TEST_F(LedgerTest, IsContentWithEveryEventOnceInOrder) {
    ledger.raised(kStream, 50);
    for (std::uint64_t number = 1; number <= 50; ++number)
        deliverAll(number);
    ledger.tellLost();
    EXPECT_THAT(problems.texts(), IsEmpty());
    EXPECT_EQ(ledger.outstanding(), 0U);
    EXPECT_EQ(ledger.count(pathOf(kStream)).sent, 50U);
    EXPECT_GE(ledger.count(pathOf(kStream)).delivered, 50U);
}

TEST_F(LedgerTest, TellsALostEventOnce) {
    ledger.raised(kStream, 2);
    deliverAll(1);
    EXPECT_EQ(ledger.outstanding(), 1U);
    ledger.tellLost();
    ledger.tellLost();
    EXPECT_THAT(problems.texts(), ElementsAre(HasSubstr("event 2 of stream 6 was lost")));
}

TEST_F(LedgerTest, TellsAnEventThatOneOfItsRecipientsLost) {
    const std::uint64_t number = broadEvent();
    ledger.raised(kStream, number);
    for (std::uint64_t earlier = 1; earlier < number; ++earlier)
        deliverAll(earlier);
    const auto to = recipients(number);
    for (std::size_t i = 0; i + 1 < to.size(); ++i)
        deliver(number, to[i]);
    ledger.tellLost();
    EXPECT_THAT(problems.texts(), ElementsAre(HasSubstr("was lost by 1 of its recipients")));
}

TEST_F(LedgerTest, LeavesAnEventItsTime) {
    ledger.raised(kStream, 1);
    ledger.tellLost(std::chrono::hours(1));
    EXPECT_THAT(problems.texts(), IsEmpty());
}

TEST_F(LedgerTest, TellsADoubledDelivery) {
    ledger.raised(kStream, 1);
    deliverAll(1);
    deliver(1, recipients(1).back());
    EXPECT_THAT(problems.texts(), ElementsAre(HasSubstr("was delivered twice")));
}

TEST_F(LedgerTest, TellsAnEventThatWasNeverRaised) {
    ledger.raised(kStream, 1);
    deliver(2, recipients(2).front());
    EXPECT_THAT(problems.texts(), ElementsAre(HasSubstr("was never raised")));
}

TEST_F(LedgerTest, TellsADeliveryToAStranger) {
    ledger.raised(kStream, 1);
    const auto to = recipients(1);
    std::uint32_t stranger = 0;
    while (std::find(to.begin(), to.end(), stranger) != to.end())
        ++stranger;
    deliver(1, stranger);
    EXPECT_THAT(problems.texts(), ElementsAre(HasSubstr("was not addressed to it")));
}

TEST_F(LedgerTest, TellsEventsOutOfOrderOnOneThread) {
    ledger.raised(kStream, 2);
    deliverAll(2);
    deliver(1, recipients(1).front());
    EXPECT_THAT(problems.texts(), ElementsAre(HasSubstr("came out of order, after event 2")));
}

TEST_F(LedgerTest, TellsRecipientsOutOfOrder) {
    const std::uint64_t number = broadEvent();
    ledger.raised(kStream, number);
    const auto to = recipients(number);
    deliver(number, to[1]);
    deliver(number, to[0]);
    EXPECT_THAT(problems.texts(), ElementsAre(HasSubstr("came out of order")));
}

TEST_F(LedgerTest, AsksNoOrderBetweenThreads) {
    ledger.raised(kStream, 2);
    deliverAll(2, kThread);
    deliverAll(1, kThread + 1);
    EXPECT_THAT(problems.texts(), IsEmpty());
}

TEST_F(LedgerTest, TakesTheJournalWithWhatWasRaisedBefore) {
    const auto shared = std::make_unique<Shared>();
    shared->seed = kSeed;
    shared->sent.at(kStream) = 2;
    for (const std::uint32_t receiver : recipients(1))
        shared->note({{kStream, 1}, receiver, kThread});
    takeJournal(*shared, ledger, problems);
    EXPECT_THAT(problems.texts(), IsEmpty());
    EXPECT_EQ(ledger.outstanding(), 1U);
    EXPECT_EQ(shared->read, shared->written);
}

TEST_F(LedgerTest, TellsAJournalThatRanOver) {
    const auto shared = std::make_unique<Shared>();
    shared->written = Shared::kJournal + 1;
    takeJournal(*shared, ledger, problems);
    EXPECT_THAT(problems.texts(), ElementsAre(HasSubstr("more was delivered")));
}

TEST(SoakEventTest, IsTheSameWhereverItIsMadeAndTellsItsNumber) {
    const EventId id{7, 123456789012};
    const Event event = makeEvent(kSeed, id);
    EXPECT_EQ(event.text, makeEvent(kSeed, id).text);
    EXPECT_NE(event.text, makeEvent(kSeed + 1, id).text);
    const auto read = idOf(event.text);
    ASSERT_TRUE(read);
    EXPECT_EQ(read->stream, id.stream);
    EXPECT_EQ(read->number, id.number);
    EXPECT_FALSE(idOf("{}"));
    EXPECT_FALSE(idOf(R"({"stream":99,"number":1)"));
}

} // namespace
} // namespace ktr::soak
