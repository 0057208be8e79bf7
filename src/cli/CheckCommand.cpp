#include "Commands.h"
#include "check/GuidCheck.h"
#include "check/LibraryCheck.h"
#include "check/LoadTrial.h"
#include "check/OwnerCheck.h"
#include "check/Report.h"
#include "check/ServiceCheck.h"
#include "check/Subjects.h"

#include <Poco/NumberParser.h>

#include <iostream>
#include <pwd.h>
#include <unistd.h>

namespace ktr::cli {
namespace {

constexpr std::int64_t kDefaultTimeout = 10;
constexpr std::int64_t kLongestTimeout = 3600;

uid_t userOf(const Arguments& arguments) {
    const std::optional<std::string> name = arguments.value("user");
    if (!name)
        return geteuid();
    if (const struct passwd* entry = getpwnam(name->c_str()))
        return entry->pw_uid;
    unsigned number = 0;
    if (Poco::NumberParser::tryParseUnsigned(*name, number))
        return number;
    throw Failure(ExitUsage, "there is no user '" + *name + "'; name one, or its number");
}

void treatHintsAsFaults(std::vector<FileReport>& reports) {
    for (FileReport& report : reports)
        for (Finding& finding : report.findings)
            finding.severity = Severity::Fault;
}

int runCheck(const Arguments& arguments) {
    const std::chrono::seconds limit(
        arguments.number("timeout", 1, kLongestTimeout).value_or(kDefaultTimeout));
    const uid_t user = userOf(arguments);
    if (arguments.operands.empty())
        throw Failure(ExitUsage, "name what to check; see 'ketra check --help'");

    auto [reports, trees] = findSubjects(arguments.operands);
    for (FileReport& report : reports)
        if (report.kind == "service")
            checkService(report);
        else if (checkLibrary(report) && !arguments.has("no-load"))
            tryLoading(report, limit);
    checkGuids(reports);
    checkServiceNames(reports);
    checkOwners(trees, user, reports);
    if (arguments.has("strict"))
        treatHintsAsFaults(reports);

    if (arguments.has("json"))
        printJson(reports, std::cout);
    else
        printText(reports, std::cout);
    return countOf(Severity::Fault, reports) == 0 ? ExitSuccess : ExitFindings;
}

} // namespace

Command checkCommand() {
    return {"check",
            "find what is wrong with plugins and microservices before a host does",
            "PATH...",
            "Checks plugins and microservices as they lie in PATH: a plugin's library, a\n"
            "service's file, a folder 'plugins' or 'microservices', or a device's root that\n"
            "holds them.\n"
            "\n"
            "Each library is looked into, and then loaded as the host does it, in a process\n"
            "of its own with a time limit: its code runs as the user who checks. A service\n"
            "is never run. Of folders, owner and mode are looked at as the host does it.\n"
            "Each finding is a fault, or a hint that deserves a look, and comes with a remedy.",
            {{"no-load", "", "look into libraries only, and run nothing of them"},
             {"timeout", "SECONDS", "how long loading a plugin may take, 1 to 3600; default 10"},
             {"user", "NAME", "the host's user, whom the files may belong to; default: you"},
             {"strict", "", "take hints for faults"},
             {"json", "", "print one JSON document"}},
            "  0   no fault was found\n"
            "  1   there are faults\n"
            "  64  a bad option, or a folder without plugins and microservices\n"
            "  66  a path does not exist\n"
            "  71  the system refused a process or a descriptor\n"
            "  73  no temporary folder can be made\n",
            runCheck};
}

} // namespace ktr::cli
