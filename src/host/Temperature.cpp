#include "Temperature.h"

#include "ktr/PluginManager.h"
#include "ktr/common/Logger.h"

#include <Poco/Format.h>

#include <chrono>
#include <exception>
#include <pthread.h>
#include <thread>

namespace ktr::host {
namespace {

// how soon the cleared flag is seen; who clears it waits for that, with the registry locked
constexpr std::chrono::milliseconds kFlagPoll{100};

void logReading() {
    try {
        const int degrees = getCpuTemperature();
        if (cachedLogger().debug())
            cachedLogger().debug(Poco::format("cpu temperature: %d degrees Celsius", degrees),
                                 __FILE__, __LINE__);
    } catch (const std::exception& e) {
        if (cachedLogger().warning())
            cachedLogger().warning(std::string("cpu temperature cannot be read: ") + e.what(),
                                   __FILE__, __LINE__);
    }
}

void sample(std::chrono::seconds period) {
    pthread_setname_np(pthread_self(), "temperature");
    auto due = std::chrono::steady_clock::now();
    while (_loop_thread_get_cpu_temp_run) {
        if (std::chrono::steady_clock::now() >= due) {
            logReading();
            due = std::chrono::steady_clock::now() + period;
        }
        // the library clears the flag and joins: nothing else would wake this thread
        std::this_thread::sleep_for(kFlagPoll);
    }
}

} // namespace

void startTemperatureThread(int periodSeconds) {
    if (periodSeconds == 0)
        return;
    _loop_thread_get_cpu_temp_run = true;
    _loop_thread_get_cpu_temp = std::thread(sample, std::chrono::seconds(periodSeconds));
}

void stopTemperatureThread() {
    _loop_thread_get_cpu_temp_run = false;
    if (_loop_thread_get_cpu_temp.joinable())
        _loop_thread_get_cpu_temp.join();
}

} // namespace ktr::host
