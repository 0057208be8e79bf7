#include "LibraryCheck.h"

#include "ElfFile.h"
#include "LinkFindings.h"
#include "MachineCheck.h"
#include "NoteCheck.h"

#include <array>
#include <elf.h>
#include <system_error>
#include <utility>

namespace ktr::cli {
namespace {

constexpr std::array<std::pair<const char*, const char*>, 5> kSignatures{{
    {"PluginLoad", "void PluginLoad()"},
    {"PluginUnLoad", "void PluginUnLoad()"},
    {"PluginType", "std::int32_t PluginType()"},
    {"PluginName", "const char* PluginName()"},
    {"PluginGuid", "const char* PluginGuid()"},
}};

void checkName(FileReport& report) {
    const std::string name = report.path.substr(report.path.rfind('/') + 1);
    if (name.find("libKetraPlugin") == std::string::npos)
        report.fault("file-name",
                     "has no \"libKetraPlugin\" in its file name, so the host does not load it",
                     "rename it to libKetraPlugin<Name>.so");
}

/// Whether it is a library at all, for this machine.
bool checkKind(const ElfFile& file, FileReport& report) {
    if (!checkMachine(file, report))
        return false;
    if (!file.isSharedObject() || !file.isDynamic)
        report.fault("not-shared",
                     std::string("is an ELF file, but no shared library") +
                         (file.isProgram()      ? ": it is a program"
                          : file.type == ET_REL ? ": it is an object file"
                                                : ""),
                     "link it with -shared from objects compiled with -fPIC");
    else
        return true;
    return false;
}

void checkEntryPoints(const ElfFile& file, FileReport& report) {
    if (!file.hasSymbolTable) {
        report.hint("no-symbol-table", "has no table of its symbols, so they cannot be looked at",
                    "keep its section headers: strip it with 'strip' alone");
        return;
    }
    for (const auto& [name, signature] : kSignatures) {
        const std::string declared = "extern \"C\" KTR_API " + std::string(signature);
        const auto at = file.exported.find(name);
        if (at == file.exported.end())
            report.fault("missing-entry-point", "does not export " + std::string(name),
                         "define it as: " + declared);
        else if (!at->second)
            report.fault("entry-point-no-function",
                         "exports " + std::string(name) + ", but it is no function",
                         "define it as: " + declared);
    }
}

} // namespace

bool checkLibrary(FileReport& report) {
    checkName(report);
    std::optional<ElfFile> file;
    try {
        file = readElf(report.path);
    } catch (const std::system_error& e) {
        report.fault("unreadable", std::string("cannot be read: ") + e.code().message(),
                     "let the host's user read it");
        return false;
    }
    if (!file) {
        report.fault("not-elf", "is no ELF file, so it cannot be loaded",
                     "build it as a shared library, or take \"libKetraPlugin\" out of its name");
        return false;
    }
    if (!checkKind(*file, report))
        return false;
    checkEntryPoints(*file, report);
    checkNote(*file, report);
    return checkLinks(traceLibrary(report.path), report);
}

} // namespace ktr::cli
