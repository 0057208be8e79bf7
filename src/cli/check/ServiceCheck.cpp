#include "ServiceCheck.h"

#include "ElfFile.h"
#include "Installation.h"
#include "LinkFindings.h"
#include "MachineCheck.h"
#include "ScriptCheck.h"
#include "SearchPath.h"

#include "host/ShellCommand.h"

#include <fcntl.h>
#include <map>
#include <system_error>
#include <unistd.h>

namespace ktr::cli {
namespace {

std::string nameOf(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

bool isExecutable(const std::string& path) {
    return faccessat(AT_FDCWD, path.c_str(), X_OK, AT_EACCESS) == 0;
}

void checkProgram(const ElfFile& file, FileReport& report) {
    if (!checkMachine(file, report))
        return;
    if (!file.isProgram())
        report.fault("not-a-program",
                     "is an ELF file, but no program, so it cannot be launched; the host tries to "
                     "as long as it is executable",
                     "put libraries elsewhere, or see that it is not launched: " +
                         host::shellCommand("chmod a-x", report.path));
    else if (!file.interpreter.empty() && !isExecutable(file.interpreter))
        report.fault("missing-interpreter",
                     "needs the dynamic linker " + file.interpreter + ", which is not there",
                     "build it for this machine's C library");
    else if (file.interpreter == installation().interpreter)
        checkLinks(traceProgram(report.path), report);
}

void checkName(FileReport& report) {
    const std::string name = nameOf(report.path);
    if (const std::string other = otherProgram(name, report.path); !other.empty())
        report.fault("common-name",
                     "bears the name of " + other +
                         ", which the host ends, wherever it runs, when it starts its services",
                     "give it a name that nothing else has");
}

} // namespace

void checkService(FileReport& report) {
    if (!isExecutable(report.path))
        report.hint("not-executable", "is not executable, so it is not launched",
                    "make it executable, if it is a service: " +
                        host::shellCommand("chmod a+x", report.path));
    else
        checkName(report);
    try {
        if (const std::optional<ElfFile> file = readElf(report.path))
            checkProgram(*file, report);
        else
            checkScript(report);
    } catch (const std::system_error& e) {
        report.fault("unreadable", std::string("cannot be read: ") + e.code().message(),
                     "let the host's user read it");
    }
}

void checkServiceNames(std::vector<FileReport>& reports) {
    std::map<std::pair<std::string, std::string>, std::vector<FileReport*>> byName;
    for (FileReport& report : reports)
        if (report.kind == "service" && isExecutable(report.path))
            byName[{report.device, nameOf(report.path)}].push_back(&report);
    for (const auto& [key, bearers] : byName)
        for (std::size_t i = 0; bearers.size() > 1 && i < bearers.size(); ++i)
            bearers[i]->fault("duplicate-name",
                              "has the file name of " + bearers[i == 0 ? 1 : 0]->path +
                                  ", and what is ended by name ends both",
                              "give each service a file name of its own");
}

} // namespace ktr::cli
