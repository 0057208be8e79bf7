#include "PluginFile.h"

#include "../ExitCode.h"

#include "pluginmgr/LibraryFile.h"

#include <Poco/Exception.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <dlfcn.h>
#include <unistd.h>

namespace ktr::cli {
namespace {

std::string reasonNotOpened(const std::filesystem::path& file) {
    try {
        refuseTruncatedLibrary(file);
    } catch (const Poco::Exception& e) {
        return e.message();
    }
    // as the host does
    if (dlopen(file.c_str(), RTLD_LAZY | RTLD_GLOBAL) != nullptr)
        return "";
    const char* const reason = dlerror();
    return reason == nullptr ? "unknown reason" : reason;
}

void* handleOf(const std::filesystem::path& file) {
    return dlopen(file.c_str(), RTLD_LAZY | RTLD_NOLOAD);
}

std::string missingEntryPoints(void* library) {
    std::string missing;
    for (const char* name :
         {"PluginLoad", "PluginUnLoad", "PluginType", "PluginName", "PluginGuid"})
        if (dlsym(library, name) == nullptr)
            missing += (missing.empty() ? "" : ", ") + std::string(name);
    return missing;
}

/// What the function answers, as a text.
std::string ask(void* library, const char* name) {
    const auto function = reinterpret_cast<const char* (*)()>(dlsym(library, name));
    const char* const text = function();
    if (text == nullptr)
        throw Poco::DataException("it answers null, which would crash the host");
    return text;
}

std::string askGuid(void* library) {
    std::string guid = ask(library, "PluginGuid");
    if (guid.empty())
        throw Poco::DataException("it answers an empty text");
    return guid;
}

/// Runs `question` to the plugin; `name` is the entry point's.
template <class Question>
auto within(const std::filesystem::path& file, const char* name, Question question) {
    const std::string text = file.string() + " is no plugin: " + name + "(): ";
    try {
        return question();
    } catch (const Poco::Exception& e) {
        throw Failure(ExitFindings, text + e.message() + hintToCheck(file));
    } catch (const std::exception& e) {
        throw Failure(ExitFindings, text + e.what() + hintToCheck(file));
    } catch (...) {
        throw Failure(ExitFindings, text + "an exception that is not derived from std::exception" +
                                        hintToCheck(file));
    }
}

} // namespace

std::string openPlugin(const std::filesystem::path& file) {
    if (access(file.c_str(), R_OK) != 0)
        throw Failure(ExitNoInput, file.string() + " cannot be read: " + std::strerror(errno));
    if (!std::filesystem::is_regular_file(file))
        throw Failure(ExitNoInput, file.string() + " is no file; name the plugin's library");
    if (const std::string reason = reasonNotOpened(file); !reason.empty())
        throw Failure(ExitFindings,
                      file.string() + " cannot be loaded: " + reason + hintToCheck(file));
    void* const library = handleOf(file);
    if (const std::string missing = missingEntryPoints(library); !missing.empty())
        throw Failure(ExitFindings,
                      file.string() + " lacks the entry points " + missing + hintToCheck(file));
    within(file, "PluginName", [&] { return ask(library, "PluginName"); });
    return within(file, "PluginGuid", [&] { return askGuid(library); });
}

std::string hintToCheck(const std::filesystem::path& file) {
    return "; 'ketra check " + file.string() + "' tells more";
}

} // namespace ktr::cli
