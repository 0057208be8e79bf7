// A complete plugin that notes what happens to its objects, and that tests can also use without a
// host. An event whose text holds "raise" makes it raise the event {"to":["ketra-probe"]}, and one
// that holds "throw" makes it throw.

#include "ProbePlugin.h"

#include "Layout.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string>

namespace {

/// Never destroyed: the last object may go after this library's statics.
struct Notes {
    std::mutex mutex;
    std::string text;
    std::string taken;
};

Notes& notes() {
    static auto* const made = new Notes;
    return *made;
}

void note(const std::string& line) {
    const std::lock_guard<std::mutex> lock(notes().mutex);
    notes().text += line + "\n";
}

/// Overrides in another order than the base declares, which decides about the slots.
class Probe : public ktr::PluginBase {
public:
    void onMessage(std::string text) override {
        note("onMessage " + text);
        if (text.find("raise") != std::string::npos)
            eventCallback(R"({"to":["ketra-probe"]})");
        if (text.find("throw") != std::string::npos)
            throw std::runtime_error("probe throws");
    }

    void stop() override { note("stop"); }

    void start(std::shared_ptr<ktr::WebApiBasic> webApi_,
               std::shared_ptr<ktr::MqttClient> mqttClient_, std::string ip_,
               unsigned short port_) override {
        PluginBase::start(std::move(webApi_), std::move(mqttClient_), std::move(ip_), port_);
        note("start " + ip + " " + std::to_string(port) + (webApi ? " webApi" : "") +
             (mqttClient ? " mqttClient" : ""));
    }

    void setEventCallback(std::function<void(std::string)> callback) override {
        PluginBase::setEventCallback(std::move(callback));
        note(eventCallback ? "setEventCallback" : "setEventCallback to nothing");
    }

    ~Probe() override { note("destroyed"); }

    static void* operator new(std::size_t size) { return ::operator new(size); }
    static void operator delete(void* memory) {
        note("deleted");
        ::operator delete(memory);
    }
};

} // namespace

extern "C" {

std::size_t probeSize() {
    return sizeof(Probe);
}

ktr::PluginBase* probeMake(void* memory) {
    return memory == nullptr ? new Probe : ::new (memory) Probe;
}

const char* probeTakeNotes() {
    const std::lock_guard<std::mutex> lock(notes().mutex);
    notes().taken.clear();
    notes().taken.swap(notes().text);
    return notes().taken.c_str();
}

const char* probeLayout() {
    static const std::string text = ktr::test::layoutText();
    return text.c_str();
}

KTR_API void PluginLoad() {
    note("PluginLoad");
    ktr::registerPlugin([] { return std::make_shared<Probe>(); }, "ketra-probe");
}

KTR_API void PluginUnLoad() {}

KTR_API std::int32_t PluginType() {
    return -7;
}

KTR_API const char* PluginName() {
    return "probe";
}

KTR_API const char* PluginGuid() {
    return "ketra-probe";
}
}
