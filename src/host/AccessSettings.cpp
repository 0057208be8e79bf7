#include "AccessSettings.h"

#include "ExitCode.h"
#include "Settings.h"
#include "TokenFile.h"

#include <Poco/StringTokenizer.h>

#include <cerrno>
#include <cstring>
#include <fstream>

namespace ktr::host {
namespace {

std::vector<std::string> readNetworks(const RawSettings& raw) {
    constexpr int options =
        Poco::StringTokenizer::TOK_TRIM | Poco::StringTokenizer::TOK_IGNORE_EMPTY;
    std::vector<std::string> networks;
    for (const std::string& value : raw.values("allow")) {
        const Poco::StringTokenizer parts(value, ",", options);
        // nothing at all would let everybody in
        if (parts.count() == 0)
            raw.reject("allow", "names no network; leave it out or name one such as "
                                "192.168.7.0/24");
        networks.insert(networks.end(), parts.begin(), parts.end());
    }
    return networks;
}

std::string readToken(const RawSettings& raw) {
    const std::string path = raw.path("api.token.file");
    if (path.empty())
        return {};
    std::string token = readTokenFile(path);
    if (token.empty())
        throw StartError(ExitConfig, "the token file " + path +
                                         " has an empty first line; write a token there, as "
                                         "openssl rand -hex 32 makes one");
    return token;
}

void requireReadable(const std::string& key, const std::string& path) {
    errno = 0;
    std::ifstream in(path);
    if (in.peek() == std::ifstream::traits_type::eof())
        throw StartError(ExitConfig, "the file " + path + " cannot be read (" +
                                         (errno == 0 ? "it is empty" : std::strerror(errno)) +
                                         "); name a readable one with --" + optionName(key));
}

void readTls(const RawSettings& raw, AccessSettings& access) {
    access.certificateFile = raw.path("tls.cert");
    access.keyFile = raw.path("tls.key");
    if (access.certificateFile.empty() != access.keyFile.empty())
        throw StartError(ExitConfig, "TLS needs a certificate and its key; give both --tls-cert "
                                     "and --tls-key, or neither");
    if (access.certificateFile.empty())
        return;
    requireReadable("tls.cert", access.certificateFile);
    requireReadable("tls.key", access.keyFile);
}

} // namespace

AccessSettings readAccess(const RawSettings& raw, const Poco::Net::IPAddress& address) {
    AccessSettings access;
    access.networks = readNetworks(raw);
    access.token = readToken(raw);
    readTls(raw, access);
    if (!address.isLoopback() && access.networks.empty() && access.token.empty())
        throw StartError(ExitConfig,
                         "on " + address.toString() +
                             " the host would serve whoever reaches it; say with --allow from "
                             "which networks, ask for a token with --api-token-file, or bind it "
                             "to 127.0.0.1");
    return access;
}

} // namespace ktr::host
