#include "PluginManagerUnderTest.h"

#include "support/LogHook.h"
#include "support/WaitUntil.h"

#include <Poco/JSON/Array.h>

namespace ktr {
namespace {

using namespace test;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char* kRapid = R"({"to":["a"],"api":"pushTelemetry"})";
constexpr const char* kNormal = R"({"to":["a"]})";

std::vector<std::string> texts(const MessageList& queue) {
    std::vector<std::string> found;
    for (const auto& message : queue)
        found.push_back(message->text);
    return found;
}

// ---- state

/// How things stood when the library had been loaded, before any test.
struct {
    const bool queuesWereThere =
        s_transform_message_queue && s_rapid_transform_message_queue && s_transform_message_cache;
    const bool queuesWereEmpty = s_transform_message_queue->empty() &&
                                 s_rapid_transform_message_queue->empty() &&
                                 s_transform_message_cache->empty();
    const bool poolsWereThere = s_thread_pool || s_rapid_thread_pool;
    const bool discarding = s_is_discard_message;
} const atLoad;

TEST(EventStateTest, BeginsWithEmptyQueuesWithoutPoolsAndWithoutOverflow) {
    EXPECT_TRUE(atLoad.queuesWereThere);
    EXPECT_TRUE(atLoad.queuesWereEmpty);
    EXPECT_FALSE(atLoad.poolsWereThere);
    EXPECT_FALSE(atLoad.discarding);
}

TEST(EventStateTest, KeepsAMessagesRecipientsBeforeItsText) {
    const Message message;
    EXPECT_LT(static_cast<const void*>(&message.to), static_cast<const void*>(&message.text));
}

/// A pointer that tells standard error when the object goes.
template <class Object>
std::shared_ptr<Object> telling(Object* object, const char* name) {
    return std::shared_ptr<Object>(object, [name](Object* gone) {
        std::fprintf(stderr, "%s ends\n", name);
        delete gone;
    });
}

using EventStateDeathTest = PluginManagerTest;

TEST_F(EventStateDeathTest, PoolsEndBeforeTheQueuesLastMadeFirst) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto end = [] {
        s_thread_pool = telling(new ThreadPool("eventCallBack", 1, 4, 60, 0), "normal pool");
        s_rapid_thread_pool = telling(new ThreadPool("rapidEvent", 1, 4, 60, 0), "rapid pool");
        s_transform_message_queue = telling(new MessageList, "normal queue");
        s_rapid_transform_message_queue = telling(new MessageList, "rapid queue");
        s_transform_message_cache = telling(new MessageList, "cache");
        std::exit(0);
    };
    EXPECT_EXIT(end(), testing::ExitedWithCode(0),
                "rapid pool ends\nnormal pool ends\ncache ends\nrapid queue ends\n"
                "normal queue ends\n");
}

// ---- intake

class EventIntakeTest : public PluginManagerTest {
protected:
    EventIntakeTest() { InitThreadPool(); }

    static void busyBothPools() {
        fakes::setAvailable("eventCallBack", 0);
        fakes::setAvailable("rapidEvent", 0);
    }

    /// Raises `text` with both pools busy and tells which queue took it.
    static std::string pathOf(const std::string& text) {
        busyBothPools();
        sEventCallback(text);
        const std::size_t normal = s_transform_message_queue->size();
        const std::size_t rapid = s_rapid_transform_message_queue->size();
        s_transform_message_queue->clear();
        s_rapid_transform_message_queue->clear();
        if (normal + rapid == 0)
            return "none";
        return normal > 0 ? "normal" : "rapid";
    }

