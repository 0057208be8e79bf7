#include "LinkFindings.h"

namespace ktr::cli {
namespace {

// one missing library easily leaves hundreds unresolved
constexpr std::size_t kMostSymbols = 10;

void addSymbols(const std::vector<std::string>& symbols, FileReport& report) {
    for (std::size_t i = 0; i < symbols.size() && i < kMostSymbols; ++i)
        report.fault("unresolved-symbol",
                     "needs '" + symbols[i] + "', which nothing that it loads defines",
                     "link what defines it (-l...), or define it");
    if (symbols.size() > kMostSymbols)
        report.fault("unresolved-symbol",
                     "needs " + std::to_string(symbols.size() - kMostSymbols) +
                         " more symbols that nothing defines",
                     "link it with -Wl,--no-undefined to see them all");
}

} // namespace

bool checkLinks(const LinkTrace& trace, FileReport& report) {
    for (const std::string& library : trace.missingLibraries)
        report.fault("missing-library", "needs " + library + ", which is not found",
                     "install it, or link with -Wl,-rpath,'$ORIGIN' and put it beside the file");
    for (const std::string& version : trace.missingVersions)
        report.fault("missing-version", "does not fit a library of this machine: " + version,
                     "build it on a system as old as this one");
    if (!trace.failure.empty())
        report.fault("not-linked", "is refused by the dynamic linker: " + trace.failure,
                     "build it again with this machine's compiler and linker");
    const bool areLibrariesThere = trace.missingLibraries.empty() && trace.missingVersions.empty();
    // those of a missing library are no news
    if (areLibrariesThere)
        addSymbols(trace.missingSymbols, report);
    return areLibrariesThere && trace.failure.empty();
}

} // namespace ktr::cli
