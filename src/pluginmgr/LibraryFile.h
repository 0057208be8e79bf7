#pragma once

#include <Poco/Exception.h>

#include <cstring>
#include <fstream>
#include <link.h>
#include <string>
#include <type_traits>

namespace ktr {

/// Throws Poco::LibraryLoadException if the file ends before what is to be mapped of it, as one
/// does that was copied in part. The dynamic linker would map it all the same, and the process
/// would die of SIGBUS where something is missing. Whatever else is wrong with a file is left to
/// the linker.
inline void refuseTruncatedLibrary(const std::string& path) {
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    const auto size = static_cast<std::make_unsigned_t<std::streamoff>>(file.tellg());
    const auto read = [&file](auto& part) {
        return !file.read(reinterpret_cast<char*>(&part), sizeof part).fail();
    };
    ElfW(Ehdr) header{};
    file.seekg(0);
    if (!read(header) || std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 ||
        header.e_phentsize != sizeof(ElfW(Phdr)))
        return;
    file.seekg(static_cast<std::streamoff>(header.e_phoff));
    ElfW(Phdr) part{};
    for (int i = 0; i < header.e_phnum && read(part); ++i)
        if (part.p_type == PT_LOAD && part.p_filesz > 0 &&
            (part.p_offset > size || part.p_filesz > size - part.p_offset))
            throw Poco::LibraryLoadException(path + ": file truncated");
}

} // namespace ktr
