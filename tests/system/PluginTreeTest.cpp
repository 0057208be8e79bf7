#include "PluginHost.h"

#include <elf.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace ktr::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

std::string machineFor(std::uint16_t machine) {
    return {reinterpret_cast<const char*>(&machine), sizeof machine};
}

class PluginTreeTest : public PluginHostTest {
protected:
    std::filesystem::path place(const std::filesystem::path& below) const {
        std::filesystem::create_directories((root.plugins() / below).parent_path());
        return root.plugins() / below;
    }

    std::filesystem::path put(const std::string& name, const std::filesystem::path& below) const {
        install(fixture(name), place(below));
        return place(below);
    }

    std::filesystem::path write(const std::string& fileName, const std::string& bytes) const {
        std::ofstream(place(fileName), std::ios::binary) << bytes;
        return place(fileName);
    }

    /// Which files the host says that it loaded, in that order.
    std::vector<std::string> loaded() const {
        std::vector<std::string> paths;
        const std::string begin = "plugin '";
        const std::string end = "' loaded";
        for (const std::string& text : logged("Information"))
            if (text.rfind(begin, 0) == 0 && countOf(text, end) == 1)
                paths.push_back(text.substr(begin.size(), text.size() - begin.size() - end.size()));
        return paths;
    }
};

TEST_F(PluginTreeTest, OpensWhatBearsTheMarkerInItsNameAtAnyDepthAndNothingElse) {
    const auto deep = put("Complete", "a/b/c/d/e/f/libKetraPluginDeep.so");
    const auto marked = put("NoName", "my-libKetraPlugin.bin");
    put("Stranger", "libketraplugin.so");
    put("Minimal", "KetraPluginMinimal.so");
    put("NoType", "libKetraPluginFolder/other.so");
    startHost();
    EXPECT_THAT(loaded(), ElementsAre(deep, marked));
    EXPECT_THAT(logged("Information"), Contains("load plugin count: 2"));
    EXPECT_THAT(logged("Critical"), IsEmpty());
    for (const char* guid : {"stranger", "minimal", "no-type"})
        EXPECT_THAT(calls(guid), IsEmpty()) << guid;
    plugin("no-name").report(41000);
    EXPECT_THAT(waitCalls("no-name", "start 127.0.0.1 41000"), Contains("start 127.0.0.1 41000"));
}

TEST_F(PluginTreeTest, LoadsALibraryOnceHoweverManyNamesLeadToIt) {
    put("Complete", "libKetraPluginA.so.1.2");
    std::filesystem::create_symlink("libKetraPluginA.so.1.2",
                                    root.plugins() / "libKetraPluginA.so.1");
    std::filesystem::create_symlink("libKetraPluginA.so.1", root.plugins() / "libKetraPluginA.so");
    const auto outside = root.notes() / "store.so.3";
    install(fixture("NoName"), outside);
    std::filesystem::create_symlink(outside, root.plugins() / "libKetraPluginB.so");
    startHost();
    EXPECT_THAT(loaded(), ElementsAre(root.plugins() / "libKetraPluginA.so",
                                      root.plugins() / "libKetraPluginB.so"));
    EXPECT_THAT(logged("Information"), Contains("load plugin count: 2"));
    EXPECT_THAT(calls("complete"), testing::ElementsAreArray(callsOfLoading()));
}

