#pragma once

#include <Poco/Exception.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <link.h>
#include <string>
#include <unistd.h>

namespace ktr {

/// A file whose headers are read. They lie at its start as a rule, where one read brings them all;
/// a stream would take three and read far beyond them.
class LibraryFile {
public:
    explicit LibraryFile(const std::string& path)
        : file(open(path.c_str(), O_RDONLY | O_CLOEXEC)),
          startSize(pread(file, start.data(), start.size(), 0)) {}
    ~LibraryFile() {
        if (file >= 0)
            close(file);
    }
    LibraryFile(const LibraryFile&) = delete;
    LibraryFile& operator=(const LibraryFile&) = delete;

    std::uint64_t size() const {
        return static_cast<std::uint64_t>(std::max<off_t>(lseek(file, 0, SEEK_END), 0));
    }

    /// Whether all of `part` is there.
    template <class Part>
    bool read(std::uint64_t offset, Part& part) const {
        const auto known = static_cast<std::uint64_t>(std::max<ssize_t>(startSize, 0));
        if (offset > known || sizeof part > known - offset)
            return pread(file, &part, sizeof part, static_cast<off_t>(offset)) == sizeof part;
        std::memcpy(&part, start.data() + offset, sizeof part);
        return true;
    }

private:
    const int file;
    std::array<char, 1024> start;
    const ssize_t startSize;
};

/// Throws Poco::LibraryLoadException if the file ends before what is to be mapped of it, as one
/// does that was copied in part. The dynamic linker would map it all the same, and the process
/// would die of SIGBUS where something is missing. Whatever else is wrong with a file is left to
/// the linker.
inline void refuseTruncatedLibrary(const std::string& path) {
    const LibraryFile file(path);
    ElfW(Ehdr) header{};
    if (!file.read(0, header) || std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 ||
        header.e_phentsize != sizeof(ElfW(Phdr)))
        return;
    const std::uint64_t size = file.size();
    ElfW(Phdr) part{};
    for (unsigned i = 0; i < header.e_phnum && file.read(header.e_phoff + i * sizeof part, part);
         ++i)
        if (part.p_type == PT_LOAD && part.p_filesz > 0 &&
            (part.p_offset > size || part.p_filesz > size - part.p_offset))
            throw Poco::LibraryLoadException(path + ": file truncated");
}

} // namespace ktr
