#pragma once

#include <map>
#include <optional>
#include <string>

namespace ktr::cli {

/// What an ELF file says of itself.
struct ElfFile {
    // ELFCLASS32 or ELFCLASS64, ELFDATA2LSB or ELFDATA2MSB, EM_..., ET_...
    int width = 0;
    int byteOrder = 0;
    int machine = 0;
    int type = 0;
    /// The program that the kernel runs it with; empty if it names none.
    std::string interpreter;
    bool isDynamic = false;
    bool saysItIsAProgram = false;
    /// Something that its headers name lies behind the end of the file.
    bool isTruncated = false;
    /// Without a table of its symbols nothing can be said about them.
    bool hasSymbolTable = false;
    /// The symbols that others can use, and whether each is a function.
    std::map<std::string, bool> exported;
    /// The text of its note for Ketra.
    std::optional<std::string> note;

    /// Whether so much as its header is complete.
    bool hasHeader() const { return width != 0; }
    /// Runs by itself, rather than being loaded by others.
    bool isProgram() const;
    bool isSharedObject() const;
    bool runsWhere(const ElfFile& other) const;
    /// Such as "64-bit x86-64".
    std::string architecture() const;
};

/// Nothing if the file is no ELF file. Throws std::system_error if it cannot be read.
std::optional<ElfFile> readElf(const std::string& path);

} // namespace ktr::cli
