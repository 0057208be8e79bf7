// The driver of script/soak. Exit code 0 when all went well, 1 when something failed, 64 for bad
// arguments, 130 when it was interrupted.

#include "Device.h"
#include "LogDisk.h"
#include "Problems.h"
#include "Soak.h"

#include "ktr/common/Logger.h"

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <optional>
#include <string>

namespace {

using namespace ktr::soak;

std::atomic<bool> interrupted{false}; // set by a signal handler

void interrupt(int /*signal*/) {
    interrupted = true;
}

std::optional<Options> optionsFrom(int argc, char** argv) {
    if (argc != 4)
        return std::nullopt;
    Options options;
    options.minutes = std::atoi(argv[1]);
    options.seed = static_cast<std::uint32_t>(std::strtoul(argv[2], nullptr, 10));
    options.keep = argv[3];
    return options.minutes > 0 ? std::optional(options) : std::nullopt;
}

void tellFailure(const Device& device, const Options& options, const Problems& problems) {
    device.keepLog(options.keep);
    std::cout << device.tailOfLog() << "\nsoak failed, seed " << options.seed
              << "; the host's log is kept in " << options.keep << "\n";
    for (const std::string& text : problems.texts())
        std::cout << "  " << text << "\n";
    if (problems.count() > problems.texts().size())
        std::cout << "  ... " << problems.count() << " in all\n";
}

int soak(const Options& options) {
    const bool mayMount = makeMountsPrivate();
    Problems problems;
    Device device(options.seed, mayMount);
    if (!device.start()) {
        problems.add("the host does not start all plugins");
    } else {
        Soak run(device, options, problems, interrupted);
        run.run();
        if (problems.none() && interrupted)
            return 130;
        run.figures().print();
    }
    if (problems.none()) {
        std::cout << "soak passed" << std::endl;
        return 0;
    }
    tellFailure(device, options, problems);
    return 1;
}

} // namespace

int main(int argc, char** argv) {
    const auto options = optionsFrom(argc, argv);
    if (!options) {
        std::cerr << "usage: ketra-soak MINUTES SEED FOLDER-FOR-LOGS\n";
        return 64;
    }
    std::signal(SIGINT, interrupt);
    std::signal(SIGTERM, interrupt);
    std::signal(SIGPIPE, SIG_IGN);
    // the MQTT client's: its broker goes again and again
    ktr::cachedLogger().setLevel("none");
    try {
        return soak(*options);
    } catch (const std::exception& e) {
        std::cerr << "soak: " << e.what() << std::endl;
        return 1;
    }
}
