#include "Leftovers.h"

#include "ktr/common/FileSystem.h"
#include "ktr/common/Logger.h"
#include "ktr/common/ProcessControl.h"

#include <Poco/Exception.h>
#include <Poco/Path.h>

#include <exception>
#include <list>
#include <string>

namespace ktr::host {
namespace {

void logFailure(const std::string& reason) {
    if (cachedLogger().error())
        cachedLogger().error("cannot look for what an earlier host has left running: " + reason,
                             __FILE__, __LINE__);
}

} // namespace

void endLeftovers() {
    try {
        std::list<std::string> services;
        listFilesRecursively(Poco::Path("microservices"), services, ListFileType::Executable, "");
        for (const std::string& service : services)
            cleanProcessByName(Poco::Path(service).getFileName());
    } catch (const Poco::Exception& e) {
        logFailure(e.displayText());
    } catch (const std::exception& e) {
        logFailure(e.what());
    }
}

} // namespace ktr::host
