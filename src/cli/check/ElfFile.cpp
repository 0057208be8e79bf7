#include "ElfFile.h"

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <gelf.h>
#include <memory>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace ktr::cli {
namespace {

// the note that a plugin's entry points leave
constexpr const char* kNoteOwner = "Ketra";
constexpr GElf_Word kNoteType = 1;

struct EndElf {
    void operator()(Elf* elf) const { elf_end(elf); }
};

class File {
public:
    explicit File(const std::string& path) : descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
        struct stat status {};
        if (descriptor < 0 || fstat(descriptor, &status) != 0)
            throw std::system_error(errno, std::generic_category(), path);
        size = static_cast<std::uint64_t>(status.st_size);
    }
    ~File() { close(descriptor); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    const int descriptor;
    std::uint64_t size = 0;
};

/// The bytes that stand in the file for a segment.
Elf_Data* bytesOf(Elf* elf, const GElf_Phdr& segment, Elf_Type type) {
    return elf_getdata_rawchunk(elf, static_cast<std::int64_t>(segment.p_offset), segment.p_filesz,
                                type);
}

std::string textOf(const char* start, std::size_t size) {
    const std::string text(start, size);
    return text.substr(0, text.find('\0'));
}

void readNotes(Elf* elf, const GElf_Phdr& segment, ElfFile& file) {
    Elf_Data* data = bytesOf(elf, segment, segment.p_align == 8 ? ELF_T_NHDR8 : ELF_T_NHDR);
    if (data == nullptr)
        return;
    GElf_Nhdr note{};
    std::size_t nameAt = 0;
    std::size_t textAt = 0;
    for (std::size_t at = 0; (at = gelf_getnote(data, at, &note, &nameAt, &textAt)) > 0;) {
        const char* bytes = static_cast<const char*>(data->d_buf);
        if (note.n_type == kNoteType && textOf(bytes + nameAt, note.n_namesz) == kNoteOwner)
            file.note = textOf(bytes + textAt, note.n_descsz);
    }
}

void readSegments(Elf* elf, std::uint64_t size, ElfFile& file) {
    std::size_t count = 0;
    elf_getphdrnum(elf, &count);
    for (int i = 0; i < static_cast<int>(count); ++i) {
        GElf_Phdr segment{};
        if (gelf_getphdr(elf, i, &segment) == nullptr) {
            file.isTruncated = true;
            return;
        }
        const bool isThere =
            segment.p_offset <= size && segment.p_filesz <= size - segment.p_offset;
        if (segment.p_type == PT_LOAD && !isThere)
            file.isTruncated = true;
        if (segment.p_type == PT_DYNAMIC)
            file.isDynamic = true;
        if (segment.p_type == PT_NOTE && isThere)
            readNotes(elf, segment, file);
        if (segment.p_type == PT_INTERP && isThere)
            if (const Elf_Data* data = bytesOf(elf, segment, ELF_T_BYTE))
                file.interpreter = textOf(static_cast<const char*>(data->d_buf), data->d_size);
    }
}

void readDynamic(Elf_Data* data, std::size_t count, ElfFile& file) {
    GElf_Dyn entry{};
    for (int i = 0; i < static_cast<int>(count) && gelf_getdyn(data, i, &entry) != nullptr; ++i)
        if (entry.d_tag == DT_FLAGS_1 && (entry.d_un.d_val & DF_1_PIE) != 0)
            file.saysItIsAProgram = true;
}

void readSymbols(Elf* elf, Elf_Data* data, const GElf_Shdr& section, ElfFile& file) {
    file.hasSymbolTable = true;
    GElf_Sym symbol{};
    const std::size_t count = section.sh_size / section.sh_entsize;
    for (int i = 0; i < static_cast<int>(count) && gelf_getsym(data, i, &symbol) != nullptr; ++i) {
        const char* name = elf_strptr(elf, section.sh_link, symbol.st_name);
        const int visibility = GELF_ST_VISIBILITY(symbol.st_other);
        const int type = GELF_ST_TYPE(symbol.st_info);
        if (name != nullptr && symbol.st_shndx != SHN_UNDEF &&
            GELF_ST_BIND(symbol.st_info) != STB_LOCAL && visibility != STV_HIDDEN &&
            visibility != STV_INTERNAL)
            file.exported[name] = type == STT_FUNC || type == STT_GNU_IFUNC;
    }
}

void readSections(Elf* elf, ElfFile& file) {
    for (Elf_Scn* at = nullptr; (at = elf_nextscn(elf, at)) != nullptr;) {
        GElf_Shdr section{};
        if (gelf_getshdr(at, &section) == nullptr || section.sh_entsize == 0)
            continue;
        Elf_Data* data = elf_getdata(at, nullptr);
        if (data == nullptr)
            continue;
        if (section.sh_type == SHT_DYNAMIC)
            readDynamic(data, section.sh_size / section.sh_entsize, file);
        if (section.sh_type == SHT_DYNSYM)
            readSymbols(elf, data, section, file);
    }
}

std::string machineName(int machine) {
    switch (machine) {
    case EM_X86_64:
        return "x86-64";
    case EM_386:
        return "x86";
    case EM_AARCH64:
    case EM_ARM:
        return "ARM";
    case EM_RISCV:
        return "RISC-V";
    default:
        return "machine " + std::to_string(machine);
    }
}

} // namespace

bool ElfFile::isProgram() const {
    return type == ET_EXEC || (type == ET_DYN && (saysItIsAProgram || !interpreter.empty()));
}

bool ElfFile::isSharedObject() const {
    return type == ET_DYN && !saysItIsAProgram;
}

bool ElfFile::runsWhere(const ElfFile& other) const {
    return width == other.width && byteOrder == other.byteOrder && machine == other.machine;
}

std::string ElfFile::architecture() const {
    return (width == ELFCLASS64 ? "64-bit " : "32-bit ") + machineName(machine) +
           (byteOrder == ELFDATA2MSB ? ", big-endian" : "");
}

std::optional<ElfFile> readElf(const std::string& path) {
    elf_version(EV_CURRENT);
    const File source(path);
    const std::unique_ptr<Elf, EndElf> elf(elf_begin(source.descriptor, ELF_C_READ, nullptr));
    if (!elf || elf_kind(elf.get()) != ELF_K_ELF)
        return std::nullopt;
    ElfFile file;
    GElf_Ehdr header{};
    if (gelf_getehdr(elf.get(), &header) == nullptr) {
        file.isTruncated = true;
        return file;
    }
    file.width = header.e_ident[EI_CLASS];
    file.byteOrder = header.e_ident[EI_DATA];
    file.machine = header.e_machine;
    file.type = header.e_type;
    // the table of sections stands at the end as a rule, so it shows that something was cut off
    file.isTruncated = header.e_shoff > source.size;
    readSegments(elf.get(), source.size, file);
    readSections(elf.get(), file);
    return file;
}

} // namespace ktr::cli
