#pragma once

#include "PluginManagerUnderTest.h"

#include <dlfcn.h>

#include <functional>
#include <string>
#include <vector>

namespace ktr::test {

/// One call that the library made into a fixture plugin, with what the registry held then.
struct FixtureCall {
    std::string what;
    bool registryWasFree;
    std::size_t records;
};

/// The calls into the fixture plugins, oldest first.
class FixtureCalls {
public:
    static FixtureCalls& instance() {
        static FixtureCalls calls;
        return calls;
    }

    /// To be called by the program's ketraFixtureCalled.
    void note(const char* what) {
        made.push_back({what, registryIsFree(), s_plugins_map.size()});
        if (hook)
            hook(what);
    }
    void clear() {
        made.clear();
        hook = nullptr;
    }
    std::vector<std::string> names() const {
        std::vector<std::string> found;
        for (const FixtureCall& call : made)
            found.push_back(call.what);
        return found;
    }

    std::vector<FixtureCall> made;
    /// Runs inside the plugin's function; what it throws leaves that function.
    std::function<void(const std::string&)> hook;
};

/// Path of the fixture plugin `name`.
inline std::string fixture(const std::string& name) {
    return KETRA_FIXTURE_PLUGINS "/libKetraPluginFixture" + name + ".so";
}

/// True if the library is mapped into this process.
inline bool isMapped(const std::string& path) {
    void* const mapped = dlopen(path.c_str(), RTLD_LAZY | RTLD_NOLOAD);
    if (mapped != nullptr)
        dlclose(mapped);
    return mapped != nullptr;
}

/// Tests that load fixture plugins. Every line that they log has to name its source.
class FixturePluginTest : public PluginManagerTest {
protected:
    FixturePluginTest() { FixtureCalls::instance().clear(); }
    ~FixturePluginTest() override { FixtureCalls::instance().clear(); }
    void TearDown() override { expectSource(log); }

    static void load(const std::list<std::string>& files) {
        fakes::setFiles(files);
        PluginLoadAll();
    }
    static std::vector<std::string> called() { return FixtureCalls::instance().names(); }

    const LogCapture log;
};

} // namespace ktr::test
