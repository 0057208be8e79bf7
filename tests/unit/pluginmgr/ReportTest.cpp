#include "ktr/MSManager.h"
#include "ktr/common/NotificationCenter.h"

#include "AllocationLog.h"
#include "support/Locks.h"
#include "support/LogCapture.h"
#include "support/LogHook.h"
#include "support/fakes/FakeCommon.h"
#include "support/fakes/FakeHttp.h"

#include <Poco/AutoPtr.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <locale>
#include <stdexcept>
#include <type_traits>

namespace {

/// How often the typed centre was asked for.
int centreCalls = 0;

} // namespace

// The linker leads calls of NotificationCenter::defaultCenter() here.
ktr::NotificationCenter& wrappedCentre() asm("__wrap__ZN3ktr18NotificationCenter13defaultCenterEv");
ktr::NotificationCenter& realCentre() asm("__real__ZN3ktr18NotificationCenter13defaultCenterEv");

ktr::NotificationCenter& wrappedCentre() {
    ++centreCalls;
    return realCentre();
}

namespace ktr {
namespace {

using namespace test;
using Parameters = std::unordered_map<std::string, std::string>;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char* kUri = "/index/api/all/report?ip=10.0.0.1";
constexpr const char* kSuccess = R"({"code":0,"msg":"success"})";

std::string refusal(const std::string& message) {
    return R"({"code":-1,"msg":")" + message + "\"}";
}

class ReportTest : public testing::Test {
protected:
    ReportTest() {
        fakes::reset();
        NotificationCenter::defaultCenter().addObserver<MSNotification>(
            "report test", [this](MSNotification* notification) {
                seen.emplace_back(notification, true);
                if (onNotification)
                    onNotification();
            });
    }
    ~ReportTest() override {
        fakes::reset();
        NotificationCenter::defaultCenter().removeObserver("report test");
        for (Poco::AutoPtr<MSNotification>& notification : seen)
            notification->release(); // the reference that a delivery keeps
    }

    static Parameters complete() {
        return {{"ip", "10.0.0.1"}, {"port", "8080"}, {"type", "4"}, {"guid", "g"}};
    }

    static Parameters with(const std::string& name, const std::string& value) {
        Parameters params = complete();
        params[name] = value;
        return params;
    }

    static Parameters without(const std::string& name) {
        Parameters params = complete();
        params.erase(name);
        return params;
    }

    /// Reports and tells the answer.
    std::string report(const Parameters& params) {
        fakes::FakeResponse response;
        fakes::FakeRequest request(kUri, response);
        manager.reportProcess(request, response, params);
        EXPECT_EQ(response.sends, 1);
        EXPECT_EQ(response.getStatus(), Poco::Net::HTTPResponse::HTTP_OK);
        EXPECT_EQ(response.getContentType(), Poco::Net::HTTPMessage::UNKNOWN_CONTENT_TYPE);
        return response.body();
    }

    void expectSource() const {
        for (const Poco::Message& message : log.messages()) {
            EXPECT_STREQ(message.getSourceFile(), "src/pluginmgr/MSManager") << message.getText();
            EXPECT_GT(message.getSourceLine(), 0) << message.getText();
        }
    }

