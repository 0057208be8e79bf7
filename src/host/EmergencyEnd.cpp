#include "EmergencyEnd.h"

#include "ChildProcesses.h"

#include "ktr/common/Logger.h"

#include <chrono>
#include <future>
#include <memory>
#include <thread>
#include <unistd.h>

namespace ktr::host {
namespace {

/// Writes without the locks of the streams, which a hanging thread may hold.
void writeToStandardError(const std::string& text) {
    const std::string line = "ketra-host: " + text + "\n";
    const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
    // nobody is left to tell
    static_cast<void>(written);
}

/// Log and standard error may be what hangs: the report gets a thread and a second of its own.
void reportWithin(std::chrono::seconds time, const std::string& text) {
    try {
        const auto done = std::make_shared<std::promise<void>>();
        std::thread([done, text] {
            writeToStandardError(text);
            if (cachedLogger().fatal())
                cachedLogger().fatal(text, __FILE__, __LINE__);
            done->set_value();
        }).detach();
        done->get_future().wait_for(time);
    } catch (const std::exception&) {
        writeToStandardError(text);
    }
}

} // namespace

void endAtOnce(ExitCode code, const std::string& text) {
    reportWithin(std::chrono::seconds(1), text);
    killChildProcesses();
    _exit(code);
}

} // namespace ktr::host
