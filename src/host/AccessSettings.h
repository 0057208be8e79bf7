#pragma once

#include <Poco/Net/IPAddress.h>

#include <string>
#include <vector>

namespace ktr::host {

class RawSettings;

/// Who may talk to the host, and how.
struct AccessSettings {
    /// As WebApiBasic takes them.
    std::vector<std::string> networks;
    std::string token;
    /// Both or neither.
    std::string certificateFile;
    std::string keyFile;
};

/// Checks what does not need the web API for it. Throws StartError, also when the host would listen
/// for strangers on `address` without asking them anything.
AccessSettings readAccess(const RawSettings& raw, const Poco::Net::IPAddress& address);

} // namespace ktr::host