    MSManager manager;
    std::vector<Poco::AutoPtr<MSNotification>> seen;
    std::function<void()> onNotification;
    const LogCapture log;
};

TEST(MSNotificationTest, HasItsDefaultsAndKeepsWhatItIsGiven) {
    Poco::AutoPtr<MSNotification> notification(new MSNotification);
    EXPECT_EQ(notification->name(), "MSNotification");
    EXPECT_EQ(notification->getRpcIp(), "127.0.0.1");
    EXPECT_EQ(notification->getRpcPort(), 0);
    EXPECT_EQ(notification->getMSGuid(), "");
    EXPECT_EQ(notification->getMsType(), 0);
    notification->setRpcIp("::1");
    notification->setRpcPort(65535);
    notification->setMSGuid("guid");
    notification->setMsType(-3);
    EXPECT_EQ(notification->getRpcIp(), "::1");
    EXPECT_EQ(notification->getRpcPort(), 65535);
    EXPECT_EQ(notification->getMSGuid(), "guid");
    EXPECT_EQ(notification->getMsType(), -3);
}

TEST(MSNotificationTest, TellsItsNameAsANotification) {
    static_assert(std::is_base_of_v<Poco::Notification, MSNotification>);
    const Poco::AutoPtr<Poco::Notification> notification(new MSNotification);
    EXPECT_EQ(notification->name(), "MSNotification");
}

TEST_F(ReportTest, IsStoredAnsweredAndPostedFromTheDefaultPool) {
    EXPECT_EQ(report(complete()), kSuccess);
    EXPECT_THAT(seen, IsEmpty()); // the answer does not wait for the job
    const auto property = manager.getMSProperty("g");
    ASSERT_FALSE(property.isNull());
    EXPECT_EQ(property->ip, "10.0.0.1");
    EXPECT_EQ(property->port, 8080);
    const auto tasks = fakes::tasks();
    ASSERT_THAT(tasks, SizeIs(1));
    EXPECT_EQ(tasks[0].pool, "default");
    EXPECT_FALSE(tasks[0].name.has_value());
    fakes::runTasks();
    ASSERT_THAT(seen, SizeIs(1));
    EXPECT_EQ(seen[0]->getRpcIp(), "10.0.0.1");
    EXPECT_EQ(seen[0]->getRpcPort(), 8080);
    EXPECT_EQ(seen[0]->getMsType(), 4);
    EXPECT_EQ(seen[0]->getMSGuid(), "g");
    const auto lines = log.messages();
    ASSERT_THAT(lines, SizeIs(1));
    EXPECT_EQ(lines[0].getText(), std::string("report recieved: ") + kUri);
    EXPECT_EQ(lines[0].getPriority(), Poco::Message::PRIO_INFORMATION);
    expectSource();
}

TEST_F(ReportTest, IsStoredBeforeTheJobIsHandedOverAndAnsweredAfterwards) {
    std::vector<std::string> order;
    fakes::onStart([&] {
        order.emplace_back("start");
        EXPECT_TRUE(isFree(manager.propertyMutex));
        EXPECT_EQ(manager.properties.count("g"), 1U);
    });
    fakes::FakeResponse response;
    response.onSend = [&] {
        order.emplace_back("send");
        EXPECT_TRUE(isFree(manager.propertyMutex));
    };
    fakes::FakeRequest request(kUri, response);
    manager.reportProcess(request, response, complete());
    EXPECT_THAT(order, ElementsAre("start", "send"));
}

TEST_F(ReportTest, NamesTheFirstParameterThatIsMissing) {
    EXPECT_EQ(report({}), refusal("parameter ip must specified"));
    EXPECT_EQ(report(without("ip")), refusal("parameter ip must specified"));
    EXPECT_EQ(report(without("port")), refusal("parameter port must specified"));
    EXPECT_EQ(report(without("type")), refusal("parameter type must specified"));
    EXPECT_EQ(report(without("guid")), refusal("parameter guid must specified"));
    EXPECT_EQ(report({{"ip", "x"}, {"IP", "x"}}), refusal("parameter port must specified"));
    EXPECT_EQ(report({{"guid", "x"}, {"ip", "x"}, {"port", "bad"}}),
              refusal("parameter type must specified"));
    Parameters params = without("guid");
    params.erase("type");
    EXPECT_EQ(report(params), refusal("parameter type must specified"));
    params.erase("port");
    EXPECT_EQ(report(params), refusal("parameter port must specified"));
    EXPECT_EQ(log.messages().size(), 9U);
    EXPECT_EQ(log.count("report recieved: "), 9);
    EXPECT_THAT(manager.properties, IsEmpty());
    EXPECT_EQ(fakes::taskCount(), 0U);
}

TEST_F(ReportTest, RefusesAPortThatIsNoSixteenBitNumber) {
    for (const char* port : {"70000", "65536", "abc", "", " ", "99999999999999999999"}) {
        EXPECT_EQ(report(with("port", port)), refusal("port number invalid")) << port;
        EXPECT_EQ(log.texts(Poco::Message::PRIO_ERROR).back(),
                  std::string("port number invalid: ") + port);
    }
    EXPECT_THAT(manager.properties, IsEmpty());
    EXPECT_EQ(fakes::taskCount(), 0U);
    expectSource();
}

TEST_F(ReportTest, RefusesATypeThatIsNoThirtyTwoBitNumber) {
    for (const char* type : {"2147483648", "-2147483649", "x1", ""}) {
        EXPECT_EQ(report(with("type", type)), refusal("type number invalid")) << type;
        EXPECT_EQ(log.texts(Poco::Message::PRIO_ERROR).back(),
                  std::string("type number invalid: ") + type);
    }
    EXPECT_THAT(manager.properties, IsEmpty());
    EXPECT_EQ(fakes::taskCount(), 0U);
    expectSource();
}

TEST_F(ReportTest, RefusesThePortBeforeTheType) {
    Parameters params = with("port", "abc");
    params["type"] = "abc";
    EXPECT_EQ(report(params), refusal("port number invalid"));
    EXPECT_THAT(log.texts(Poco::Message::PRIO_ERROR), SizeIs(1));
}

TEST_F(ReportTest, ReadsNumbersAsAnInputStreamDoes) {
    const std::vector<std::pair<std::string, unsigned short>> ports = {
        {"8080abc", 8080}, {"  8081", 8081}, {"0", 0},        {"65535", 65535},
        {"080", 80},       {"8.5", 8},       {"+9000", 9000}, {"0x1F90", 0}};
    for (const auto& [text, port] : ports) {
        EXPECT_EQ(report(with("port", text)), kSuccess) << text;
        EXPECT_EQ(manager.getMSProperty("g")->port, port) << text;
    }
    for (const char* type : {"-3", "2147483647", "-2147483648", " 5 "})
        EXPECT_EQ(report(with("type", type)), kSuccess) << type;
    fakes::runTasks();
    ASSERT_THAT(seen, SizeIs(12));
    EXPECT_EQ(seen[8]->getMsType(), -3);
    EXPECT_EQ(seen[10]->getMsType(), -2147483647 - 1);
}

TEST_F(ReportTest, TakesANegativePortModuloSixteenBits) {
    EXPECT_EQ(report(with("port", "-1")), kSuccess);
    EXPECT_EQ(manager.getMSProperty("g")->port, 65535);
    EXPECT_EQ(report(with("port", "-65535")), kSuccess);
    EXPECT_EQ(manager.getMSProperty("g")->port, 1);
    EXPECT_EQ(report(with("port", "-65536")), refusal("port number invalid"));
    EXPECT_EQ(manager.getMSProperty("g")->port, 1);
}

TEST_F(ReportTest, ReadsNumbersTheSameInEveryLocale) {
    struct Grouping : std::numpunct<char> {
        char do_thousands_sep() const override { return ','; }
        std::string do_grouping() const override { return "\3"; }
    };
    const std::locale former = std::locale::global(std::locale(std::locale(), new Grouping));
    EXPECT_EQ(report(with("port", "8,080")), kSuccess);
    std::locale::global(former);
    EXPECT_EQ(manager.getMSProperty("g")->port, 8);
}

TEST_F(ReportTest, LeavesAKnownRecordAsItIsWhenANumberIsInvalid) {
    report(complete());
    Parameters params = with("port", "bad");
    params["ip"] = "10.0.0.9";
    report(params);
    params["port"] = "9999";
    params["type"] = "bad";
    report(params);
    EXPECT_EQ(manager.getMSProperty("g")->ip, "10.0.0.1");
    EXPECT_EQ(manager.getMSProperty("g")->port, 8080);
    EXPECT_EQ(fakes::taskCount(), 1U);
    EXPECT_THAT(log.texts(Poco::Message::PRIO_ERROR),
                ElementsAre("port number invalid: bad", "type number invalid: bad"));
    EXPECT_THAT(log.messages(), SizeIs(5)); // those two, and one for each report
}

TEST_F(ReportTest, LogsTheReportBeforeItLooksAtAnything) {
    const LogHook hook([](const Poco::Message&) { throw std::runtime_error("log full"); });
    fakes::FakeResponse response;
    fakes::FakeRequest request(kUri, response);
    EXPECT_THROW(manager.reportProcess(request, response, {}), std::runtime_error);
    EXPECT_EQ(response.sends, 0);
}

TEST_F(ReportTest, AnswersAlsoWhereTheLevelHidesItsLines) {
    cachedLogger().setLevel(Poco::Message::PRIO_NOTICE);
    EXPECT_EQ(report(complete()), kSuccess);
    cachedLogger().setLevel(Poco::Message::PRIO_CRITICAL);
    EXPECT_EQ(report(with("port", "bad")), refusal("port number invalid"));
    EXPECT_EQ(report(with("type", "bad")), refusal("type number invalid"));
    EXPECT_TRUE(manager.getMSProperty("never").isNull());
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(ReportTest, AcceptsWhateverTextIsTheAddress) {
    EXPECT_EQ(report(with("ip", "no address, 999.1")), kSuccess);
    EXPECT_EQ(manager.getMSProperty("g")->ip, "no address, 999.1");
}

TEST_F(ReportTest, UpdatesTheRecordOfAKnownGuidInPlace) {
    report(complete());
    const auto property = manager.getMSProperty("g");
    Parameters params = with("port", "9090");
    params["ip"] = "10.0.0.2";
    EXPECT_EQ(report(params), kSuccess);
    EXPECT_EQ(property->ip, "10.0.0.2");
    EXPECT_EQ(property->port, 9090);
    EXPECT_EQ(manager.getMSProperty("g").get(), property.get());
    EXPECT_THAT(manager.properties, SizeIs(1));
    // each job has its own copies
    fakes::runTasks();
    ASSERT_THAT(seen, SizeIs(2));
    EXPECT_EQ(seen[0]->getRpcIp(), "10.0.0.1");
    EXPECT_EQ(seen[0]->getRpcPort(), 8080);
    EXPECT_EQ(seen[1]->getRpcIp(), "10.0.0.2");
    EXPECT_EQ(seen[1]->getRpcPort(), 9090);
}

TEST_F(ReportTest, LeavesANullRecordAsItIs) {
    manager.properties["g"] = nullptr;
    EXPECT_EQ(report(complete()), kSuccess);
    EXPECT_TRUE(manager.getMSProperty("g").isNull());
    EXPECT_EQ(fakes::taskCount(), 1U);
}

TEST_F(ReportTest, AcceptsAnEmptyGuidAndAnEmptyAddress) {
    Parameters params = with("guid", "");
    params["ip"] = "";
    EXPECT_EQ(report(params), kSuccess);
    ASSERT_FALSE(manager.getMSProperty("").isNull());
    EXPECT_EQ(manager.getMSProperty("")->ip, "");
    fakes::runTasks();
    ASSERT_THAT(seen, SizeIs(1));
    EXPECT_EQ(seen[0]->getRpcIp(), "");
}

TEST_F(ReportTest, LetsOutWhatThePoolThrowsWithoutAnAnswer) {
    fakes::failStart(std::make_exception_ptr(Poco::NoThreadAvailableException("all busy")));
    fakes::FakeResponse response;
    fakes::FakeRequest request(kUri, response);
    EXPECT_THROW(manager.reportProcess(request, response, complete()),
                 Poco::NoThreadAvailableException);
    EXPECT_EQ(response.sends, 0);
    EXPECT_FALSE(manager.getMSProperty("g").isNull());
}

TEST_F(ReportTest, LeavesWhatAnObserverThrowsToThePool) {
    onNotification = [] { throw std::runtime_error("observer"); };
    EXPECT_EQ(report(complete()), kSuccess);
    EXPECT_THROW(fakes::runTasks(), std::runtime_error);
    EXPECT_EQ(log.messages().size(), 1U);
}

TEST_F(ReportTest, LetsOutWhatTheAnswerThrowsAfterTheJobWasHandedOver) {
    fakes::FakeResponse response;
    response.onSend = [] { throw Poco::IOException("connection gone"); };
    fakes::FakeRequest request(kUri, response);
    EXPECT_THROW(manager.reportProcess(request, response, complete()), Poco::IOException);
    EXPECT_EQ(fakes::taskCount(), 1U);
    EXPECT_THAT(log.texts(Poco::Message::PRIO_CRITICAL), IsEmpty());
}

TEST_F(ReportTest, LetsOutAFailureToLockWithoutAnAnswer) {
    const BrokenMutex broken(manager.propertyMutex);
    fakes::FakeResponse response;
    fakes::FakeRequest request(kUri, response);
    EXPECT_THROW(manager.reportProcess(request, response, complete()), std::system_error);
    EXPECT_EQ(response.sends, 0);
    EXPECT_THAT(manager.properties, IsEmpty());
    EXPECT_EQ(fakes::taskCount(), 0U);
}

TEST_F(ReportTest, RefusesAReportWithoutTheLock) {
    const BrokenMutex broken(manager.propertyMutex);
    EXPECT_EQ(report({}), refusal("parameter ip must specified"));
    EXPECT_EQ(report(with("port", "bad")), refusal("port number invalid"));
    EXPECT_EQ(report(with("type", "bad")), refusal("type number invalid"));
}

TEST_F(ReportTest, AsksForTheTypedCentreBeforeItPosts) {
    report(complete());
    centreCalls = 0;
    int callsAtPost = 0;
    onNotification = [&] { callsAtPost = centreCalls; };
    fakes::runTasks();
    EXPECT_EQ(callsAtPost, 1);
    EXPECT_EQ(centreCalls, 1);
}

TEST_F(ReportTest, AJobSetsTheAddressBeforeTheGuid) {
    constexpr std::size_t kAddress = 10000;
    constexpr std::size_t kGuid = 20000;
    Parameters params = with("ip", std::string(kAddress, 'i'));
    params["guid"] = std::string(kGuid, 'g');
    report(params);
    const auto job = fakes::takeTask();
    std::vector<std::size_t> sizes;
    {
        AllocationLog allocations;
        job.run();
        sizes.swap(allocations.sizes);
    }
    const auto place = [&](std::size_t length) {
        return std::find(sizes.begin(), sizes.end(), length + 1) - sizes.begin();
    };
    ASSERT_LT(place(kGuid), static_cast<std::ptrdiff_t>(sizes.size()));
    EXPECT_LT(place(kAddress), place(kGuid));
}

TEST_F(ReportTest, AJobKeepsNoReferenceToItsNotification) {
    report(complete());
    fakes::runTasks();
    ASSERT_THAT(seen, SizeIs(1));
    EXPECT_EQ(seen[0]->referenceCount(), 2); // this test's, and the one that a delivery keeps
}

TEST_F(ReportTest, FreesANotificationThatNobodyObserves) {
    NotificationCenter::defaultCenter().removeObserver("report test");
    report(complete());
    fakes::runTasks(); // the leak check tells if it stayed
    EXPECT_THAT(seen, IsEmpty());
}

TEST_F(ReportTest, AnUnknownGuidHasNoPropertyAndMakesNone) {
    EXPECT_TRUE(manager.getMSProperty("never").isNull());
    EXPECT_THAT(log.texts(Poco::Message::PRIO_ERROR), ElementsAre("guid 'never' not exist"));
    EXPECT_THAT(manager.properties, IsEmpty());
    expectSource();
}

TEST_F(ReportTest, LogsAnUnknownGuidUnderTheLock) {
    bool locked = false;
    const LogHook hook([&](const Poco::Message&) { locked = !isFree(manager.propertyMutex); });
    manager.getMSProperty("never");
    EXPECT_TRUE(locked);
    EXPECT_TRUE(isFree(manager.propertyMutex));
}

TEST_F(ReportTest, LooksARecordUpUnderTheLock) {
    report(complete());
    const BrokenMutex broken(manager.propertyMutex);
    EXPECT_THROW(manager.getMSProperty("g"), std::system_error);
    EXPECT_THAT(log.texts(Poco::Message::PRIO_ERROR), IsEmpty());
}

TEST_F(ReportTest, SharesARecordWithWhoeverAsks) {
    report(complete());
    const auto first = manager.getMSProperty("g");
    EXPECT_EQ(first.referenceCount(), 2);
    const auto second = manager.getMSProperty("g");
    EXPECT_EQ(first.referenceCount(), 3);
    EXPECT_EQ(first.get(), second.get());
}

TEST_F(ReportTest, ARecordOutlivesItsManager) {
    Poco::SharedPtr<MSProperty> property;
    {
        MSManager other;
        other.updateProperty("g", "10.0.0.1", 1);
        property = other.getMSProperty("g");
        EXPECT_EQ(property.referenceCount(), 2);
    }
    EXPECT_EQ(property.referenceCount(), 1);
    EXPECT_EQ(property->ip, "10.0.0.1");
}

TEST_F(ReportTest, TakesReportsFromManyThreads) {
    constexpr int kThreads = 4;
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int i = 0; i < kThreads; ++i)
        threads.emplace_back([this, i] {
            for (int n = 0; n < 10; ++n) {
                fakes::FakeResponse response;
                fakes::FakeRequest request(kUri, response);
                manager.reportProcess(request, response, with("guid", std::to_string(i * 10 + n)));
                manager.getMSProperty("0");
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_THAT(manager.properties, SizeIs(40));
    EXPECT_EQ(fakes::taskCount(), 40U);
}

} // namespace
} // namespace ktr
