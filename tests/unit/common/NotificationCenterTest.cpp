#include "ktr/common/NotificationCenter.h"

#include "support/FailingAllocation.h"
#include "support/Locks.h"
#include "support/LogCapture.h"
#include "support/RefusingMutex.h"
#include "support/WaitUntil.h"

#include <Poco/AutoPtr.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <new>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

namespace ktr {
namespace {

using test::LogCapture;
using test::waitUntil;
using testing::ElementsAre;
using testing::IsEmpty;

using Adaptor = Poco::Observer<Observer, Poco::Notification>;

class Wanted : public Poco::Notification {};
class Other : public Poco::Notification {};
class Special : public Wanted {};

class NotificationCenterTest : public testing::Test {
protected:
    ~NotificationCenterTest() override { center.removeObserver("wanted"); }

    static void post(Poco::Notification* notification) {
        Poco::NotificationCenter::defaultCenter().postNotification(notification);
    }

    static std::size_t registered() {
        return Poco::NotificationCenter::defaultCenter().countObservers();
    }

    bool isFree() { return test::isFree(center.mutex); }

    NotificationCenter center;
};

/// A handler that acts whenever it is copied.
struct CopyWatcher {
    explicit CopyWatcher(std::function<void()> onCopy_) : onCopy(std::move(onCopy_)) {}
    CopyWatcher(const CopyWatcher& other) : onCopy(other.onCopy) { onCopy(); }
    CopyWatcher(CopyWatcher&&) = default;
    CopyWatcher& operator=(const CopyWatcher&) = delete;
    CopyWatcher& operator=(CopyWatcher&&) = delete;
    ~CopyWatcher() = default;
    void operator()(Wanted* /*notification*/) const {}

