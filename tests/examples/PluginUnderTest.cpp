#include "examples/PluginUnderTest.h"

#include <utility>

namespace {

struct Registration {
    std::function<std::shared_ptr<ktr::PluginBase>()> factory;
    std::string guid;
};

Registration& lastRegistration() {
    static Registration registration;
    return registration;
}

} // namespace

namespace ktr {

// The program's own symbols come before those of its libraries, so plugins find these.
void registerPlugin(std::function<std::shared_ptr<PluginBase>()> factory, const char* guid) {
    lastRegistration() = {std::move(factory), guid};
}

void unregisterPlugin(const char*) {}

namespace example::test {

std::string examplePlugin(const std::string& name) {
    return std::string(KETRA_EXAMPLES_DIR) + "/plugins/lib" + name + ".so";
}

PluginUnderTest::PluginUnderTest(const std::string& name) : library(examplePlugin(name)) {}

std::function<std::shared_ptr<PluginBase>()> PluginUnderTest::load() {
    lastRegistration() = {};
    reinterpret_cast<void (*)()>(library.getSymbol("PluginLoad"))();
    guid = lastRegistration().guid;
    return std::exchange(lastRegistration().factory, {});
}

std::string PluginUnderTest::callText(const std::string& symbol) {
    return reinterpret_cast<const char* (*)()>(library.getSymbol(symbol))();
}

} // namespace example::test
} // namespace ktr
