#pragma once

#include "FileReport.h"

#include <iosfwd>
#include <vector>

namespace ktr::cli {

std::size_t countOf(Severity severity, const std::vector<FileReport>& reports);

/// For people: a paragraph for each file, and a line with the counts.
void printText(const std::vector<FileReport>& reports, std::ostream& out);

/// For scripts: one JSON document.
void printJson(const std::vector<FileReport>& reports, std::ostream& out);

} // namespace ktr::cli
