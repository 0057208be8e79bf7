#include "Installation.h"

#include "ktr/PluginEntry.h"

#include <Poco/Foundation.h>
#include <Poco/Version.h>

#include <link.h>

namespace ktr::cli {
namespace {

ElfFile readSelf() {
    return readElf("/proc/self/exe").value();
}

int addLibrary(dl_phdr_info* info, std::size_t, void* list) {
    const std::string path = info->dlpi_name;
    // neither the program itself nor what the kernel puts in, and not the dynamic linker
    if (path.find('/') != std::string::npos && path != installation().interpreter)
        static_cast<std::vector<std::string>*>(list)->push_back(path);
    return 0;
}

} // namespace

const ElfFile& installation() {
    static const ElfFile self = readSelf();
    return self;
}

std::string installedPoco() {
    return std::to_string(POCO_VERSION >> 24 & 0xff) + "." +
           std::to_string(POCO_VERSION >> 16 & 0xff) + "." +
           std::to_string(POCO_VERSION >> 8 & 0xff);
}

std::string installedCompiler() {
    return KETRA_ENTRY_COMPILER;
}

std::string installedCxx11Abi() {
    return std::to_string(_GLIBCXX_USE_CXX11_ABI);
}

std::vector<std::string> hostLibraries() {
    std::vector<std::string> found;
    dl_iterate_phdr(addLibrary, &found);
    return found;
}

} // namespace ktr::cli
