#include "Library.h"

#include "support/TempDir.h"

#include <Poco/Process.h>

#include <fcntl.h>
#include <filesystem>
#include <gelf.h>
#include <stdexcept>
#include <unistd.h>

namespace ktr::bench {
namespace {

class ElfFile {
public:
    explicit ElfFile(const std::string& path)
        : fd((elf_version(EV_CURRENT), open(path.c_str(), O_RDONLY | O_CLOEXEC))),
          elf(elf_begin(fd, ELF_C_READ, nullptr)) {
        if (elf == nullptr)
            throw std::runtime_error("cannot read " + path);
    }
    ~ElfFile() {
        elf_end(elf);
        close(fd);
    }
    ElfFile(const ElfFile&) = delete;
    ElfFile& operator=(const ElfFile&) = delete;

    Elf* get() const { return elf; }

private:
    const int fd;
    Elf* const elf;
};

} // namespace

double strippedSize(const std::string& path) {
    const test::TempDir folder;
    const std::string stripped = folder / "stripped";
    if (Poco::Process::launch(KETRA_STRIP, {"-o", stripped, path}).wait() != 0)
        throw std::runtime_error("cannot strip " + path);
    return static_cast<double>(std::filesystem::file_size(stripped));
}

double relocations(const std::string& path) {
    const ElfFile file(path);
    std::size_t count = 0;
    for (Elf_Scn* section = nullptr; (section = elf_nextscn(file.get(), section)) != nullptr;) {
        GElf_Shdr header{};
        if (gelf_getshdr(section, &header) == nullptr)
            throw std::runtime_error("cannot read the sections of " + path);
        const bool isRelocation = header.sh_type == SHT_RELA || header.sh_type == SHT_REL;
        if (isRelocation && (header.sh_flags & SHF_ALLOC) != 0)
            count += header.sh_size / header.sh_entsize;
    }
    return static_cast<double>(count);
}

} // namespace ktr::bench
