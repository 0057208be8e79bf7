#include "NoteCheck.h"

#include "Installation.h"

#include "ktr/Version.h"

#include <map>
#include <sstream>

namespace ktr::cli {
namespace {

constexpr const char* kBuildAnew = "build it anew with the headers and libraries of this "
                                   "installation";

std::map<std::string, std::string> readNote(const std::string& text) {
    std::map<std::string, std::string> values;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        if (const auto at = line.find('='); at != std::string::npos)
            values[line.substr(0, at)] = line.substr(at + 1);
    return values;
}

/// Versions that differ in the last number only go together.
std::string majorAndMinor(const std::string& version) {
    return version.substr(0, version.find('.', version.find('.') + 1));
}

} // namespace

void checkNote(const ElfFile& file, FileReport& report) {
    if (!file.note) {
        report.hint("no-build-note",
                    "does not say what it was built with, so that cannot be compared",
                    "make its entry points by KETRA_PLUGIN, of ktr/PluginEntry.h");
        return;
    }
    std::map<std::string, std::string> noted = readNote(*file.note);
    for (const char* key : {"ktr", "poco", "compiler", "cxx11abi"})
        if (noted.count(key) == 0) {
            report.hint("no-build-note", std::string("does not note its \"") + key + "\"",
                        kBuildAnew);
            return;
        }
    if (majorAndMinor(noted["ktr"]) != majorAndMinor(KTR_VERSION))
        report.fault("other-ketra",
                     "was built for Ketra " + noted["ktr"] +
                         ", this installation is " KTR_VERSION
                         ": what they call of each other may differ",
                     "build it with the package ketra-dev of this version");
    if (noted["cxx11abi"] != installedCxx11Abi())
        report.fault("other-cxx11-abi",
                     "was built with _GLIBCXX_USE_CXX11_ABI=" + noted["cxx11abi"] +
                         ", this installation with " + installedCxx11Abi() +
                         ": texts have another layout",
                     "build it with -D_GLIBCXX_USE_CXX11_ABI=" + installedCxx11Abi());
    if (majorAndMinor(noted["poco"]) != majorAndMinor(installedPoco()))
        report.fault("other-poco",
                     "was built with POCO " + noted["poco"] + ", this installation with " +
                         installedPoco() + ": objects have another layout",
                     "build it with POCO " + majorAndMinor(installedPoco()));
    if (noted["compiler"] != installedCompiler())
        report.hint("other-compiler",
                    "was built by '" + noted["compiler"] + "', this installation by '" +
                        installedCompiler() + "'",
                    "build it by the same compiler if it misbehaves");
}

} // namespace ktr::cli
