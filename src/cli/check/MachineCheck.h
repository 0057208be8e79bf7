#pragma once

#include "ElfFile.h"
#include "FileReport.h"

namespace ktr::cli {

/// Whether the file is whole and for this installation's machine; reports what it is instead.
bool checkMachine(const ElfFile& file, FileReport& report);

} // namespace ktr::cli
