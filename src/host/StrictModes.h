#pragma once

#include "Settings.h"
#include "TreeCheck.h"

#include <string>

namespace ktr::host {

/// Decides which trees of the root may be used, and tells the operator why not.
class StrictModes {
public:
    explicit StrictModes(const Settings& settings);

    /// Whether `tree` may be used. What others could change there is logged, and the end of it says
    /// that the tree `isLeftOut` ("is not loaded"); as the reason for a host that does not start it
    /// goes to standard error as well where the log does not. Without strict modes these are
    /// warnings, and the answer is yes.
    bool mayUse(const std::string& tree, const std::string& isLeftOut);

private:
    void tell(const std::string& text) const;

    const bool isStrict;
    const bool logsToFile;
    TreeCheck check;
};

} // namespace ktr::host
