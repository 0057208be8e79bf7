#pragma once

#include "AccessControl.h"

#include "ktr/common/WebApiBasic.h"

#include <Poco/Net/Context.h>

namespace ktr {

/// What a server is run with.
struct ServerSettings {
    WebApiBasic::Limits limits;
    AccessControl access;
    /// Null for plain HTTP.
    Poco::Net::Context::Ptr tls;
};

} // namespace ktr
