#pragma once

#include "ElfFile.h"
#include "FileReport.h"

namespace ktr::cli {

/// Compares what a plugin notes of how it was built with this installation.
void checkNote(const ElfFile& file, FileReport& report);

} // namespace ktr::cli
