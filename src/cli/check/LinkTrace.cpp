#include "LinkTrace.h"

#include "ChildRun.h"
#include "Installation.h"

#include <cstdlib>
#include <cxxabi.h>
#include <memory>
#include <sstream>
#include <unistd.h>

namespace ktr::cli {
namespace {

// far more than it takes, so that a file system that hangs is told of
constexpr std::chrono::seconds kLimit{60};

void execLinker(std::vector<std::string> words) {
    setenv("LD_TRACE_LOADED_OBJECTS", "1", 1);
    // says what is missing, symbols included, rather than what is there
    setenv("LD_WARN", "yes", 1);
    setenv("LD_BIND_NOW", "yes", 1);
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    execv(arguments[0], arguments.data());
    _exit(127);
}

std::string demangled(const std::string& symbol) {
    struct Free {
        void operator()(char* text) const { std::free(text); }
    };
    int status = 0;
    const std::unique_ptr<char, Free> text(
        abi::__cxa_demangle(symbol.c_str(), nullptr, nullptr, &status));
    return text ? text.get() : symbol;
}

bool take(std::string& line, const std::string& start) {
    if (line.rfind(start, 0) != 0)
        return false;
    line.erase(0, start.size());
    return true;
}

/// "NAME\t(FILE)", as the linker has it.
std::string symbolOf(const std::string& line, const std::string& path) {
    const auto tab = line.find('\t');
    std::string symbol = demangled(line.substr(0, line.find_first_of(",\t")));
    if (tab == std::string::npos || line.compare(tab, std::string::npos, "\t(" + path + ")") == 0)
        return symbol;
    return symbol + " " + line.substr(tab + 1);
}

LinkTrace readTrace(const std::string& text, const std::string& path) {
    LinkTrace trace;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (const auto at = line.find(" => not found"); at != std::string::npos)
            trace.missingLibraries.push_back(line.substr(1, at - 1));
        else if (take(line, "undefined symbol: "))
            trace.missingSymbols.push_back(symbolOf(line, path));
        else if (line.find(": version `") != std::string::npos)
            trace.missingVersions.push_back(line.substr(line.find(": version `") + 2));
        else if (take(line, "symbol "))
            trace.missingVersions.push_back("symbol " + line);
    }
    return trace;
}

LinkTrace runTrace(const std::vector<std::string>& words, const std::string& path) {
    const HeldSignals signals;
    const ChildEnd end = runChild(signals, kLimit, [&](int) { execLinker(words); });
    LinkTrace trace = readTrace(end.output, path);
    if (end.how != ChildEnd::How::Exited)
        trace.failure = "was given up or ended by a signal";
    else if (end.number != 0 && trace.missingLibraries.empty() && trace.missingVersions.empty())
        trace.failure = end.output.substr(0, end.output.find('\n'));
    return trace;
}

} // namespace

LinkTrace traceLibrary(const std::string& path) {
    std::string loaded;
    for (const std::string& library : hostLibraries())
        loaded += (loaded.empty() ? "" : ":") + library;
    return runTrace({installation().interpreter, "--preload", loaded, path}, path);
}

LinkTrace traceProgram(const std::string& path) {
    return runTrace({installation().interpreter, path}, path);
}

} // namespace ktr::cli
