#include "HostLog.h"

#include "OneLineChannel.h"
#include "SteadyChannel.h"

#include "ktr/common/Logger.h"

#include <Poco/AutoPtr.h>
#include <Poco/ErrorHandler.h>
#include <Poco/Exception.h>
#include <Poco/FileChannel.h>
#include <Poco/FormattingChannel.h>

namespace ktr::host {
namespace {

/// Logs what ends a thread of Poco's that nobody watches.
class ThreadErrors : public Poco::ErrorHandler {
public:
    void exception(const Poco::Exception& e) override { note(e.displayText()); }
    void exception(const std::exception& e) override { note(e.what()); }
    void exception() override { note("exception of unknown type"); }

private:
    static void note(const std::string& reason) {
        if (cachedLogger().error())
            cachedLogger().error("a thread failed: " + reason, __FILE__, __LINE__);
    }
};

Poco::AutoPtr<Poco::FileChannel> openLogFile(const Settings& settings) {
    Poco::AutoPtr<Poco::FileChannel> file(new Poco::FileChannel(settings.logFile));
    try {
        file->setProperty(Poco::FileChannel::PROP_ROTATION, settings.logRotation);
    } catch (const Poco::Exception&) {
        settings.raw.reject("log.rotation", "must be a size such as '10 M' or a time such as "
                                            "'daily', not '" +
                                                settings.logRotation + "'");
    }
    file->setProperty(Poco::FileChannel::PROP_ARCHIVE, "number");
    file->setProperty(Poco::FileChannel::PROP_PURGECOUNT, std::to_string(settings.logPurgeCount));
    // what was logged before a crash or a power cut shall be there
    file->setProperty(Poco::FileChannel::PROP_FLUSH, "true");
    try {
        file->open();
    } catch (const Poco::Exception& e) {
        settings.raw.reject("log.file", "names a file that cannot be written: " + settings.logFile +
                                            " (" + e.displayText() + ")");
    }
    return file;
}

} // namespace

void setUpLog(const Settings& settings) {
    if (!settings.logFile.empty()) {
        const Poco::AutoPtr<Poco::FileChannel> file = openLogFile(settings);
        // the format stays the one that the logger was made with
        if (auto channel = cachedLogger().getChannel().cast<Poco::FormattingChannel>())
            channel->setChannel(file);
        else
            cachedLogger().setChannel(file);
    }
    cachedLogger().setChannel(
        Poco::makeAuto<OneLineChannel>(Poco::makeAuto<SteadyChannel>(cachedLogger().getChannel())));
    cachedLogger().setLevel(settings.logLevel);
    // never given back: Poco keeps a plain pointer until the process ends
    static auto* const errors = new ThreadErrors;
    Poco::ErrorHandler::set(errors);
}

} // namespace ktr::host
