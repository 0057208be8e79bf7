#include "../../../src/host/OneLineChannel.h"

#include <Poco/Message.h>

#include <gtest/gtest.h>

#include <string>

namespace ktr::host {
namespace {

class Target : public Poco::Channel {
public:
    void open() override { isOpen = true; }
    void close() override { isOpen = false; }
    void log(const Poco::Message& message) override { taken = message; }

    bool isOpen = false;
    Poco::Message taken;
};

class OneLineChannelTest : public testing::Test {
protected:
    std::string logged(const std::string& text) {
        channel->log(Poco::Message("source", text, Poco::Message::PRIO_WARNING, "src/file", 42));
        return target->taken.getText();
    }

    Poco::AutoPtr<Target> target{new Target};
    Poco::AutoPtr<OneLineChannel> channel{new OneLineChannel(target)};
};

TEST_F(OneLineChannelTest, HandsAMessageOnAsItIs) {
    EXPECT_EQ(logged("gerät 'a b' ~"), "gerät 'a b' ~");
    EXPECT_EQ(target->taken.getSource(), "source");
    EXPECT_EQ(target->taken.getPriority(), Poco::Message::PRIO_WARNING);
    EXPECT_STREQ(target->taken.getSourceFile(), "src/file");
    EXPECT_EQ(target->taken.getSourceLine(), 42);
}

TEST_F(OneLineChannelTest, MakesOneLineOfSeveralAndLeavesTheRestOfTheMessage) {
    EXPECT_EQ(logged("guid: g\r\n2026 Error forged\x1b[2J\x7f"), "guid: g??2026 Error forged?[2J?");
    EXPECT_EQ(target->taken.getSource(), "source");
    EXPECT_EQ(target->taken.getPriority(), Poco::Message::PRIO_WARNING);
    EXPECT_EQ(target->taken.getSourceLine(), 42);
}

TEST_F(OneLineChannelTest, OpensAndClosesItsTarget) {
    channel->open();
    EXPECT_TRUE(target->isOpen);
    channel->close();
    EXPECT_FALSE(target->isOpen);
}

} // namespace
} // namespace ktr::host
