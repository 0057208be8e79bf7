#include "MachineCheck.h"

#include "Installation.h"

namespace ktr::cli {

bool checkMachine(const ElfFile& file, FileReport& report) {
    const ElfFile& own = installation();
    if (file.hasHeader() && !file.runsWhere(own))
        report.fault("wrong-architecture",
                     "is " + file.architecture() + "; this installation is " + own.architecture(),
                     "build it with a compiler for " + own.architecture());
    else if (file.isTruncated)
        report.fault("truncated", "is not complete: it ends before what its headers name",
                     "copy or build it again");
    else
        return true;
    return false;
}

} // namespace ktr::cli
