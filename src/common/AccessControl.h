#pragma once

#include "NetworkList.h"

#include <Poco/Net/IPAddress.h>
#include <Poco/Net/MessageHeader.h>

#include <array>
#include <optional>
#include <string>

namespace ktr {

/// Who may talk to the server. The machine itself always may.
///
/// Thread safety: the const functions may be called from any thread while no other runs.
class AccessControl {
public:
    /// With an empty list, which is the default, a client's address does not matter.
    void allow(const NetworkList& networks) { allowed = networks; }

    /// Asks every client from outside for `token`; an empty one asks for none, the default. Throws
    /// Poco::InvalidArgumentException for one that is too short to be safe, or that no header can
    /// carry.
    void requireToken(const std::string& token);

    /// Whether a connection from `peer` is taken at all.
    bool admits(const Poco::Net::IPAddress& peer) const;

    /// Whether a request with this header is served for `peer`.
    bool authorizes(const Poco::Net::IPAddress& peer, const Poco::Net::MessageHeader& header) const;

private:
    // equally long for all tokens, so that comparing them takes equally long
    using Digest = std::array<unsigned char, 32>;

    static Digest digestOf(const std::string& token);

    NetworkList allowed;
    std::optional<Digest> required;
};

} // namespace ktr