    std::function<void()> onCopy;
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

TEST_F(NotificationCenterTest, RunsTheHandlerOnThePostingThread) {
    std::thread::id seen;
    center.addObserver<Wanted>("wanted", [&](Wanted*) { seen = std::this_thread::get_id(); });
    const Poco::AutoPtr<Wanted> posted(new Wanted);
    std::thread poster([&] { Poco::NotificationCenter::defaultCenter().postNotification(posted); });
    const std::thread::id expected = poster.get_id();
    poster.join();
    EXPECT_EQ(seen, expected);
    posted->release();
}

TEST_F(NotificationCenterTest, DeliversDerivedTypesToo) {
    int calls = 0;
    center.addObserver<Wanted>("wanted", [&](Wanted*) { ++calls; });
    const Poco::AutoPtr<Special> posted(new Special);
    Poco::NotificationCenter::defaultCenter().postNotification(posted);
    EXPECT_EQ(calls, 1);
    posted->release();
}

TEST_F(NotificationCenterTest, DeliversToEveryNameWhateverTheNotificationsOwn) {
    std::vector<std::string> called;
    center.addObserver<Wanted>("wanted", [&](Wanted*) { called.emplace_back("wanted"); });
    center.addObserver<Wanted>("unrelated", [&](Wanted*) { called.emplace_back("unrelated"); });
    const Poco::AutoPtr<Wanted> posted(new Wanted);
    Poco::NotificationCenter::defaultCenter().postNotification(posted);
    EXPECT_THAT(called, ElementsAre("wanted", "unrelated"));
    center.removeObserver("unrelated");
    posted->release();
    posted->release();
}

TEST_F(NotificationCenterTest, DropsOtherTypesSilentlyThoughTheyToAreKept) {
    const LogCapture log;
    center.addObserver<Wanted>("wanted", [](Wanted*) {});
    const Poco::AutoPtr<Other> posted(new Other);
    const int before = posted->referenceCount();
    Poco::NotificationCenter::defaultCenter().postNotification(posted);
    EXPECT_EQ(posted->referenceCount(), before + 1);
    EXPECT_THAT(log.messages(), IsEmpty());
    posted->release();
}

TEST_F(NotificationCenterTest, IgnoresANullNotification) {
    int calls = 0;
    center.addObserver<Wanted>("wanted", [&](Wanted*) { ++calls; });
    center.observers.at("wanted")->observer->handle(nullptr);
    EXPECT_EQ(calls, 0);
}

TEST_F(NotificationCenterTest, KeepsTheNamedObserverAndItsAdaptorAndPocosCopyOfIt) {
    const std::size_t before = registered();
    center.addObserver<Wanted>("wanted", [](Wanted*) {});
    EXPECT_EQ(registered(), before + 1);
    ASSERT_EQ(center.observers.size(), 1U);
    const auto& node = center.observers.at("wanted");
    EXPECT_EQ(node.use_count(), 1);
    EXPECT_EQ(node->observer->name, "wanted");
    EXPECT_EQ(node->observer.use_count(), 1);
    ASSERT_FALSE(node->pocoObserver.isNull());
    EXPECT_EQ(node->pocoObserver.referenceCount(), 1);
    const auto& copy = Poco::NotificationCenter::defaultCenter()._observers.back();
    EXPECT_NE(copy.get(), node->pocoObserver.get());
    EXPECT_TRUE(copy->equals(*node->pocoObserver));
    EXPECT_EQ(dynamic_cast<const Adaptor&>(*copy)._pObject, node->observer.get());
}

TEST_F(NotificationCenterTest, RegistersEvenAnEmptyHandler) {
    const std::size_t before = registered();
    center.addObserver<Wanted>("wanted", nullptr);
    EXPECT_EQ(registered(), before + 1);
    EXPECT_EQ(center.observers.count("wanted"), 1U);
}

TEST_F(NotificationCenterTest, HoldsItsLockForTheWholeRegistrationAndForNoDelivery) {
    std::vector<bool> freeAtCopy;
    bool free = false;
    const std::function<void(Wanted*)> handler(
        CopyWatcher([&] { freeAtCopy.push_back(isFree()); }));
    freeAtCopy.clear();
    center.addObserver<Wanted>("wanted", handler);
    // first the argument, then what the wrapper keeps
    ASSERT_GE(freeAtCopy.size(), 2U);
    EXPECT_TRUE(freeAtCopy.front());
    EXPECT_FALSE(freeAtCopy.back());
    EXPECT_TRUE(isFree());
    center.removeObserver("wanted");

    center.addObserver<Wanted>("wanted", [&](Wanted*) { free = isFree(); });
    const Poco::AutoPtr<Wanted> posted(new Wanted);
    Poco::NotificationCenter::defaultCenter().postNotification(posted);
    EXPECT_TRUE(free);
    posted->release();
}

TEST_F(NotificationCenterTest, KeepsOnlyTheSecondOfTwoRegistrationsUnderOneName) {
    const std::size_t before = registered();
    std::vector<std::string> called;
    center.addObserver<Wanted>("wanted", [&](Wanted*) { called.emplace_back("first"); });
    const std::weak_ptr<NotificationCenter::ObserverNode> node = center.observers.at("wanted");
    // held on, for Poco's copy points at it
    const std::shared_ptr<Observer> first = center.observers.at("wanted")->observer;
    center.addObserver<Wanted>("wanted", [&](Wanted*) { called.emplace_back("second"); });
    EXPECT_TRUE(node.expired());
    EXPECT_EQ(first.use_count(), 1);
    EXPECT_EQ(center.observers.size(), 1U);
    EXPECT_EQ(registered(), before + 2);
    const Poco::AutoPtr<Wanted> posted(new Wanted);
    Poco::NotificationCenter::defaultCenter().postNotification(posted);
    EXPECT_THAT(called, ElementsAre("first", "second"));
    Poco::NotificationCenter::defaultCenter().removeObserver(Adaptor(*first, &Observer::handle));
    posted->release();
    posted->release();
}

TEST_F(NotificationCenterTest, DropsANodeWithoutTakingItOutOfPocosCentre) {
    center.addObserver<Wanted>("wanted", [](Wanted*) {});
    const std::size_t before = registered();
    const std::shared_ptr<Observer> observer = center.observers.at("wanted")->observer;
    center.observers.clear();
    EXPECT_EQ(registered(), before);
    Poco::NotificationCenter::defaultCenter().removeObserver(Adaptor(*observer, &Observer::handle));
    EXPECT_EQ(registered(), before - 1);
}

TEST_F(NotificationCenterTest, ReleasesANodesObserverBeforeItsAdaptor) {
    struct NotedAdaptor : Adaptor {
        NotedAdaptor(ktr::Observer& observer, std::vector<std::string>& order_)
            : Adaptor(observer, &ktr::Observer::handle), order(order_) {}
        ~NotedAdaptor() override { order.emplace_back("adaptor"); }
        std::vector<std::string>& order;
    };
    std::vector<std::string> order;
    {
        NotificationCenter::ObserverNode node;
        node.observer =
            std::make_shared<Observer>("wanted", [held = std::shared_ptr<void>(nullptr, [&](void*) {
                                                      order.emplace_back("observer");
                                                  })](Poco::Notification*) {});
        node.pocoObserver = new NotedAdaptor(*node.observer, order);
    }
    EXPECT_THAT(order, ElementsAre("observer", "adaptor"));
}

TEST_F(NotificationCenterTest, HandlesOneNotificationAtATimeInEachRegistrationButSeveralBesides) {
    std::atomic<int> calls{0};
    std::atomic<int> slowCalls{0};
    std::atomic<bool> end{false};
    center.addObserver<Wanted>("quick", [&](Wanted*) { ++calls; });
    center.addObserver<Wanted>("wanted", [&](Wanted*) {
        ++slowCalls;
        waitUntil([&] { return end.load(); });
    });
    auto& slow =
        dynamic_cast<Adaptor&>(*Poco::NotificationCenter::defaultCenter()._observers.back());
    const Poco::AutoPtr<Wanted> posted(new Wanted);
    const auto postIt = [&] { Poco::NotificationCenter::defaultCenter().postNotification(posted); };
    std::thread firstPoster(postIt);
    EXPECT_TRUE(waitUntil([&] { return slowCalls == 1; }));
    EXPECT_FALSE(slow._mutex.tryLock());
    std::thread secondPoster(postIt);
    EXPECT_TRUE(waitUntil([&] { return calls == 2; }));
    EXPECT_EQ(slowCalls, 1);
    end = true;
    firstPoster.join();
    secondPoster.join();
    EXPECT_EQ(slowCalls, 2);
    EXPECT_TRUE(slow._mutex.tryLock());
    slow._mutex.unlock();
    center.removeObserver("quick");
    for (int delivery = 0; delivery < 4; ++delivery)
        posted->release();
}

TEST_F(NotificationCenterTest, ServesOnAfterAHandlerThrew) {
    int calls = 0;
    center.addObserver<Wanted>("wanted", [&](Wanted*) {
        if (++calls == 1)
            throw std::runtime_error("no");
    });
    const Poco::AutoPtr<Wanted> posted(new Wanted);
    EXPECT_THROW(Poco::NotificationCenter::defaultCenter().postNotification(posted),
                 std::runtime_error);
    std::thread([&] { Poco::NotificationCenter::defaultCenter().postNotification(posted); }).join();
    EXPECT_EQ(calls, 2);
    posted->release();
    posted->release();
}

TEST_F(NotificationCenterTest, RegistersNothingWhenItsLockFails) {
    const std::size_t before = registered();
    {
        const test::RefusingMutex refusing(center.mutex);
        EXPECT_THROW(center.addObserver<Wanted>("wanted", [](Wanted*) {}), std::system_error);
    }
    EXPECT_THAT(center.observers, IsEmpty());
    EXPECT_EQ(registered(), before);
    EXPECT_TRUE(isFree());
}

TEST_F(NotificationCenterTest, RegistersNothingWhicheverAllocationFails) {
    const LogCapture log;
    // longer than what a string holds without an allocation
    const std::string name = "a registration with a long name";
    const auto token = std::make_shared<int>(0);
    const std::function<void(Wanted*)> handler([token, padding = std::string(name)](Wanted*) {});
    const long tokens = token.use_count();
    const std::size_t before = registered();
    int failures = 0;
    for (bool done = false; !done && failures < 100;) {
        std::string nameArgument = name;
        std::function<void(Wanted*)> handlerArgument = handler;
        try {
            const test::FailingAllocation failing(failures);
            center.addObserver<Wanted>(std::move(nameArgument), std::move(handlerArgument));
            done = true;
        } catch (const std::bad_alloc&) {
            ++failures;
            EXPECT_THAT(center.observers, IsEmpty()) << failures;
            EXPECT_EQ(registered(), before) << failures;
        }
        ASSERT_TRUE(isFree()) << failures;
    }
    // node, observer, adaptor, wrapper, Poco's copy, the entry ... and the counters of each
    EXPECT_GT(failures, 6);
    EXPECT_EQ(registered(), before + 1);
    EXPECT_THAT(log.messages(), IsEmpty());
    center.removeObserver(name);
    EXPECT_EQ(token.use_count(), tokens);
}

TEST_F(NotificationCenterTest, IsOneForTheProcess) {
    EXPECT_EQ(&NotificationCenter::defaultCenter(), &NotificationCenter::defaultCenter());
    EXPECT_NE(&NotificationCenter::defaultCenter(), &center);
}

TEST_F(NotificationCenterTest, HoldsItsMembersInOrder) {
    const NotificationCenter::ObserverNode node;
    const Observer observer("name", nullptr);
    const std::vector<std::pair<const void*, const void*>> neighbours{
        {&center.mutex, &center.observers},
        {&node.pocoObserver, &node.observer},
        {&observer.name, &observer.handler}};
    for (const auto& [former, latter] : neighbours)
        EXPECT_LT(former, latter);
}

TEST(Observer, WithoutAHandlerDoesNothing) {
    Observer observer("empty", nullptr);
    EXPECT_NO_THROW(observer.handle(nullptr));
}

} // namespace
} // namespace ktr