TEST_F(PluginTreeTest, SaysOfEachFileThatIsNoUsableLibraryWhyAndLoadsTheOthers) {
    const std::string good = readFile(fixture("Complete"));
    std::string foreign = good;
    foreign.replace(offsetof(Elf64_Ehdr, e_machine), sizeof(Elf64_Half), machineFor(EM_S390));
    // the first place that names it is the table of the dynamic linker
    std::string unresolved = good;
    const std::string symbol = "_ZTVN10__cxxabiv120__si_class_type_infoE";
    const std::string missing = "_ZTVN10__cxxabiv120__no_class_type_infoE";
    unresolved.replace(unresolved.find(symbol), symbol.size(), missing);

    const std::vector<std::pair<std::string, std::string>> failures{
        {write("libKetraPlugin1-empty.so", ""), "file too short"},
        {write("libKetraPlugin2-text.so", std::string(200, 'x')), "invalid ELF header"},
        {write("libKetraPlugin3-cut.so", good.substr(0, sizeof(Elf64_Ehdr))),
         "cannot read file data"},
        {write("libKetraPlugin4-foreign.so", foreign), "cannot open shared object file"},
        {write("libKetraPlugin5-unresolved.so", unresolved), "undefined symbol: " + missing},
    };
    root.addPlugin("zz-good");
    startHost();

    const auto critical = logged("Critical");
    ASSERT_EQ(critical.size(), failures.size()) << host->err();
    for (std::size_t i = 0; i < failures.size(); ++i) {
        EXPECT_THAT(critical[i], StartsWith("Cannot load library: " + failures[i].first + ": "));
        EXPECT_THAT(critical[i], HasSubstr(failures[i].second));
    }
    EXPECT_THAT(logged("Error"), IsEmpty());
    EXPECT_THAT(loaded(), ElementsAre(root.plugins() / "libKetraPluginPuppet-zz-good.so"));
    EXPECT_THAT(logged("Information"), Contains("load plugin count: 1"));
    EXPECT_THAT(calls("complete"), IsEmpty());
    expectAtWork("zz-good");
    expectOrderlyEnd();
}

/// Where what is mapped of a library begins and ends in its file.
struct Mapped {
    std::size_t begin;
    std::size_t end;
};

std::vector<Mapped> mappedParts(const std::string& library) {
    Elf64_Ehdr header{};
    std::memcpy(&header, library.data(), sizeof header);
    std::vector<Mapped> parts;
    for (std::size_t i = 0; i < header.e_phnum; ++i) {
        Elf64_Phdr part{};
        std::memcpy(&part, library.data() + header.e_phoff + i * sizeof part, sizeof part);
        if (part.p_type == PT_LOAD)
            parts.push_back({part.p_offset, part.p_offset + part.p_filesz});
    }
    return parts;
}

/// Sections stand behind what is mapped, and only tools look for them.
std::string withoutSections(std::string library) {
    Elf64_Ehdr header{};
    std::memcpy(&header, library.data(), sizeof header);
    header.e_shoff = 0;
    header.e_shnum = 0;
    header.e_shstrndx = SHN_UNDEF;
    std::memcpy(library.data(), &header, sizeof header);
    return library;
}

// The dynamic linker maps a library that was copied in part, and the host died of SIGBUS.
TEST_F(PluginTreeTest, RefusesALibraryThatEndsBeforeWhatIsMappedOfIt) {
    const std::string good = withoutSections(readFile(fixture("Complete")));
    const auto parts = mappedParts(good);
    ASSERT_GE(parts.size(), 2U);
    std::vector<std::string> refused;
    const auto cut = [&](std::size_t size) {
        const std::string name = "libKetraPluginCut" + std::to_string(100000 + size) + ".so";
        return write(name, good.substr(0, size)).string();
    };
    for (const Mapped& part : parts)
        for (const std::size_t size : {part.begin, (part.begin + part.end) / 2, part.end - 1})
            if (size > sizeof(Elf64_Ehdr) + parts.size() * sizeof(Elf64_Phdr))
                refused.push_back("Cannot load library: " + cut(size) + ": file truncated");
    const std::string whole = cut(parts.back().end);
    startHost();
    EXPECT_THAT(logged("Critical"), testing::UnorderedElementsAreArray(refused));
    EXPECT_THAT(loaded(), ElementsAre(whole));
    plugin("complete").report(41000);
    EXPECT_THAT(waitCalls("complete", "start 127.0.0.1 41000"), Contains("start 127.0.0.1 41000"));
}

} // namespace
} // namespace ktr::test
