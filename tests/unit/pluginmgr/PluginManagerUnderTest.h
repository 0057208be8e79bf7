#pragma once

// The whole source, so that its file-local functions and globals can be reached.
#include "../../../src/pluginmgr/PluginManager.cpp" // NOLINT(bugprone-suspicious-include): see above

#include "support/Locks.h"
#include "support/LogCapture.h"
#include "support/fakes/FakeCommon.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <tuple>
#include <vector>

namespace ktr::test {

/// True if the registry's lock is free right now.
inline bool registryIsFree() {
    return isFree(s_plugin_mutex);
}

/// What the plugin objects of one test went through, oldest first.
struct Diary {
    std::vector<std::string> entries;
};

/// Writes each call with its own name in front: "a1:stop".
class DiaryPlugin : public PluginBase {
public:
    DiaryPlugin(Diary& diary_, std::string name_) : diary(diary_), name(std::move(name_)) {}
    ~DiaryPlugin() override { note("destroyed"); }

    void setEventCallback(std::function<void(std::string)> callback) override {
        note("setEventCallback");
        registryWasFree.push_back(registryIsFree());
        PluginBase::setEventCallback(std::move(callback));
        if (throwOnSetEventCallback)
            throw Poco::DataException("callback refused");
    }
    void start(std::shared_ptr<WebApiBasic> webApi_, std::shared_ptr<MqttClient> mqttClient_,
               std::string ip_, unsigned short port_) override {
        note("start " + ip_ + " " + std::to_string(port_));
        registryWasFree.push_back(registryIsFree());
        PluginBase::start(std::move(webApi_), std::move(mqttClient_), std::move(ip_), port_);
        if (throwOnStart)
            throw std::runtime_error("start failed");
    }
    void stop() override {
        note("stop");
        registryWasFree.push_back(registryIsFree());
        if (throwOnStop)
            throw std::runtime_error("stop failed");
    }
    void onMessage(std::string text) override {
        note("onMessage " + text);
        registryWasFree.push_back(registryIsFree());
        if (handler)
            handler(text);
    }

    void note(const std::string& what) const { diary.entries.push_back(name + ":" + what); }

    /// Called by onMessage.
    std::function<void(const std::string&)> handler;
    bool throwOnSetEventCallback = false;
    bool throwOnStart = false;
    bool throwOnStop = false;
    /// Whether the registry's lock was free at each call.
    std::vector<bool> registryWasFree;

private:
    Diary& diary;
    const std::string name;
};

/// Puts the globals of the plugin manager back to how the library starts.
class PluginManagerTest : public testing::Test {
protected:
    PluginManagerTest() { clear(); }
    ~PluginManagerTest() override { clear(); }

    /// Files a record for `guid`, as loading does.
    static std::shared_ptr<Plugin> file(const std::string& guid) {
        auto plugin = std::make_shared<Plugin>();
        plugin->guid = guid;
        plugin->name = "name of " + guid;
        s_plugins_map[guid] = plugin;
        return plugin;
    }

    /// Priority, text and source of what was logged, oldest first.
    static std::vector<std::tuple<Poco::Message::Priority, std::string>>
    lines(const LogCapture& log) {
        std::vector<std::tuple<Poco::Message::Priority, std::string>> found;
        for (const Poco::Message& message : log.messages())
            found.emplace_back(message.getPriority(), message.getText());
        return found;
    }

    /// Every line names its source; to be asked at the end of a test.
    static void expectSource(const LogCapture& log) {
        for (const Poco::Message& message : log.messages()) {
            EXPECT_STREQ(message.getSourceFile(), "src/pluginmgr/PluginManager")
                << message.getText();
            EXPECT_GT(message.getSourceLine(), 0) << message.getText();
        }
    }

    /// Outlives the objects in the registry, which write into it to their end.
    Diary diary;

private:
    static void clear() {
        fakes::reset();
        s_plugins_map.clear();
        s_plugin_cnt = 0;
        s_transform_message_queue.reset(new MessageList);
        s_rapid_transform_message_queue.reset(new MessageList);
        s_is_discard_message = false;
        s_thread_pool.reset();
        s_rapid_thread_pool.reset();
    }
};

constexpr auto kCritical = Poco::Message::PRIO_CRITICAL;
constexpr auto kError = Poco::Message::PRIO_ERROR;
constexpr auto kInformation = Poco::Message::PRIO_INFORMATION;

} // namespace ktr::test
