#pragma once

#include "probe/ProbePlugin.h"

#include <dlfcn.h>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace ktr::test {

/// The probe plugin, a library compiled for itself, reached through the dynamic loader as the host
/// reaches plugins. It stays mapped, as plugins do.
class Probe {
public:
    explicit Probe(const std::filesystem::path& file)
        : handle(dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL)) {
        if (handle == nullptr)
            throw std::runtime_error(dlerror()); // NOLINT(concurrency-mt-unsafe): one thread
    }

    std::size_t size() const { return function<decltype(probeSize)>("probeSize")(); }
    PluginBase* make(void* memory = nullptr) const {
        return function<decltype(probeMake)>("probeMake")(memory);
    }
    std::string layout() const { return function<decltype(probeLayout)>("probeLayout")(); }
    std::vector<std::string> takeNotes() const {
        std::istringstream in(function<decltype(probeTakeNotes)>("probeTakeNotes")());
        std::vector<std::string> notes;
        for (std::string line; std::getline(in, line);)
            notes.push_back(line);
        return notes;
    }

private:
    template <class Function>
    Function* function(const char* name) const {
        auto* const found = reinterpret_cast<Function*>(dlsym(handle, name));
        if (found == nullptr)
            throw std::runtime_error(std::string("the probe has no ") + name);
        return found;
    }

    void* handle;
};

} // namespace ktr::test
