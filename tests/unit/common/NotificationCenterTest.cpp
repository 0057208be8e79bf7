#include "ktr/common/NotificationCenter.h"

#include <Poco/AutoPtr.h>

#include <gtest/gtest.h>

#include <stdexcept>

namespace ktr {
namespace {

class Wanted : public Poco::Notification {};
class Other : public Poco::Notification {};

class NotificationCenterTest : public testing::Test {
protected:
    ~NotificationCenterTest() override { center.removeObserver("wanted"); }

    static void post(Poco::Notification* notification) {
        Poco::NotificationCenter::defaultCenter().postNotification(notification);
    }

    NotificationCenter center;
};

TEST_F(NotificationCenterTest, HandsTheTypedPointerToTheHandlerInsideThePost) {
    Wanted* seen = nullptr;
    center.addObserver<Wanted>("wanted", [&](Wanted* notification) { seen = notification; });
    const Poco::AutoPtr<Wanted> posted(new Wanted);
    Poco::NotificationCenter::defaultCenter().postNotification(posted);
    EXPECT_EQ(seen, posted.get());
    posted->release(); // the reference that a delivery keeps
}

TEST_F(NotificationCenterTest, KeepsOneReferenceForEachDelivery) {
    center.addObserver<Wanted>("wanted", [](Wanted*) {});
    const Poco::AutoPtr<Wanted> posted(new Wanted);
    const int before = posted->referenceCount();
    Poco::NotificationCenter::defaultCenter().postNotification(posted);
    EXPECT_EQ(posted->referenceCount(), before + 1);
    posted->release();
}

TEST_F(NotificationCenterTest, IgnoresOtherTypes) {
    int calls = 0;
    center.addObserver<Wanted>("wanted", [&](Wanted*) { ++calls; });
    const Poco::AutoPtr<Other> posted(new Other);
    Poco::NotificationCenter::defaultCenter().postNotification(posted);
    EXPECT_EQ(calls, 0);
    posted->release();
}

TEST_F(NotificationCenterTest, AcceptsAnEmptyHandler) {
    center.addObserver<Wanted>("wanted", nullptr);
    const Poco::AutoPtr<Wanted> posted(new Wanted);
    EXPECT_NO_THROW(Poco::NotificationCenter::defaultCenter().postNotification(posted));
    posted->release();
}

TEST_F(NotificationCenterTest, LetsAHandlersExceptionReachThePoster) {
    center.addObserver<Wanted>("wanted", [](Wanted*) { throw std::runtime_error("no"); });
    const Poco::AutoPtr<Wanted> posted(new Wanted);
    EXPECT_THROW(Poco::NotificationCenter::defaultCenter().postNotification(posted),
                 std::runtime_error);
    posted->release();
}

TEST_F(NotificationCenterTest, DeliversNothingAfterARemoval) {
    int calls = 0;
    center.addObserver<Wanted>("wanted", [&](Wanted*) { ++calls; });
    const std::size_t registered = Poco::NotificationCenter::defaultCenter().countObservers();
    center.removeObserver("wanted");
    EXPECT_EQ(Poco::NotificationCenter::defaultCenter().countObservers(), registered - 1);
    post(new Wanted);
    EXPECT_EQ(calls, 0);
    center.removeObserver("wanted");
    center.removeObserver("never registered");
}

TEST(Observer, WithoutAHandlerDoesNothing) {
    Observer observer("empty", nullptr);
    EXPECT_NO_THROW(observer.handle(nullptr));
}

} // namespace
} // namespace ktr
