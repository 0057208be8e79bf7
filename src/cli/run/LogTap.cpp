#include "LogTap.h"

#include "../ExitCode.h"

#include "ktr/common/Logger.h"

#include <Poco/Exception.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

#include <algorithm>
#include <utility>

namespace ktr::cli {
namespace {

int levelCalled(const std::string& name) {
    try {
        return Poco::Logger::parseLevel(name);
    } catch (const Poco::Exception&) {
        throw Failure(ExitUsage, "--log-level takes none, fatal, critical, error, warning, notice, "
                                 "information, debug or trace, not '" +
                                     name + "'");
    }
}

} // namespace

LogTap::LogTap(Poco::AutoPtr<Poco::Channel> next_, int level_)
    : next(std::move(next_)), level(level_) {}

void LogTap::log(const Poco::Message& message) {
    // plugins log too
    const bool isOfLoader = std::string("src/pluginmgr/PluginManager") ==
                            (message.getSourceFile() ? message.getSourceFile() : "");
    if (isOfLoader && message.getPriority() == Poco::Message::PRIO_CRITICAL) {
        const std::lock_guard<std::mutex> lock(mutex);
        failure = message.getText();
    }
    if (message.getPriority() <= level)
        next->log(message);
}

std::string LogTap::loadFailure() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return failure;
}

Poco::AutoPtr<LogTap> tapLog(const std::string& level) {
    const int wanted = levelCalled(level);
    auto tap = Poco::makeAuto<LogTap>(cachedLogger().getChannel(), wanted);
    cachedLogger().setChannel(tap);
    cachedLogger().setLevel(std::max<int>(wanted, Poco::Message::PRIO_CRITICAL));
    return tap;
}

} // namespace ktr::cli
