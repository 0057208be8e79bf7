#include "StrictModes.h"

#include "Printable.h"

#include "ktr/common/Logger.h"

#include <iostream>

namespace ktr::host {

StrictModes::StrictModes(const Settings& settings)
    : isStrict(settings.strictModes), logsToFile(!settings.logFile.empty()), check(settings.root) {}

bool StrictModes::mayUse(const std::string& tree, const std::string& isLeftOut) {
    const TreeCheck::Findings findings = check.run(tree);
    for (const TreeCheck::Violation& violation : findings.violations)
        tell(violation.path + " " + violation.fault + "; mend it with: " + violation.remedy);
    if (findings.more > 0)
        tell("and " + std::to_string(findings.more) + " more paths of " + tree + "/");
    if (findings.safe || !isStrict)
        return true;
    tell(tree + "/ " + isLeftOut +
         ", since others than root and the host's user can change what it holds; mend the paths "
         "named above and start again, or start with --no-strict-modes");
    return false;
}

void StrictModes::tell(const std::string& text) const {
    const std::string line = printable(text);
    const auto priority = isStrict ? Poco::Message::PRIO_ERROR : Poco::Message::PRIO_WARNING;
    const bool isLogged = cachedLogger().is(priority);
    if (isLogged)
        cachedLogger().log(
            Poco::Message(cachedLogger().name(), line, priority, __FILE__, __LINE__));
    if (isStrict && (logsToFile || !isLogged))
        std::cerr << "ketra-host: " << line << std::endl;
}

} // namespace ktr::host
