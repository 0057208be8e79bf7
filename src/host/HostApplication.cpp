#include "HostApplication.h"

#include "ExitCode.h"
#include "ExitGuard.h"
#include "Host.h"
#include "HostLog.h"
#include "ServiceManager.h"
#include "StopControl.h"

#include "ktr/common/Logger.h"

#include <Poco/Exception.h>
#include <Poco/Util/HelpFormatter.h>
#include <Poco/Util/OptionException.h>

#include <chrono>
#include <iomanip>
#include <iostream>
#include <system_error>

namespace ktr::host {
namespace {

std::string helpFor(const Key& key) {
    std::string help = key.help;
    if (key.byDefault[0] != '\0')
        help += std::string(" (default: ") + key.byDefault + ")";
    if (key.isRepeatable)
        help += "; may be given several times";
    return help;
}

int fail(int code, const std::string& line) {
    std::cerr << "ketra-host: " << line << std::endl;
    return code;
}

} // namespace

int HostApplication::runWith(int argc, char** argv) {
    try {
        init(argc, argv);
    } catch (const Poco::Util::OptionException& e) {
        return fail(ExitUsage, e.displayText() + "; ketra-host --help lists the options");
    } catch (const Poco::Exception& e) {
        return fail(ExitSoftware, e.displayText());
    }
    return ServerApplication::run();
}

// Does not call the base, whose options are those that are left out.
void HostApplication::defineOptions(Poco::Util::OptionSet& options) {
    using Poco::Util::Option;
    options.addOption(Option("config", "", "configuration file, see below").argument("FILE"));
    for (const Key& key : allKeys()) {
        if (!key.isOption)
            continue;
        Option option(optionName(key.name), "", helpFor(key));
        if (key.argument[0] != '\0')
            option.argument(key.argument);
        options.addOption(option.repeatable(key.isRepeatable));
    }
    options.addOption(Option("version", "", "print the version and end"));
    options.addOption(Option("help", "h", "print this and end"));
}

void HostApplication::handleOption(const std::string& name, const std::string& value) {
    if (name == "help")
        helpWanted = true;
    else if (name == "version")
        versionWanted = true;
    else if (name == "config")
        configFile = value;
    else
        raw.addOption(name, value);
}

// Poco would catch what leaves this function, in words of its own and with one code for all.
int HostApplication::main(const std::vector<std::string>& arguments) {
    if (helpWanted)
        return printHelp();
    if (versionWanted)
        return printVersion();
    try {
        runHost(arguments);
        return EXIT_OK;
    } catch (const StartError& e) {
        return fail(e.exitCode(), e.what());
    } catch (const Poco::Exception& e) {
        return fail(ExitSoftware, e.displayText());
    } catch (const std::system_error& e) {
        return fail(ExitSystem, e.what());
    } catch (const std::exception& e) {
        return fail(ExitSoftware, e.what());
    }
}

void HostApplication::runHost(const std::vector<std::string>& arguments) {
    if (!arguments.empty())
        throw StartError(ExitUsage, "unexpected argument '" + arguments.front() +
                                        "'; ketra-host --help lists the options");
    ServiceManager manager;
    if (!configFile.empty())
        raw.loadFile(configFile);
    const Settings settings = readSettings(raw);
    setUpLog(settings);
    StopControl& stop =
        StopControl::install(stopSignals, std::chrono::seconds(settings.shutdownTimeout));
    const ExitGuard guard;
    try {
        Host(settings, stop, manager).run();
    } catch (const StartError& e) {
        // with a log file, the log would not tell why it ends here
        if (!settings.logFile.empty() && cachedLogger().fatal())
            cachedLogger().fatal(e.what(), __FILE__, __LINE__);
        throw;
    }
}

int HostApplication::printVersion() const {
    std::cout << "ketra-host " << KETRA_VERSION << std::endl;
    return EXIT_OK;
}

int HostApplication::printHelp() const {
    Poco::Util::HelpFormatter formatter(options());
    formatter.setUnixStyle(true);
    formatter.setAutoIndent();
    formatter.setWidth(100);
    formatter.setCommand("ketra-host");
    formatter.setUsage("[OPTIONS]");
    formatter.setHeader("Hosts the plugins below DIR/plugins and supervises the services below "
                        "DIR/microservices.");
    formatter.format(std::cout);
    std::cout << "\nThe configuration file holds lines KEY = VALUE; # begins a comment. An option "
                 "goes before the\nfile, the file before the default. Each option but the last two "
                 "and --config is a key as well, with\ndots for dashes (mqtt.url); a repeatable "
                 "one as webhook.url.1, webhook.url.2 ..., one without an\nargument "
                 "as true or false. Further keys:\n\n";
    for (const Key& key : allKeys())
        if (!key.isOption)
            std::cout << "  " << std::left << std::setw(32)
                      << std::string(key.name) + " = " + key.argument << helpFor(key) << "\n";
    std::cout
        << "\nRelative paths are taken from the directory in which ketra-host is started.\n"
           "SIGINT, SIGTERM and SIGHUP (unless ignored, as under nohup) end the host.\n\n"
           "Exit codes: 0 ended as asked, 64 bad option, 70 unexpected failure, 71 the system "
           "refused\n(port in use), 75 a shutdown that hung was cut short, 78 bad "
           "configuration file\nor root, bad token file, certificate or key, or an address open "
           "to everybody.\n";
    std::cout.flush();
    return EXIT_OK;
}

} // namespace ktr::host
