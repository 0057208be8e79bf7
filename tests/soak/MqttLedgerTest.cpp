#include "MqttLedger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ktr::soak {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class MqttLedgerTest : public testing::Test {
protected:
    /// Plugin 3 has published so many, the others none.
    static MqttLedger::Numbers upTo(std::uint64_t number) {
        MqttLedger::Numbers numbers{};
        numbers.at(3) = number;
        return numbers;
    }

    void arrive(std::uint64_t first, std::uint64_t last) {
        for (std::uint64_t number = first; number <= last; ++number)
            ledger.arrived(3, number);
    }

    Problems problems;
    MqttLedger ledger{problems};
};

TEST_F(MqttLedgerTest, IsContentWithEveryMessageOnce) {
    ledger.beginCalm(upTo(0));
    arrive(1, 9);
    EXPECT_TRUE(ledger.hasAll(upTo(9)));
    ledger.endCalm(upTo(9));
    EXPECT_THAT(problems.texts(), IsEmpty());
    EXPECT_EQ(ledger.total(), 9U);
}

TEST_F(MqttLedgerTest, TellsALostMessage) {
    ledger.beginCalm(upTo(0));
    arrive(1, 4);
    arrive(6, 9);
    EXPECT_FALSE(ledger.hasAll(upTo(9)));
    ledger.endCalm(upTo(9));
    EXPECT_THAT(problems.texts(), ElementsAre(HasSubstr("message 5 of plugin 3 arrived 0 times")));
}

TEST_F(MqttLedgerTest, TellsADoubledMessage) {
    ledger.beginCalm(upTo(0));
    arrive(1, 4);
    arrive(3, 3);
    ledger.endCalm(upTo(4));
    EXPECT_THAT(problems.texts(), ElementsAre(HasSubstr("message 3 of plugin 3 arrived 2 times")));
}

TEST_F(MqttLedgerTest, LeavesWhatWasPublishedAroundARestartOut) {
    ledger.beginCalm(upTo(0));
    arrive(1, 4);
    ledger.endCalm(upTo(4));
    arrive(7, 7);
    arrive(7, 7);
    ledger.beginCalm(upTo(9));
    arrive(11, 12);
    ledger.endCalm(upTo(12));
    EXPECT_THAT(problems.texts(), IsEmpty());
}

} // namespace
} // namespace ktr::soak
