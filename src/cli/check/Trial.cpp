#include "Trial.h"

#include "../Registrar.h"

#include <Poco/Exception.h>

#include <cstdint>
#include <cstring>
#include <dlfcn.h>
#include <unistd.h>

namespace {

// more than any name, and less than a pipe takes at once
constexpr std::size_t kLongestText = 2000;

int told = -1;

void tell(const std::string& key, const std::string& value) {
    const std::string record = key + "=" + value.substr(0, kLongestText) + '\0';
    if (told >= 0 && write(told, record.data(), record.size()) < 0)
        // nobody reads any more
        _exit(0);
}

std::string shortened(const char* text) {
    return text == nullptr ? "" : std::string(text, strnlen(text, kLongestText));
}

} // namespace

namespace ktr::cli {
namespace {

/// Tells at once what a plugin registers, for it may not survive what it does next.
class TellingRegistrar : public Registrar {
public:
    void registerPlugin(Factory factory, const char* guid) override {
        tell(factory ? "registers" : "empty", shortened(guid));
    }
    void unregisterPlugin(const char* guid) override { tell("unregisters", shortened(guid)); }
};

template <class Function>
Function* begin(void* library, const std::string& entryPoint) {
    auto* function = reinterpret_cast<Function*>(dlsym(library, entryPoint.c_str()));
    if (function != nullptr)
        tell("step", entryPoint);
    return function;
}

void askText(void* library, const std::string& entryPoint, const std::string& key) {
    if (auto* function = begin<const char*()>(library, entryPoint)) {
        const char* text = function();
        if (text == nullptr)
            tell("null", entryPoint);
        else
            tell(key, shortened(text));
    }
}

void load(const std::string& path) {
    tell("step", "loading");
    void* library = dlopen(path.c_str(), RTLD_LAZY | RTLD_GLOBAL);
    if (library == nullptr) {
        tell("refused", dlerror());
        return;
    }
    if (auto* type = begin<std::int32_t()>(library, "PluginType"))
        tell("type", std::to_string(type()));
    askText(library, "PluginName", "name");
    askText(library, "PluginGuid", "guid");
    if (auto* entry = begin<void()>(library, "PluginLoad"))
        entry();
}

} // namespace

void runTrial(const std::string& path, int report) {
    told = report;
    static TellingRegistrar registrar;
    Registrar::install(registrar);
    try {
        load(path);
    } catch (const Poco::Exception& e) {
        tell("threw", e.displayText());
    } catch (const std::exception& e) {
        tell("threw", e.what());
    } catch (...) {
        tell("threw-unknown", "");
    }
    tell("done", "");
}

} // namespace ktr::cli
