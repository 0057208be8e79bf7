#include "probe/Layout.h"
#include "unit/pluginmgr/PluginManagerUnderTest.h"

#include <type_traits>

// as in probe/Layout.cpp
#pragma GCC diagnostic ignored "-Winvalid-offsetof"

namespace ktr::test {
namespace {

using testing::ElementsAre;

template <class Expected, class Actual>
constexpr bool is = std::is_same_v<Expected, Actual>;

static_assert(is<std::string, decltype(PluginBase::ip)>);
static_assert(is<unsigned short, decltype(PluginBase::port)>);
static_assert(is<std::function<void(std::string)>, decltype(PluginBase::eventCallback)>);
static_assert(is<std::shared_ptr<WebApiBasic>, decltype(PluginBase::webApi)>);
static_assert(is<std::shared_ptr<MqttClient>, decltype(PluginBase::mqttClient)>);

static_assert(std::is_base_of_v<Poco::Notification, MSNotification>);
static_assert(is<std::string, decltype(MSNotification::rpcIp)>);
static_assert(is<unsigned short, decltype(MSNotification::rpcPort)>);
static_assert(is<std::string, decltype(MSNotification::msGuid)>);
static_assert(is<int, decltype(MSNotification::msType)>);

static_assert(is<std::string, decltype(MSProperty::ip)>);
static_assert(is<unsigned short, decltype(MSProperty::port)>);
static_assert(is<std::string, decltype(ProcessProperty::path)>);
static_assert(is<Poco::ProcessHandle, decltype(ProcessProperty::handle)>);

static_assert(is<std::string, decltype(MSManager::reportRoute)>);
static_assert(is<std::string, decltype(MSManager::hostIp)>);
static_assert(is<unsigned short, decltype(MSManager::hostPort)>);
static_assert(is<std::mutex, decltype(MSManager::processMutex)>);
static_assert(is<std::list<Poco::SharedPtr<ProcessProperty>>, decltype(MSManager::processes)>);
static_assert(is<std::thread, decltype(MSManager::checkThread)>);
static_assert(is<bool, decltype(MSManager::running)>);
static_assert(is<std::mutex, decltype(MSManager::propertyMutex)>);
static_assert(is<std::unordered_map<std::string, Poco::SharedPtr<MSProperty>>,
                 decltype(MSManager::properties)>);
static_assert(is<bool, decltype(MSManager::stopped)>);

static_assert(is<std::function<std::shared_ptr<PluginBase>()>, decltype(Plugin::factory)>);
static_assert(is<std::int32_t, decltype(Plugin::type)>);
static_assert(is<std::shared_ptr<PluginBase>, decltype(Plugin::instance)>);
static_assert(is<Poco::JSON::Array::Ptr, decltype(Message::to)>);
static_assert(is<std::string, decltype(Message::text)>);

static_assert(sizeof(_loop_thread_get_cpu_temp_run) == 1);

std::size_t alignUp(std::size_t offset, std::size_t alignment) {
    return (offset + alignment - 1) / alignment * alignment;
}

/// The members follow each other in their order, from `start` on, and nothing else takes room.
void expectNothingBetween(const ClassLayout& type, std::size_t start) {
    std::size_t end = start;
    for (const MemberLayout& member : type.members) {
        EXPECT_EQ(member.offset, alignUp(end, member.alignment))
            << type.name << "." << member.member;
        end = member.offset + member.size;
    }
    EXPECT_EQ(type.size, alignUp(end, type.alignment)) << type.name;
}

TEST(LayoutTest, PublicClassesHoldTheirMembersInOrderAndNothingElse) {
    const std::vector<ClassLayout> types = publicLayouts();
    ASSERT_EQ(types.size(), 5U);
    expectNothingBetween(types[0], sizeof(void*));
    expectNothingBetween(types[1], sizeof(Poco::Notification));
    for (std::size_t i = 2; i < types.size(); ++i)
        expectNothingBetween(types[i], 0);
}

// The same on every 64-bit machine with this standard library.
TEST(LayoutTest, APluginsObjectBeginsAsPluginsWereCompiledFor) {
    if (sizeof(void*) != 8)
        GTEST_SKIP() << "the numbers are those of 64-bit machines";
    const ClassLayout type = publicLayouts()[0];
    std::vector<std::size_t> offsets;
    for (const MemberLayout& member : type.members)
        offsets.push_back(member.offset);
    EXPECT_THAT(offsets, ElementsAre(8U, 40U, 48U, 80U, 96U));
    EXPECT_EQ(type.size, 112U);
}

TEST(LayoutTest, TheRegistrysRecordHoldsItsMembersInOrder) {
    expectNothingBetween(KETRA_CLASS(Plugin, KETRA_MEMBER(Plugin, library),
                                     KETRA_MEMBER(Plugin, factory), KETRA_MEMBER(Plugin, loadFn),
                                     KETRA_MEMBER(Plugin, unloadFn), KETRA_MEMBER(Plugin, typeFn),
                                     KETRA_MEMBER(Plugin, nameFn), KETRA_MEMBER(Plugin, guidFn),
                                     KETRA_MEMBER(Plugin, type), KETRA_MEMBER(Plugin, name),
                                     KETRA_MEMBER(Plugin, guid), KETRA_MEMBER(Plugin, instance)),
                         0);
}

TEST(LayoutTest, AMessageHoldsItsRecipientsThenItsText) {
    expectNothingBetween(
        KETRA_CLASS(Message, KETRA_MEMBER(Message, to), KETRA_MEMBER(Message, text)), 0);
}

} // namespace
} // namespace ktr::test
