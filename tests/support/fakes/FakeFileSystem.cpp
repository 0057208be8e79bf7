#include "State.h"

#include <utility>

namespace ktr {

using test::fakes::Locked;

std::string getCurrentPath() {
    const Locked state;
    test::fakes::throwIfSet(state->currentPathFailure);
    return state->currentPath;
}

std::string getCurrentChildPath(const std::string& name) {
    return getCurrentPath() + "/" + name;
}

void listFilesRecursively(const Poco::Path& dir, std::list<std::string>& out,
                          const ListFileType& type, const std::string& filter) {
    const Locked state;
    state->listings.push_back({dir.toString(), type, filter, out.empty()});
    out.insert(out.end(), state->files.begin(), state->files.end());
    test::fakes::throwIfSet(state->listingFailure);
}

} // namespace ktr

namespace ktr::test::fakes {

void setCurrentPath(const std::string& path) {
    Locked()->currentPath = path;
}

void failCurrentPath(std::exception_ptr failure) {
    Locked()->currentPathFailure = std::move(failure);
}

void setFiles(const std::list<std::string>& files) {
    Locked()->files = files;
}

void failListing(std::exception_ptr failure) {
    Locked()->listingFailure = std::move(failure);
}

std::vector<Listing> listings() {
    return Locked()->listings;
}

} // namespace ktr::test::fakes
