#include "ktr/PluginBase.h"
#include "ktr/common/MqttClient.h"
#include "ktr/common/WebApiBasic.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <type_traits>
#include <vector>

namespace ktr {
namespace {

class BarePlugin : public PluginBase {
public:
    void stop() override {}
    void onMessage(std::string /*text*/) override {}

    using PluginBase::eventCallback;
    using PluginBase::ip;
    using PluginBase::mqttClient;
    using PluginBase::port;
    using PluginBase::webApi;
};

TEST(PluginBaseTest, KeepsACopyOfTheCallbackAndDestroysTheFormerOne) {
    BarePlugin plugin;
    const auto owner = std::make_shared<std::string>();
    const std::function<void(std::string)> callback = [owner](const std::string& text) {
        *owner = text;
    };
    plugin.setEventCallback(callback);
    EXPECT_TRUE(callback);
    plugin.eventCallback("event");
    EXPECT_EQ(*owner, "event");
    EXPECT_EQ(owner.use_count(), 3);
    plugin.setEventCallback(nullptr);
    EXPECT_FALSE(plugin.eventCallback);
    EXPECT_EQ(owner.use_count(), 2);
}

TEST(PluginBaseTest, KeepsWhatStartBringsAndReleasesWhatWasThere) {
    BarePlugin plugin;
    EXPECT_EQ(plugin.port, 0);
    const auto formerApi = std::make_shared<WebApiBasic>();
    const auto formerClient = std::make_shared<MqttClient>();
    plugin.start(formerApi, formerClient, "10.0.0.1", 65535);
    EXPECT_EQ(plugin.ip, "10.0.0.1");
    EXPECT_EQ(plugin.port, 65535);
    EXPECT_EQ(plugin.webApi, formerApi);
    EXPECT_EQ(plugin.mqttClient, formerClient);
    plugin.start(nullptr, nullptr, "", 1);
    EXPECT_EQ(formerApi.use_count(), 1);
    EXPECT_EQ(formerClient.use_count(), 1);
    EXPECT_EQ(plugin.ip, "");
    EXPECT_EQ(plugin.port, 1);
}

TEST(PluginBaseTest, DestroysTheFormerCallbackAfterTheExchange) {
    BarePlugin plugin;
    bool newOneInPlace = false;
    const auto notePlace = [&](void*) { plugin.eventCallback(""); };
    plugin.setEventCallback([held = std::shared_ptr<void>(nullptr, notePlace)](const auto&) {});
    plugin.setEventCallback([&](const std::string& /*text*/) { newOneInPlace = true; });
    EXPECT_TRUE(newOneInPlace);
}

TEST(PluginBaseTest, AssignsAddressThenRouterThenClientOnStart) {
    BarePlugin plugin;
    const auto webApi = std::make_shared<WebApiBasic>();
    const auto mqttClient = std::make_shared<MqttClient>();
    std::vector<std::string> released;
    const auto noteRelease = [&](const std::string& what) {
        released.push_back(what + ' ' + plugin.ip + ' ' + std::to_string(plugin.port) +
                           (plugin.webApi == webApi ? " new router" : " old router") +
                           (plugin.mqttClient == mqttClient ? " new client" : " old client"));
    };
    plugin.start(std::shared_ptr<WebApiBasic>(new WebApiBasic,
                                              [&](const WebApiBasic* router) {
                                                  noteRelease("router");
                                                  delete router;
                                              }),
                 std::shared_ptr<MqttClient>(new MqttClient,
                                             [&](const MqttClient* client) {
                                                 noteRelease("client");
                                                 delete client;
                                             }),
                 "old", 1);
    plugin.start(webApi, mqttClient, "new", 2);
    EXPECT_EQ(released, (std::vector<std::string>{"router new 2 new router old client",
                                                  "client new 2 new router new client"}));
}

TEST(PluginBaseTest, HoldsItsMembersInOrder) {
    const BarePlugin plugin;
    const std::vector<const void*> members{&plugin.ip, &plugin.port, &plugin.eventCallback,
                                           &plugin.webApi, &plugin.mqttClient};
    EXPECT_TRUE(std::is_sorted(members.begin(), members.end()));
}

/// Where the virtual table holds a function: a pointer to a virtual member function is the place in
/// bytes, on some processors with a mark in its lowest bit.
template <class Function>
std::size_t slot(Function function) {
    static_assert(std::is_member_function_pointer_v<Function>);
    std::size_t place = 0;
    std::memcpy(&place, &function, sizeof place);
    return place / sizeof(void*);
}

TEST(PluginBaseTest, HasItsVirtualFunctionsInOrderBehindTheDestructor) {
    static_assert(std::has_virtual_destructor_v<PluginBase>);
    EXPECT_EQ(slot(&PluginBase::setEventCallback), 2U);
    EXPECT_EQ(slot(&PluginBase::start), 3U);
    EXPECT_EQ(slot(&PluginBase::stop), 4U);
    EXPECT_EQ(slot(&PluginBase::onMessage), 5U);
}

// what plugins were compiled against
static_assert(std::is_same_v<decltype(&PluginBase::setEventCallback),
                             void (PluginBase::*)(std::function<void(std::string)>)>);
static_assert(
    std::is_same_v<decltype(&PluginBase::start),
                   void (PluginBase::*)(std::shared_ptr<WebApiBasic>, std::shared_ptr<MqttClient>,
                                        std::string, unsigned short)>);
static_assert(std::is_same_v<decltype(&PluginBase::onMessage), void (PluginBase::*)(std::string)>);
static_assert(std::is_abstract_v<PluginBase>);

} // namespace
} // namespace ktr
