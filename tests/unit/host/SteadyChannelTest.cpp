#include "../../../src/host/SteadyChannel.h"

#include <Poco/ConsoleChannel.h>
#include <Poco/Exception.h>
#include <Poco/Message.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iostream>
#include <sstream>
#include <string>
#include <vector>

namespace ktr::host {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

/// Takes what it is given, or fails.
class Target : public Poco::Channel {
public:
    void log(const Poco::Message& message) override {
        if (full)
            throw Poco::WriteFileException("disk full");
        taken.push_back(message.getText());
    }
    void close() override {
        ++closed;
        if (full)
            throw Poco::WriteFileException("disk full");
    }

    bool full = false;
    int closed = 0;
    std::vector<std::string> taken;
};

class SteadyChannelTest : public testing::Test {
protected:
    void log(const std::string& text) {
        channel->log(Poco::Message("test", text, Poco::Message::PRIO_INFORMATION));
    }

    Poco::AutoPtr<Target> target{new Target};
    Poco::AutoPtr<SteadyChannel> channel{new SteadyChannel(target)};
};

TEST_F(SteadyChannelTest, HandsMessagesOn) {
    log("one");
    log("two");
    EXPECT_THAT(target->taken, ElementsAre("one", "two"));
    EXPECT_EQ(target->closed, 0);
}

TEST_F(SteadyChannelTest, LetsNoFailureOut) {
    target->full = true;
    EXPECT_NO_THROW(log("one"));
    EXPECT_NO_THROW(log("two"));
    EXPECT_THAT(target->taken, IsEmpty());
}

TEST_F(SteadyChannelTest, ClosesWhatFailedSoThatItIsOpenedAnew) {
    target->full = true;
    log("one");
    EXPECT_EQ(target->closed, 1);
}

TEST_F(SteadyChannelTest, TellsHowManyLinesWereLostOnceThereIsRoomAgain) {
    target->full = true;
    log("one");
    log("two");
    target->full = false;
    log("three");
    log("four");
    EXPECT_THAT(target->taken, ElementsAre(AllOf(HasSubstr("2 log lines could not be written"),
                                                 HasSubstr("disk full")),
                                           "three", "four"));
}

// The host logged nothing more once its standard error had been full.
TEST_F(SteadyChannelTest, HasStandardErrorTakeLinesAgainAfterItFailed) {
    std::ostringstream out;
    auto* const former = std::cerr.rdbuf(out.rdbuf());
    std::cerr.setstate(std::ios::badbit);
    SteadyChannel console(new Poco::ConsoleChannel(std::cerr));
    console.log(Poco::Message("test", "again", Poco::Message::PRIO_INFORMATION));
    std::cerr.rdbuf(former);
    EXPECT_EQ(out.str(), "again\n");
}

} // namespace
} // namespace ktr::host
