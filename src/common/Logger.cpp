#include "ktr/common/Logger.h"

#include <Poco/AutoPtr.h>
#include <Poco/ConsoleChannel.h>
#include <Poco/FormattingChannel.h>
#include <Poco/PatternFormatter.h>

#include <iostream>

namespace ktr {
namespace {

Poco::Logger* makeLogger() {
    Poco::AutoPtr<Poco::PatternFormatter> formatter(
        new Poco::PatternFormatter("%Y-%m-%dT%H:%M:%S.%i%z %p %t"));
    formatter->setProperty(Poco::PatternFormatter::PROP_TIMES, "local");
    const Poco::AutoPtr<Poco::ConsoleChannel> console(new Poco::ConsoleChannel(std::cerr));
    const Poco::AutoPtr<Poco::FormattingChannel> channel(
        new Poco::FormattingChannel(formatter, console));
    Poco::Logger& logger = Poco::Logger::create("ketra", channel, Poco::Message::PRIO_INFORMATION);
    // One reference is never given back: Poco drops its own when its statics end, which may be
    // before the last destructor that still logs.
    logger.duplicate();
    return &logger;
}

} // namespace

Poco::Logger& cachedLogger() {
    static Poco::Logger* const logger = makeLogger();
    return *logger;
}

} // namespace ktr
