#include "GuidCheck.h"

#include <map>

namespace ktr::cli {

void checkGuids(std::vector<FileReport>& reports) {
    std::map<std::pair<std::string, std::string>, std::vector<FileReport*>> byGuid;
    for (FileReport& report : reports)
        if (report.guid && !report.guid->empty())
            byGuid[{report.device, *report.guid}].push_back(&report);
    for (const auto& [key, bearers] : byGuid)
        for (std::size_t i = 0; bearers.size() > 1 && i < bearers.size(); ++i)
            bearers[i]->fault("duplicate-guid",
                              "answers the guid of " + bearers[i == 0 ? 1 : 0]->path +
                                  ", and the host keeps only the one that it loads last",
                              "take one away, or give it and its microservice a guid of their own");
}

} // namespace ktr::cli