    const LogCapture log;
};

TEST_F(EventIntakeTest, MakesTheNormalPoolWithTheFirstEventOnly) {
    ASSERT_THAT(fakes::poolsMade(), SizeIs(1));
    sEventCallback(R"({"to":[]})");
    sEventCallback("not JSON");
    ASSERT_THAT(fakes::poolsMade(), SizeIs(2));
    for (const auto& pool : fakes::poolsMade()) {
        EXPECT_EQ(pool.minCapacity, 1);
        EXPECT_EQ(pool.maxCapacity, 4);
        EXPECT_EQ(pool.idleTime, 60);
        EXPECT_EQ(pool.stackSize, 0);
    }
    EXPECT_EQ(fakes::poolsMade()[0].name, "rapidEvent");
    EXPECT_EQ(fakes::poolsMade()[1].name, "eventCallBack");
}

TEST_F(EventIntakeTest, MakesTheNormalPoolBeforeItReadsTheEvent) {
    sEventCallback("not JSON");
    EXPECT_NE(s_thread_pool, nullptr);
    s_thread_pool.reset();
    fakes::failPools(std::make_exception_ptr(Poco::SystemException("no thread")));
    sEventCallback("not JSON");
    const auto failures = log.texts(kCritical);
    ASSERT_THAT(failures, SizeIs(2));
    EXPECT_THAT(failures[0], testing::StartsWith("JSON Exception: "));
    EXPECT_EQ(failures[1], "System exception: no thread");
}

TEST_F(EventIntakeTest, ARapidEventMakesTheNormalPoolToo) {
    sEventCallback(kRapid);
    EXPECT_NE(s_thread_pool, nullptr);
    EXPECT_EQ(fakes::tasks().at(0).pool, "rapidEvent");
}

TEST_F(EventIntakeTest, InitThreadPoolReplacesTheRapidPoolAndLeavesTheNormalOne) {
    const auto former = s_rapid_thread_pool;
    EXPECT_EQ(s_thread_pool, nullptr);
    InitThreadPool();
    EXPECT_NE(s_rapid_thread_pool, former);
    EXPECT_EQ(former.use_count(), 1);
    EXPECT_EQ(s_thread_pool, nullptr);
}

TEST_F(EventIntakeTest, InitThreadPoolLetsItsFailureOutAndKeepsTheFormerPool) {
    const auto former = s_rapid_thread_pool;
    fakes::failPools(std::make_exception_ptr(Poco::SystemException("no thread")));
    EXPECT_THROW(InitThreadPool(), Poco::SystemException);
    EXPECT_EQ(s_rapid_thread_pool, former);
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(EventIntakeTest, TriesAgainForTheNormalPoolWithTheNextEvent) {
    fakes::failPools(std::make_exception_ptr(Poco::SystemException("no thread")));
    sEventCallback(kNormal);
    EXPECT_EQ(s_thread_pool, nullptr);
    EXPECT_THAT(s_transform_message_queue, testing::Pointee(IsEmpty()));
    fakes::failPools(std::make_exception_ptr(std::runtime_error("no memory")));
    sEventCallback(kNormal);
    EXPECT_THAT(lines(log), ElementsAre(std::tuple(kCritical, "System exception: no thread"),
                                        std::tuple(kCritical, "no memory")));
    fakes::failPools(nullptr);
    sEventCallback(kNormal);
    EXPECT_NE(s_thread_pool, nullptr);
    EXPECT_EQ(fakes::taskCount(), 1U);
    expectSource(log);
}

TEST_F(EventIntakeTest, KeepsAnEventPendingWhileThereIsNoPool) {
    sQueueNormal(std::make_shared<Message>());
    EXPECT_THAT(*s_transform_message_queue, SizeIs(1));
    EXPECT_EQ(fakes::taskCount(), 0U);
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(EventIntakeTest, SubmitsUnderThePathsOwnTaskName) {
    sEventCallback(kNormal);
    sEventCallback(kRapid);
    const auto tasks = fakes::tasks();
    ASSERT_THAT(tasks, SizeIs(2));
    EXPECT_EQ(tasks[0].pool, "eventCallBack");
    EXPECT_EQ(tasks[0].name, "eventCallback");
    EXPECT_EQ(tasks[1].pool, "rapidEvent");
    EXPECT_EQ(tasks[1].name, "rapidEventCallBack");
    EXPECT_THAT(*s_transform_message_queue, IsEmpty());
    EXPECT_THAT(*s_rapid_transform_message_queue, IsEmpty());
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(EventIntakeTest, TakesTheRapidPathForTwoApisOnly) {
    EXPECT_EQ(pathOf(R"({"to":["a"],"api":"pushTelemetry"})"), "rapid");
    EXPECT_EQ(pathOf(R"({"api":"smaReceivePilotData","to":[]})"), "rapid");
    EXPECT_EQ(pathOf(R"({"to":["a"],"api":"pushtelemetry"})"), "normal");
    EXPECT_EQ(pathOf(R"({"to":["a"],"api":" pushTelemetry"})"), "normal");
    EXPECT_EQ(pathOf(R"({"to":["a"],"api":"smaReceivePilotData "})"), "normal");
    EXPECT_EQ(pathOf(R"({"to":["a"],"api":""})"), "normal");
    EXPECT_EQ(pathOf(R"({"to":["a"],"api":7})"), "normal");
    EXPECT_EQ(pathOf(R"({"to":["a"],"api":true})"), "normal");
    EXPECT_EQ(pathOf(R"({"to":["a"],"api":["pushTelemetry"]})"), "normal");
    EXPECT_EQ(pathOf(R"({"to":["a"],"api":{"api":"pushTelemetry"}})"), "normal");
    EXPECT_EQ(pathOf(R"({"to":["a"],"kind":"pushTelemetry"})"), "normal");
    EXPECT_EQ(pathOf(R"({"to":["a"]})"), "normal");
    EXPECT_EQ(pathOf(R"({"to":[]})"), "normal");
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(EventIntakeTest, IgnoresAnEventWithoutRecipientsSilently) {
    for (const char* text : {"{}", R"({"api":"x"})", R"({"to":{}})", R"({"to":"a"})",
                             R"({"to":null})", R"({"to":5,"api":null})"})
        EXPECT_EQ(pathOf(text), "none") << text;
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(EventIntakeTest, LogsWhatIsNoEventAndQueuesNothing) {
    for (const char* text : {"", "   ", "not JSON", R"({"to":["a"])", R"(["a"])", "[]", R"("a")",
                             "5", "true", "null"}) {
        const std::size_t before = log.messages().size();
        EXPECT_EQ(pathOf(text), "none") << text;
        EXPECT_EQ(log.messages().size(), before + 1) << text;
    }
    EXPECT_EQ(log.texts(kCritical).size(), log.messages().size());
    expectSource(log);
}

TEST_F(EventIntakeTest, NamesTheReasonForATopLevelArrayAndANullApi) {
    sEventCallback(R"(["a"])");
    sEventCallback(R"({"to":["a"],"api":null})");
    const auto failures = log.texts(kCritical);
    ASSERT_THAT(failures, SizeIs(2));
    EXPECT_EQ(failures[0], std::string("Bad cast exception: Can not convert ") +
                               typeid(Poco::JSON::Array::Ptr).name() + " to " +
                               typeid(Poco::JSON::Object::Ptr).name() + ".");
    EXPECT_THAT(failures[1], testing::EndsWith("Can not convert empty value."));
    EXPECT_EQ(fakes::taskCount(), 0U);
    EXPECT_THAT(*s_transform_message_queue, IsEmpty());
}

TEST_F(EventIntakeTest, KeepsTheTextByteForByteAndTheRecipients) {
    const std::string text = " { \"b\" : 1.50, \"to\" : [ \"\\u0061\", 5 ], \"a\": null }\n";
    busyBothPools();
    sEventCallback(text);
    ASSERT_THAT(*s_transform_message_queue, SizeIs(1));
    const Message& message = *s_transform_message_queue->front();
    EXPECT_EQ(message.text, text);
    ASSERT_EQ(message.to->size(), 2U);
    EXPECT_EQ(message.to->getElement<std::string>(0), "a");
}

TEST_F(EventIntakeTest, MovesTheTextAndLeavesTheRecipientsToTheMessageAlone) {
    busyBothPools();
    std::string text = R"({"to":["a"],"padding":"longer than any string holds in place"})";
    const auto characters = reinterpret_cast<std::uintptr_t>(text.data());
    sEventCallback(std::move(text));
    ASSERT_THAT(*s_transform_message_queue, SizeIs(1));
    const std::shared_ptr<Message>& message = s_transform_message_queue->front();
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(message->text.data()), characters);
    EXPECT_EQ(message->to.referenceCount(), 1);
    EXPECT_EQ(message.use_count(), 1);
}

TEST_F(EventIntakeTest, HandsOverEverythingPendingAsOneBatchInOrder) {
    busyBothPools();
    Diary& seen = diary;
    file("a")->instance = std::make_shared<DiaryPlugin>(seen, "a");
    for (const char* text : {R"({"to":["a"],"n":1})", R"({"to":["a"],"n":2})"})
        sEventCallback(text);
    EXPECT_EQ(fakes::taskCount(), 0U);
    const auto pending = s_transform_message_queue;
    fakes::setAvailable("eventCallBack", 1);
    sEventCallback(R"({"to":["a"],"n":3})");
    EXPECT_EQ(fakes::taskCount(), 1U);
    EXPECT_NE(s_transform_message_queue, pending);
    EXPECT_THAT(*s_transform_message_queue, IsEmpty());
    fakes::runTasks();
    EXPECT_THAT(seen.entries, ElementsAre(R"(a:onMessage {"to":["a"],"n":1})",
                                          R"(a:onMessage {"to":["a"],"n":2})",
                                          R"(a:onMessage {"to":["a"],"n":3})"));
    EXPECT_EQ(pending.use_count(), 1); // released with its task
}

TEST_F(EventIntakeTest, HandsOverEverythingPendingOfTheRapidPathToo) {
    busyBothPools();
    file("a")->instance = std::make_shared<DiaryPlugin>(diary, "a");
    const std::string first = R"({"to":["a"],"api":"pushTelemetry","n":1})";
    const std::string second = R"({"to":["a"],"api":"smaReceivePilotData","n":2})";
    sEventCallback(first);
    fakes::setAvailable("rapidEvent", 1);
    sEventCallback(second);
    EXPECT_EQ(fakes::taskCount(), 1U);
    EXPECT_THAT(*s_rapid_transform_message_queue, IsEmpty());
    fakes::runTasks();
    EXPECT_THAT(diary.entries, ElementsAre("a:onMessage " + first, "a:onMessage " + second));
}

TEST_F(EventIntakeTest, SubmitsAnEventForNobodyLikeAnyOther) {
    sEventCallback(R"({"to":[]})");
    sEventCallback(R"({"to":[null]})");
    EXPECT_EQ(fakes::taskCount(), 2U);
    fakes::runTasks();
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(EventIntakeTest, EmptiesTheRapidQueueWithTheTwentySecondPendingEvent) {
    busyBothPools();
    for (int i = 0; i < 21; ++i)
        sEventCallback(kRapid);
    EXPECT_THAT(*s_rapid_transform_message_queue, SizeIs(21));
    EXPECT_FALSE(s_is_discard_message);
    EXPECT_THAT(log.messages(), IsEmpty());
    const std::string last = R"({"to":["a"],"api":"pushTelemetry","last":true})";
    sEventCallback(last);
    EXPECT_THAT(texts(*s_rapid_transform_message_queue), ElementsAre(last));
    EXPECT_TRUE(s_is_discard_message);
    EXPECT_THAT(lines(log), ElementsAre(std::tuple(kInformation,
                                                   "sEventCallback recive service's msg cnt: 0")));
    expectSource(log);
}

TEST_F(EventIntakeTest, EmptiesTheNormalQueueSilentlyWithTheFiftySecondPendingEvent) {
    busyBothPools();
    for (int i = 0; i < 51; ++i)
        sEventCallback(kNormal);
    EXPECT_THAT(*s_transform_message_queue, SizeIs(51));
    EXPECT_FALSE(s_is_discard_message);
    const std::string last = R"({"to":["a"],"last":true})";
    sEventCallback(last);
    EXPECT_THAT(texts(*s_transform_message_queue), ElementsAre(last));
    EXPECT_TRUE(s_is_discard_message);
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(EventIntakeTest, AnOverflowSetsTheFlagBeforeItDropsTheQueueAndLogsAfterwards) {
    busyBothPools();
    std::vector<std::string> order;
    const auto telltale = [&] {
        return std::shared_ptr<Message>(new Message, [&](const Message* dropped) {
            order.emplace_back(s_is_discard_message ? "dropped, flag set" : "dropped");
            delete dropped;
        });
    };
    const LogHook hook([&](const Poco::Message&) { order.emplace_back("logged"); });
    for (auto [queue, limit, text] : {std::tuple(s_rapid_transform_message_queue, 20, kRapid),
                                      std::tuple(s_transform_message_queue, 50, kNormal)}) {
        queue->push_back(telltale());
        for (int i = 0; i < limit; ++i)
            queue->push_back(std::make_shared<Message>());
        s_is_discard_message = false;
        sEventCallback(text);
    }
    EXPECT_THAT(order, ElementsAre("dropped, flag set", "logged", "dropped, flag set"));
}

TEST_F(EventIntakeTest, OverflowsAlsoWhenAThreadHasBecomeFree) {
    busyBothPools();
    for (int i = 0; i < 51; ++i) {
        sEventCallback(kNormal);
        if (i < 21)
            sEventCallback(kRapid);
    }
    fakes::setAvailable("eventCallBack", 1);
    fakes::setAvailable("rapidEvent", 1);
    const auto normal = s_transform_message_queue;
    const auto rapid = s_rapid_transform_message_queue;
    sEventCallback(R"({"to":["a"],"n":52})");
    sEventCallback(R"({"to":["a"],"api":"pushTelemetry","n":22})");
    EXPECT_TRUE(s_is_discard_message);
    EXPECT_THAT(texts(*normal), ElementsAre(R"({"to":["a"],"n":52})"));
    EXPECT_THAT(texts(*rapid), ElementsAre(R"({"to":["a"],"api":"pushTelemetry","n":22})"));
    EXPECT_EQ(fakes::taskCount(), 2U);
}

TEST_F(EventIntakeTest, AnOverflowOfOnePathStopsTheNextBatchOfTheOther) {
    fakes::setAvailable("rapidEvent", 0);
    const auto object = std::make_shared<DiaryPlugin>(diary, "a");
    file("a")->instance = object;
    for (int i = 0; i < 22; ++i)
        sEventCallback(kRapid);
    sEventCallback(kNormal);
    sEventCallback(kNormal);
    ASSERT_EQ(fakes::taskCount(), 2U);
    fakes::runTasks();
    EXPECT_EQ(log.count("recieved service's message discard!"), 1);
    EXPECT_THAT(diary.entries, SizeIs(1));
    EXPECT_FALSE(s_is_discard_message);
}

TEST_F(EventIntakeTest, AnOverflowOfTheNormalPathStopsARapidBatch) {
    fakes::setAvailable("eventCallBack", 0);
    file("a")->instance = std::make_shared<DiaryPlugin>(diary, "a");
    for (int i = 0; i < 52; ++i)
        sEventCallback(kNormal);
    sEventCallback(kRapid);
    fakes::runTasks();
    EXPECT_EQ(log.count("recieved service's message discard!"), 1);
    EXPECT_THAT(diary.entries, IsEmpty());
}

TEST_F(EventIntakeTest, DropsABatchThatThePoolRefuses) {
    fakes::failStart(std::make_exception_ptr(Poco::NoThreadAvailableException("all busy")));
    sEventCallback(kNormal);
    sEventCallback(kRapid);
    EXPECT_THAT(*s_transform_message_queue, IsEmpty());
    EXPECT_THAT(*s_rapid_transform_message_queue, IsEmpty());
    const std::string what = Poco::NoThreadAvailableException().what();
    EXPECT_THAT(lines(log),
                ElementsAre(std::tuple(kInformation, what), std::tuple(kInformation, what)));
    fakes::failStart(nullptr);
    sEventCallback(kNormal);
    EXPECT_EQ(fakes::taskCount(), 1U);
    expectSource(log);
}

TEST_F(EventIntakeTest, SwapsAFreshQueueInBeforeTheHandOver) {
    const auto normal = s_transform_message_queue;
    const auto rapid = s_rapid_transform_message_queue;
    std::vector<bool> swapped;
    fakes::onStart([&] { // holds the queue's mutex, being called by start
        const bool isNormal = swapped.empty();
        const auto& queue = isNormal ? s_transform_message_queue : s_rapid_transform_message_queue;
        swapped.push_back(queue != (isNormal ? normal : rapid) && queue->empty());
    });
    sEventCallback(kNormal);
    sEventCallback(kRapid);
    EXPECT_THAT(swapped, ElementsAre(true, true));
    EXPECT_THAT(*normal, SizeIs(1));
    EXPECT_THAT(*rapid, SizeIs(1));
}

TEST_F(EventIntakeTest, LogsAPoolsStandardFailureAtInformation) {
    fakes::failStart(std::make_exception_ptr(std::runtime_error("no %d memory")));
    sEventCallback(kNormal);
    sEventCallback(kRapid);
    EXPECT_THAT(lines(log), ElementsAre(std::tuple(kInformation, "no %d memory"),
                                        std::tuple(kInformation, "no %d memory")));
}

TEST_F(EventIntakeTest, LetsOutExceptionsOfOtherTypesAndFreesTheQueue) {
    fakes::failStart(std::make_exception_ptr(5));
    EXPECT_THROW(sEventCallback(kNormal), int);
    EXPECT_THROW(sEventCallback(kRapid), int);
    EXPECT_TRUE(isFree(s_transform_message_mutex) && isFree(s_rapid_transform_message_mutex));
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(EventIntakeTest, DoesTheSameWhenTheLogTakesNothing) {
    cachedLogger().setLevel(Poco::Message::PRIO_FATAL);
    fakes::failPools(std::make_exception_ptr(std::runtime_error("no memory")));
    sEventCallback(kNormal);
    fakes::failPools(nullptr);
    sEventCallback("not JSON");
    fakes::failStart(std::make_exception_ptr(std::runtime_error("no thread")));
    sEventCallback(kNormal);
    sEventCallback(kRapid);
    EXPECT_THAT(*s_transform_message_queue, IsEmpty());
    EXPECT_THAT(*s_rapid_transform_message_queue, IsEmpty());
    busyBothPools();
    for (int i = 0; i < 22; ++i)
        sEventCallback(kRapid);
    EXPECT_THAT(*s_rapid_transform_message_queue, SizeIs(1));
    EXPECT_TRUE(s_is_discard_message);
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(EventIntakeTest, NeverTouchesTheIdleSlot) {
    const auto slot = s_transform_message_cache;
    sEventCallback(kNormal);
    sEventCallback(kRapid);
    busyBothPools();
    for (int i = 0; i < 52; ++i) {
        sEventCallback(kNormal);
        sEventCallback(kRapid);
    }
    fakes::runTasks();
    EXPECT_EQ(s_transform_message_cache, slot);
    EXPECT_THAT(*slot, IsEmpty());
}

TEST_F(EventIntakeTest, NeedsNoRegistryLock) {
    std::unique_lock<std::mutex> lock(s_plugin_mutex);
    std::thread other([] {
        sEventCallback(kNormal);
        sEventCallback(kRapid);
    });
    EXPECT_TRUE(waitUntil([] { return fakes::taskCount() == 2; }));
    lock.unlock();
    other.join();
}

TEST_F(EventIntakeTest, HoldsTheQueuesMutexAcrossTheHandOver) {
    std::vector<bool> normalFree;
    std::vector<bool> rapidFree;
    fakes::onStart([&] {
        normalFree.push_back(isFree(s_transform_message_mutex));
        rapidFree.push_back(isFree(s_rapid_transform_message_mutex));
    });
    sEventCallback(kNormal);
    sEventCallback(kRapid);
    EXPECT_THAT(normalFree, ElementsAre(false, true));
    EXPECT_THAT(rapidFree, ElementsAre(true, false));
    EXPECT_TRUE(isFree(s_transform_message_mutex) && isFree(s_rapid_transform_message_mutex));
}

TEST_F(EventIntakeTest, PublishingLeavesTheTextUntouched) {
    std::string text = R"({"to":["a"],"x":"published"})";
    const std::string before = text;
    fakes::setAvailable("eventCallBack", 0);
    publishMsgToAllPlugin(text);
    EXPECT_EQ(text, before);
    EXPECT_THAT(texts(*s_transform_message_queue), ElementsAre(before));
}

TEST_F(EventIntakeTest, PublishingTakesTheRouteOfAnyEvent) {
    std::string rapid = kRapid;
    publishMsgToAllPlugin(rapid);
    EXPECT_EQ(fakes::tasks().at(0).name, "rapidEventCallBack");
    std::string noEvent = "not JSON";
    publishMsgToAllPlugin(noEvent);
    EXPECT_EQ(noEvent, "not JSON");
    EXPECT_THAT(log.texts(kCritical), SizeIs(1));
    EXPECT_EQ(fakes::taskCount(), 1U);
}

TEST_F(EventIntakeTest, TakesEventsFromManyThreads) {
    fakes::setAvailable("eventCallBack", 0);
    fakes::setAvailable("rapidEvent", 0);
    sEventCallback("{}"); // makes the normal pool, which simultaneous first events must not
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([] {
            for (int n = 0; n < 5; ++n) {
                sEventCallback(kNormal);
                sEventCallback(kRapid);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_THAT(*s_transform_message_queue, SizeIs(20));
    EXPECT_THAT(*s_rapid_transform_message_queue, SizeIs(20));
}

using EventIntakeDeathTest = PluginManagerTest;

TEST_F(EventIntakeDeathTest, ARapidEventBeforeInitThreadPoolEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(sEventCallback(kRapid), "");
}

// ---- delivery

class DeliveryTest : public PluginManagerTest {
protected:
    std::shared_ptr<DiaryPlugin> activate(const std::string& guid) {
        auto instance = std::make_shared<DiaryPlugin>(diary, guid);
        file(guid)->instance = instance;
        return instance;
    }

    static std::shared_ptr<Message> message(const std::string& text) {
        auto made = std::make_shared<Message>();
        made->text = text;
        made->to =
            Poco::JSON::Parser().parse(text).extract<Poco::JSON::Object::Ptr>()->getArray("to");
        return made;
    }

    static std::shared_ptr<MessageList> batch(const std::vector<std::string>& texts) {
        auto made = std::make_shared<MessageList>();
        for (const std::string& text : texts)
            made->push_back(message(text));
        return made;
    }

    static void deliver(const std::shared_ptr<MessageList>& list) {
        bool enabled = true;
        sMessageTransformer(list, enabled);
    }

    static std::string failure(const std::string& reason) {
        return "exception in event callback, error: " + reason + ", message: [ERRFMT]";
    }

    const LogCapture log;
};

TEST_F(DeliveryTest, ReachesEveryRecipientInOrderUnderTheLock) {
    const auto a = activate("a");
    const auto b = activate("b");
    deliver(batch({R"({"to":["b","a"]})", R"({"to":["a"]})"}));
    EXPECT_THAT(diary.entries,
                ElementsAre(R"(b:onMessage {"to":["b","a"]})", R"(a:onMessage {"to":["b","a"]})",
                            R"(a:onMessage {"to":["a"]})"));
    EXPECT_THAT(a->registryWasFree, ElementsAre(false, false));
    EXPECT_THAT(log.messages(), IsEmpty());
    EXPECT_TRUE(registryIsFree());
}

TEST_F(DeliveryTest, DeliversTwiceToAGuidThatIsNamedTwice) {
    activate("a");
    deliver(batch({R"({"to":["a","a"]})"}));
    EXPECT_THAT(diary.entries, SizeIs(2));
}

TEST_F(DeliveryTest, DeliversNothingForNoRecipients) {
    activate("a");
    const auto list = batch({R"({"to":[]})", R"({"to":[null,null]})"});
    list->push_back(std::make_shared<Message>()); // without any array
    deliver(list);
    EXPECT_THAT(diary.entries, IsEmpty());
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(DeliveryTest, ReachesARecordThatIsFiledWithoutAGuid) {
    activate("");
    deliver(batch({R"({"to":[""]})"}));
    EXPECT_THAT(diary.entries, ElementsAre(R"(:onMessage {"to":[""]})"));
}

TEST_F(DeliveryTest, PassesOverAbsentRecipientsSilently) {
    file("inactive");
    s_plugins_map["null"] = nullptr;
    activate("moved");
    s_plugins_map.at("moved")->guid = "elsewhere";
    activate("a");
    deliver(batch({R"({"to":["unknown","inactive","null","moved",null,"","a"]})"}));
    EXPECT_THAT(diary.entries, SizeIs(1));
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(DeliveryTest, LogsARecipientThatIsNoStringAndGoesOn) {
    activate("A");
    activate("B");
    const std::string text = R"({"to":["A",5,"B"]})";
    deliver(batch({text}));
    EXPECT_THAT(diary.entries, ElementsAre("A:onMessage " + text, "B:onMessage " + text));
    const auto errors = log.texts(kError);
    ASSERT_THAT(errors, SizeIs(1));
    EXPECT_THAT(errors[0], testing::StartsWith("exception in event callback, error: "
                                               "Bad cast exception: Can not convert "));
    EXPECT_THAT(errors[0], testing::EndsWith(", message: [ERRFMT]"));
    expectSource(log);
}

TEST_F(DeliveryTest, NamesTheTypeOfARecipientThatIsNoString) {
    deliver(batch({R"({"to":[true,{},[],1.5]})"}));
    const auto expected = [](const std::type_info& type) {
        return std::tuple(kError, failure(std::string("Bad cast exception: Can not convert ") +
                                          type.name() + " to " + typeid(std::string).name() + "."));
    };
    EXPECT_THAT(lines(log),
                ElementsAre(expected(typeid(bool)), expected(typeid(Poco::JSON::Object::Ptr)),
                            expected(typeid(Poco::JSON::Array::Ptr)), expected(typeid(double))));
}

TEST_F(DeliveryTest, NeedsNoLockForARecipientThatIsNoString) {
    std::unique_lock<std::mutex> lock(s_plugin_mutex);
    std::thread other([&] { deliver(batch({R"({"to":[5,null]})", R"({"to":[]})"})); });
    EXPECT_TRUE(waitUntil([&] { return log.count("exception in event callback") == 1; }));
    lock.unlock();
    other.join();
}

TEST_F(DeliveryTest, CostsOnlyTheRecipientThatThrows) {
    const auto a = activate("a");
    activate("b");
    a->handler = [](const std::string& text) {
        if (text.find("poco") != std::string::npos)
            throw Poco::DataException("refused");
        throw std::runtime_error("no %s today");
    };
    deliver(batch({R"({"to":["a","b"]})", R"({"to":["a","b"],"kind":"poco"})"}));
    EXPECT_THAT(diary.entries, SizeIs(4));
    EXPECT_THAT(lines(log), ElementsAre(std::tuple(kError, failure("no %s today")),
                                        std::tuple(kError, failure("Data error: refused"))));
    EXPECT_TRUE(registryIsFree());
    expectSource(log);
}

TEST_F(DeliveryTest, FreesTheLockBeforeItLogsAFailure) {
    std::vector<bool> free;
    const LogHook hook([&](const Poco::Message&) { free.push_back(registryIsFree()); });
    const auto a = activate("a");
    a->handler = [](const std::string& text) {
        if (text.find("poco") != std::string::npos)
            throw Poco::DataException("refused");
        throw std::runtime_error("refused");
    };
    deliver(batch({R"({"to":["a"]})", R"({"to":["a"],"kind":"poco"})"}));
    EXPECT_THAT(free, ElementsAre(true, true));
}

TEST_F(DeliveryTest, HoldsTheLockForOneRecipientAtATime) {
    activate("a");
    activate("b");
    // The line about the number comes between the two deliveries.
    const LogHook hook([](const Poco::Message&) {
        ASSERT_TRUE(registryIsFree());
        unregisterPlugin("b");
    });
    deliver(batch({R"({"to":["a",5,"b"]})"}));
    EXPECT_THAT(diary.entries, ElementsAre(R"(a:onMessage {"to":["a",5,"b"]})", "b:destroyed"));
}

TEST_F(DeliveryTest, GoesOnWithTheNextMessageWhenAFailureCannotBeLogged) {
    activate("a");
    int refused = 0;
    const LogHook hook([&](const Poco::Message& line) {
        if (line.getText().find("Can not convert") == std::string::npos)
            return;
        if (++refused == 1)
            throw Poco::DataException("disk full");
        throw std::runtime_error("no disk");
    });
    deliver(batch({R"({"to":[5,"a"],"n":1})", R"({"to":[5,"a"],"n":2})", R"({"to":["a"],"n":3})"}));
    EXPECT_THAT(lines(log), ElementsAre(std::tuple(kError, failure("Data error: disk full")),
                                        std::tuple(kError, failure("no disk"))));
    EXPECT_THAT(diary.entries, ElementsAre(R"(a:onMessage {"to":["a"],"n":3})"));
    expectSource(log);
}

TEST_F(DeliveryTest, LetsOutExceptionsOfOtherTypesAndFreesTheLock) {
    const auto a = activate("a");
    a->handler = [](const std::string&) { throw 5; };
    EXPECT_THROW(deliver(batch({R"({"to":["a"]})", R"({"to":["a"]})"})), int);
    EXPECT_THAT(diary.entries, SizeIs(1));
    EXPECT_THAT(log.messages(), IsEmpty());
    EXPECT_TRUE(registryIsFree());
}

TEST_F(DeliveryTest, GivesUpOneBatchAfterAnOverflow) {
    activate("a");
    s_is_discard_message = true;
    deliver(batch({R"({"to":["a"]})", R"({"to":["a"]})"}));
    EXPECT_THAT(diary.entries, IsEmpty());
    EXPECT_FALSE(s_is_discard_message);
    EXPECT_THAT(lines(log),
                ElementsAre(std::tuple(kInformation, "recieved service's message discard!")));
    deliver(batch({R"({"to":["a"]})"}));
    EXPECT_THAT(diary.entries, SizeIs(1));
    expectSource(log);
}

TEST_F(DeliveryTest, ForgetsTheOverflowBeforeItLogsThatItGivesUp) {
    activate("a");
    s_is_discard_message = true;
    const LogHook hook([](const Poco::Message& line) {
        if (line.getPriority() == kInformation)
            throw Poco::DataException("disk full");
    });
    deliver(batch({R"({"to":["a"],"n":1})", R"({"to":["a"],"n":2})"}));
    EXPECT_FALSE(s_is_discard_message);
    EXPECT_THAT(lines(log), ElementsAre(std::tuple(kError, failure("Data error: disk full"))));
    EXPECT_THAT(diary.entries, ElementsAre(R"(a:onMessage {"to":["a"],"n":2})"));
}

TEST_F(DeliveryTest, GivesUpAlsoAtAMessageForNobody) {
    const auto list = std::make_shared<MessageList>();
    list->push_back(std::make_shared<Message>());
    s_is_discard_message = true;
    deliver(list);
    EXPECT_FALSE(s_is_discard_message);
    EXPECT_EQ(log.count("recieved service's message discard!"), 1);
}

TEST_F(DeliveryTest, ServesEveryRecipientOfAMessageThatItHasBegun) {
    const auto a = activate("a");
    activate("b");
    a->handler = [](const std::string&) { s_is_discard_message = true; };
    deliver(batch({R"({"to":["a","b"]})", R"({"to":["b"]})"}));
    EXPECT_THAT(diary.entries,
                ElementsAre(R"(a:onMessage {"to":["a","b"]})", R"(b:onMessage {"to":["a","b"]})"));
}

TEST_F(DeliveryTest, DoesTheSameWhenTheLogTakesNothing) {
    cachedLogger().setLevel(Poco::Message::PRIO_FATAL);
    const auto a = activate("a");
    activate("b");
    a->handler = [](const std::string&) { throw std::runtime_error("refused"); };
    deliver(batch({R"({"to":["a",5,"b"]})"}));
    EXPECT_THAT(diary.entries, SizeIs(2));
    s_is_discard_message = true;
    deliver(batch({R"({"to":["b"]})"}));
    EXPECT_THAT(diary.entries, SizeIs(2));
    EXPECT_FALSE(s_is_discard_message);
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(DeliveryTest, GivesUpTheRestOfABatchThatARecipientOverflows) {
    const auto a = activate("a");
    a->handler = [](const std::string&) { s_is_discard_message = true; };
    deliver(batch({R"({"to":["a"]})", R"({"to":["a"]})", R"({"to":["a"]})"}));
    EXPECT_THAT(diary.entries, SizeIs(1));
    EXPECT_EQ(log.count("discard"), 1);
}

TEST_F(DeliveryTest, DoesNothingWithoutABatchOrWhenDisabled) {
    activate("a");
    s_is_discard_message = true;
    bool enabled = true;
    sMessageTransformer(nullptr, enabled);
    deliver(std::make_shared<MessageList>());
    enabled = false;
    sMessageTransformer(batch({R"({"to":["a"]})"}), enabled);
    EXPECT_THAT(diary.entries, IsEmpty());
    EXPECT_TRUE(s_is_discard_message);
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(DeliveryTest, AsksOnlyBeforeTheBatchWhetherItIsEnabled) {
    bool enabled = true;
    const auto a = activate("a");
    a->handler = [&](const std::string&) { enabled = false; };
    sMessageTransformer(batch({R"({"to":["a"]})", R"({"to":["a"]})"}), enabled);
    EXPECT_THAT(diary.entries, SizeIs(2));
}

TEST_F(DeliveryTest, GivesEachRecipientItsOwnCopyOfTheText) {
    struct Spoiler : DiaryPlugin {
        using DiaryPlugin::DiaryPlugin;
        void onMessage(std::string text) override {
            note(text.substr(0, 1));
            text.clear();
        }
    };
    file("a")->instance = std::make_shared<Spoiler>(diary, "a");
    deliver(batch({R"({"to":["a","a"]})"}));
    EXPECT_THAT(diary.entries, ElementsAre("a:{", "a:{"));
}

TEST_F(DeliveryTest, LetsARecipientRaiseEventsWhileItReceives) {
    InitThreadPool();
    const auto a = activate("a");
    activate("b");
    a->handler = [](const std::string&) {
        sEventCallback(R"({"to":["b"]})");
        sEventCallback(R"({"to":["b"],"api":"pushTelemetry"})");
    };
    deliver(batch({R"({"to":["a"]})"}));
    ASSERT_EQ(fakes::taskCount(), 2U);
    fakes::runTasks();
    EXPECT_THAT(diary.entries, SizeIs(3));
}

TEST_F(DeliveryTest, LetsTheRegistryChangeBetweenTwoRecipients) {
    std::atomic<bool> changed{false};
    const auto a = activate("a");
    activate("b");
    // The lock is held during the delivery to a, so the other thread can come in only after it.
    std::thread other;
    a->handler = [&](const std::string&) {
        if (!other.joinable())
            other = std::thread([&] {
                unregisterPlugin("b");
                changed = true;
            });
        EXPECT_FALSE(changed);
    };
    deliver(batch({R"({"to":["a"]})"}));
    EXPECT_TRUE(waitUntil([&] { return changed.load(); }));
    deliver(batch({R"({"to":["b"]})"}));
    other.join();
    EXPECT_THAT(diary.entries, ElementsAre(R"(a:onMessage {"to":["a"]})", "b:destroyed"));
}

} // namespace
} // namespace ktr
