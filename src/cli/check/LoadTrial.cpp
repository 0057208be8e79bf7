#include "LoadTrial.h"

#include "../CommandLine.h"
#include "ChildRun.h"
#include "Trial.h"

#include <Poco/String.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <unistd.h>

namespace ktr::cli {
namespace {

class TemporaryFolder {
public:
    TemporaryFolder() {
        std::string name = (std::filesystem::temp_directory_path() / "ketra-check-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr)
            throw Failure(ExitCannotCreate, "cannot make the folder " + name + ": " +
                                                std::strerror(errno) +
                                                "; name one that can be written to in TMPDIR");
        path = name;
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::filesystem::path path;
};

/// Turns what the trial told into findings.
class Judge {
public:
    Judge(FileReport& report_, std::chrono::seconds limit_) : report(report_), limit(limit_) {}

    void judge(const ChildEnd& end) {
        for (std::size_t at = 0; at < end.report.size();) {
            const auto stop = std::min(end.report.find('\0', at), end.report.size());
            take(end.report.substr(at, stop - at));
            at = stop + 1;
        }
        judgeEnd(end);
        judgeRegistration();
    }

private:
    void take(const std::string& record) {
        const std::string key = record.substr(0, record.find('='));
        const std::string value = record.substr(std::min(record.find('='), record.size() - 1) + 1);
        if (key == "step")
            step = value;
        else if (key == "done")
            isDone = true;
        else if (key == "type")
            report.type = std::atoi(value.c_str());
        else if (key == "name")
            report.name = value;
        else if (key == "guid")
            report.guid = value;
        else
            takeFault(key, value);
    }

    void takeFault(const std::string& key, const std::string& value) {
        if (key == "registers")
            registered = value;
        else if (key == "unregisters" && registered == value)
            registered.reset();
        else if (key == "empty" && !has("empty-factory"))
            report.fault("empty-factory", "registers an empty factory for '" + value + "'",
                         "hand ktr::registerPlugin a function that makes the plugin's object");
        else if (key == "null")
            report.fault(value == "PluginName" ? "null-name" : "null-guid",
                         "answers null in " + value + ", which ends the host",
                         "return a text that lives as long as the library");
        else if (key == "refused")
            report.fault("not-loaded", "is refused by the dynamic linker: " + value,
                         "link what it needs, and compile it with -fPIC");
        else if (key == "threw")
            report.fault("throws", "throws " + where() + ": " + value,
                         "catch it there, and log it: the host gives such a plugin up");
        else if (key == "threw-unknown")
            report.fault("throws-unknown",
                         "throws " + where() + " what is no std::exception, which ends the host",
                         "throw nothing there, and elsewhere what derives from std::exception");
    }

    void judgeEnd(const ChildEnd& end) {
        if (end.how == ChildEnd::How::TimedOut)
            report.fault("hangs",
                         "was not done within " + std::to_string(limit.count()) + " s " + where(),
                         "leave what takes long to a thread that the object's start() begins");
        else if (end.how == ChildEnd::How::Flooded)
            report.fault("floods-output", "writes without end " + where(),
                         "write less there; log with ktr::cachedLogger()");
        else if (end.how == ChildEnd::How::Signalled)
            report.fault("crashes",
                         "ends the process by signal " + std::to_string(end.number) + " (" +
                             strsignal(end.number) + ") " + where() + lastWords(end),
                         "run it in a debugger, or build it with -fsanitize=address,undefined");
        else if (end.how == ChildEnd::How::Exited && !isDone)
            report.fault("exits",
                         "ends the process with exit code " + std::to_string(end.number) + " " +
                             where() + lastWords(end),
                         "throw a std::exception where the plugin cannot go on");
    }

    void judgeRegistration() {
        if (report.guid && report.guid->empty())
            report.fault("empty-guid", "answers an empty text in PluginGuid, so it cannot register",
                         "return the guid that its microservice reports");
        report.registered = registered && registered == report.guid && !registered->empty();
        if (!isDone || *report.registered || step != "PluginLoad" || !report.guid ||
            report.guid->empty() || has("empty-factory"))
            return;
        report.fault(
            "not-registered",
            !registered ? "is loaded, but no factory is registered when PluginLoad returns"
                        : "registers its factory for '" + *registered +
                              "', but PluginGuid answers '" + *report.guid + "'",
            "call ktr::registerPlugin in PluginLoad with the text that PluginGuid returns");
    }

    bool has(const std::string& rule) const {
        return std::any_of(report.findings.begin(), report.findings.end(),
                           [&](const Finding& finding) { return finding.rule == rule; });
    }

    /// As in "hangs in PluginLoad".
    std::string where() const {
        return step == "loading" || step.empty() ? "while its static objects are made"
                                                 : "in " + step;
    }

    static std::string lastWords(const ChildEnd& end) {
        const std::string text = Poco::trim(end.output);
        const std::string line = text.substr(text.rfind('\n') + 1, 200);
        return line.empty() ? "" : "; its last line was: " + line;
    }

    FileReport& report;
    const std::chrono::seconds limit;
    std::string step;
    bool isDone = false;
    std::optional<std::string> registered;
};

} // namespace

void tryLoading(FileReport& report, std::chrono::seconds limit) {
    const HeldSignals signals;
    const TemporaryFolder folder;
    const ChildEnd end = runChild(signals, limit, [&](int told) {
        if (chdir(folder.path.c_str()) == 0)
            runTrial(report.path, told);
    });
    if (end.how != ChildEnd::How::Interrupted)
        Judge(report, limit).judge(end);
}

} // namespace ktr::cli
