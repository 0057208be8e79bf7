#include "common/ReconnectDelay.h"

#include <gtest/gtest.h>

namespace ktr {
namespace {

using namespace std::chrono_literals;

TEST(ReconnectDelayTest, DoublesUpToTheLongestWhileNoConnectionComesAbout) {
    ReconnectDelay delay(1s, 7s);
    EXPECT_EQ(delay.next(0s), 1s);
    EXPECT_EQ(delay.next(0s), 2s);
    EXPECT_EQ(delay.next(0s), 4s);
    EXPECT_EQ(delay.next(0s), 7s);
    EXPECT_EQ(delay.next(0s), 7s);
}

TEST(ReconnectDelayTest, GoesOnDoublingWhenConnectionsDoNotHold) {
    ReconnectDelay delay(2s, 60s);
    EXPECT_EQ(delay.next(1s), 2s);
    EXPECT_EQ(delay.next(3999ms), 4s);
    EXPECT_EQ(delay.next(7999ms), 8s);
    EXPECT_EQ(delay.next(9999ms), 16s);
}

TEST(ReconnectDelayTest, BeginsAnewAfterAConnectionThatHeldAsLongAsTheDelay) {
    ReconnectDelay delay(1s, 60s);
    delay.next(0s);
    delay.next(0s);
    EXPECT_EQ(delay.next(4s), 1s);
    EXPECT_EQ(delay.next(0s), 2s);
}

// A broker restarted some five times in two minutes left its clients waiting for a minute.
TEST(ReconnectDelayTest, BeginsAnewAfterAConnectionThatHeldTenSecondsWhateverTheDelay) {
    ReconnectDelay delay(1s, 60s);
    for (int attempts = 0; attempts < 6; ++attempts)
        delay.next(0s);
    EXPECT_EQ(delay.next(10s), 1s);
}

} // namespace
} // namespace ktr
