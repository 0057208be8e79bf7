#include "Listeners.h"

#include "Registration.h"

#include <dlfcn.h>
#include <stdexcept>
#include <utility>

namespace ktr::testkit {
namespace {

// reported for listeners, which do nothing with it; the lowest that a report may name
constexpr unsigned short kAnyPort = 1025;

class Listener : public PluginBase {
public:
    explicit Listener(std::shared_ptr<Inbox> inbox_) : inbox(std::move(inbox_)) {}

    void start(std::shared_ptr<WebApiBasic>, std::shared_ptr<MqttClient>, std::string,
               unsigned short) override {
        inbox->listenerStarted();
    }
    void stop() override {}
    void onMessage(std::string text) override { inbox->put(std::move(text)); }

private:
    const std::shared_ptr<Inbox> inbox;
};

/// The spy's function, by which it is told what its PluginGuid is to answer.
void (*openSpy(const std::string& file))(const char*) {
    // stays open: the registry's loader maps the same file again and leaves it mapped, too
    void* const spy = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    void* const answer = spy != nullptr ? dlsym(spy, "ketraSpyAnswer") : nullptr;
    if (answer == nullptr)
        throw std::runtime_error("the test kit's listener cannot be loaded (" +
                                 // the C library keeps the text for each thread
                                 std::string(dlerror()) + // NOLINT(concurrency-mt-unsafe)
                                 "); build the target KetraPluginSpy or install the test kit anew");
    return reinterpret_cast<void (*)(const char*)>(answer);
}

} // namespace

void fileListeners(const Host& host, const TempRoot& root, const std::vector<std::string>& guids,
                   const std::shared_ptr<Inbox>& inbox) {
    if (guids.empty())
        return;
    const auto answer = openSpy(root.spy());
    for (const std::string& guid : guids) {
        answer(guid.c_str());
        host.loadPlugins(root.listeners());
        registerUnwatched([inbox] { return std::make_shared<Listener>(inbox); }, guid.c_str());
    }
}

void activateListeners(const Host& host, const std::vector<std::string>& guids, Inbox& inbox,
                       std::chrono::milliseconds deadline) {
    for (const std::string& guid : guids)
        host.report(guid, "127.0.0.1", kAnyPort);
    if (!inbox.waitForListeners(guids.size(), deadline))
        throw std::runtime_error("the listeners were not started within " +
                                 std::to_string(deadline.count()) + " ms; allow a longer deadline");
}

} // namespace ktr::testkit
