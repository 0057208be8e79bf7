#include "HostInProcess.h"
#include "Probe.h"
#include "support/WaitUntil.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <dlfcn.h>
#include <memory>
#include <mutex>
#include <typeinfo>

namespace ktr::test {
namespace {

using testing::ElementsAre;

constexpr std::size_t kDestroy = 0;
constexpr std::size_t kDelete = 1;

using Callback = std::function<void(std::string)>;

/// The object's virtual table, which is what the object begins with.
const void* const* tableOf(const void* object) {
    const void* const* table = nullptr;
    std::memcpy(&table, object, sizeof table);
    return table;
}

/// Calls what the slot of the object's virtual table holds, whatever the headers say of it. A
/// member function is called as a function that takes the object first; an argument of class type
/// travels by value as the address of a temporary that the caller makes and destroys, so a pointer
/// stands in its place here. A member pointer could say the same, but its bits differ between
/// processors.
template <class Result = void, class... Arguments>
Result callSlot(void* object, std::size_t slot, Arguments... arguments) {
    using Function = Result (*)(void*, Arguments...);
    return reinterpret_cast<Function>(const_cast<void*>(tableOf(object)[slot]))(object,
                                                                                arguments...);
}

class PluginSlotsTest : public testing::Test {
protected:
    PluginSlotsTest() { probe.takeNotes(); }

    const Probe probe{KETRA_PROBE};
};

TEST_F(PluginSlotsTest, TheFirstDestroysAndLeavesTheMemory) {
    std::vector<char> memory(probe.size());
    callSlot(probe.make(memory.data()), kDestroy);
    EXPECT_THAT(probe.takeNotes(), ElementsAre("destroyed"));
}

TEST_F(PluginSlotsTest, TheSecondDestroysAndFreesTheMemory) {
    callSlot(probe.make(), kDelete);
    EXPECT_THAT(probe.takeNotes(), ElementsAre("destroyed", "deleted"));
}

TEST_F(PluginSlotsTest, TheFurtherOnesAreSetEventCallbackStartStopAndOnMessage) {
    PluginBase* const object = probe.make();
    std::vector<std::string> raised;
    Callback callback = [&raised](const std::string& text) { raised.push_back(text); };
    callSlot(object, 2, &callback);
    EXPECT_THAT(probe.takeNotes(), ElementsAre("setEventCallback"));

    std::shared_ptr<WebApiBasic> webApi = WebApiBasic::instance();
    auto mqttClient = std::make_shared<MqttClient>();
    std::string ip = "192.0.2.1";
    const unsigned short port = 65'535;
    callSlot(object, 3, &webApi, &mqttClient, &ip, port);
    EXPECT_THAT(probe.takeNotes(), ElementsAre("start 192.0.2.1 65535 webApi mqttClient"));

    callSlot(object, 4);
    EXPECT_THAT(probe.takeNotes(), ElementsAre("stop"));

    std::string text = "raise it";
    callSlot(object, 5, &text);
    EXPECT_THAT(probe.takeNotes(), ElementsAre("onMessage raise it"));
    EXPECT_THAT(raised, ElementsAre(R"({"to":["ketra-probe"]})"));

    Callback nothing;
    callSlot(object, 2, &nothing);
    EXPECT_THAT(probe.takeNotes(), ElementsAre("setEventCallback to nothing"));
    callSlot(object, kDelete);
}

/// An object that no compiler laid out: a pointer to a table that the test wrote by hand. What the
/// library calls in it, it calls by the number of the slot.
class HandMade {
public:
    HandMade() { object.table = &table[kHeader]; }

    std::shared_ptr<PluginBase> share() {
        // the library drops its references, and the test keeps the object
        return {std::shared_ptr<void>(), reinterpret_cast<PluginBase*>(&object)};
    }
    std::vector<std::string> takeCalls() {
        const std::lock_guard<std::mutex> lock(object.mutex);
        return std::exchange(object.calls, {});
    }
    std::size_t count() {
        const std::lock_guard<std::mutex> lock(object.mutex);
        return object.calls.size();
    }
    const Callback& callback() const { return object.callback; }

private:
    struct Object {
        const void* const* table = nullptr;
        std::mutex mutex;
        std::vector<std::string> calls;
        Callback callback;

        void note(const std::string& call) {
            const std::lock_guard<std::mutex> lock(mutex);
            calls.push_back(call);
        }
    };
    /// Says what the table belongs to; sanitizers look.
    struct Model : PluginBase {
        void stop() override {}
        void onMessage(std::string /*text*/) override {}
    };

    // the other side of callSlot: references where arguments of class type travel by value
    static void destroy(Object* self) { self->note("destroy"); }
    static void setEventCallback(Object* self, Callback& callback) {
        self->note("setEventCallback");
        self->callback = callback;
    }
    static void start(Object* self, std::shared_ptr<WebApiBasic>& webApi,
                      std::shared_ptr<MqttClient>& mqttClient, std::string& ip,
                      unsigned short port) {
        self->note("start " + ip + " " + std::to_string(port) + (webApi ? " webApi" : "") +
                   (mqttClient ? " mqttClient" : ""));
    }
    static void stop(Object* self) { self->note("stop"); }
    static void onMessage(Object* self, std::string& text) { self->note("onMessage " + text); }

    template <class Function>
    static const void* slot(Function* function) {
        return reinterpret_cast<const void*>(function);
    }

    // the offset to the top and the type, in front of the first slot
    static constexpr std::size_t kHeader = 2;
    const std::array<const void*, 8> table{nullptr,        &typeid(Model),          slot(&destroy),
                                           slot(&destroy), slot(&setEventCallback), slot(&start),
                                           slot(&stop),    slot(&onMessage)};
    Object object;
};

TEST(LibrarySlotsTest, TheLibraryCallsPluginsThroughTheseSlots) {
    HandMade handMade;
    {
        const HostInProcess host(KETRA_PROBE);
        registerPlugin([&handMade] { return handMade.share(); }, "ketra-probe");
        EXPECT_EQ(HostInProcess::report("ketra-probe", "192.0.2.2", "1025"),
                  R"({"code":0,"msg":"success"})");
        EXPECT_THAT(handMade.takeCalls(),
                    ElementsAre("setEventCallback", "start 192.0.2.2 1025 webApi mqttClient"));

        ASSERT_TRUE(handMade.callback());
        handMade.callback()(R"({"to":["ketra-probe"],"n":1})");
        EXPECT_TRUE(waitUntil([&] { return handMade.count() > 0; }));
        EXPECT_THAT(handMade.takeCalls(), ElementsAre(R"(onMessage {"to":["ketra-probe"],"n":1})"));
    }
    EXPECT_THAT(handMade.takeCalls(), ElementsAre("stop"));
}

const void* symbol(const char* name) {
    return dlsym(RTLD_DEFAULT, name);
}

TEST(NotificationSlotsTest, TheyAreTheDestructorsAndName) {
    auto* const notification = new MSNotification;
    const void* const* const table = tableOf(notification);
    EXPECT_NE(symbol("_ZN3ktr14MSNotificationD1Ev"), nullptr);
    EXPECT_EQ(table[0], symbol("_ZN3ktr14MSNotificationD1Ev"));
    EXPECT_EQ(table[1], symbol("_ZN3ktr14MSNotificationD0Ev"));
    EXPECT_EQ(table[2], symbol("_ZNK3ktr14MSNotification4nameB5cxx11Ev"));
    EXPECT_EQ(callSlot<std::string>(notification, 2), "MSNotification");
    callSlot(notification, kDelete);
}

} // namespace
} // namespace ktr::test
