#include "SharedLibraryProbe.h"

#include <Poco/Exception.h>
#include <Poco/SharedLibrary.h>

namespace ktr::test {

SharedLibraryProbe& SharedLibraryProbe::instance() {
    static SharedLibraryProbe probe;
    return probe;
}

} // namespace ktr::test

// the program's own definitions come before those of Poco's shared library
namespace Poco {

using ktr::test::SharedLibraryProbe;

bool SharedLibrary::hasSymbol(const std::string& name) {
    SharedLibraryProbe::instance().lookUps.push_back("has " + name);
    return findSymbolImpl(name) != nullptr;
}

void* SharedLibrary::getSymbol(const std::string& name) {
    SharedLibraryProbe::instance().lookUps.push_back("get " + name);
    if (void* const symbol = findSymbolImpl(name))
        return symbol;
    throw NotFoundException(name);
}

void SharedLibrary::unload() {
    if (const auto& hook = SharedLibraryProbe::instance().onUnload)
        hook();
    unloadImpl();
}

} // namespace Poco
