#include "Paths.h"

#include <Poco/Version.h>

#include <gnu/libc-version.h>
#include <iostream>
#include <map>
#include <string>
#include <sys/utsname.h>

namespace {

const std::map<std::string, void (*)()> kPaths = {
    {"intake", ktr::bench::countIntake}, {"delivery", ktr::bench::countDelivery},
    {"report", ktr::bench::countReport}, {"loading", ktr::bench::countLoading},
    {"scan", ktr::bench::countScan},
};

/// Whatever the counts depend on, beside Ketra.
std::string platform() {
    utsname machine{};
    uname(&machine);
#ifdef __clang__
    const std::string compiler = __VERSION__;
#else
    const std::string compiler = "GCC " __VERSION__;
#endif
    const auto part = [](unsigned shift) { return std::to_string(POCO_VERSION >> shift & 255); };
    return std::string(machine.machine) + ", " + compiler + ", glibc " + gnu_get_libc_version() +
           ", POCO " + part(24) + "." + part(16) + "." + part(8);
}

} // namespace

/// Runs the path of that name, or tells the platform; bench/guard/check calls it.
int main(int argc, char** argv) {
    const std::string argument = argc == 2 ? argv[1] : "";
    if (argument == "--platform") {
        std::cout << platform() << std::endl;
        return 0;
    }
    const auto path = kPaths.find(argument);
    if (path == kPaths.end()) {
        std::cerr << "usage: ketra-bench-guard PATH | --platform" << std::endl;
        return 64;
    }
    try {
        path->second();
    } catch (const std::exception& e) {
        std::cerr << "ketra-bench-guard: " << e.what() << std::endl;
        return 1;
    }
    return 0;
}
