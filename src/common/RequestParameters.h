#pragma once

#include "ktr/common/WebApiBasic.h"

#include <string>

namespace ktr {

/// The parameters of a request; see WebApiBasic::Parameters. Throws HttpFault for a body or query
/// that does not keep to its format.
WebApiBasic::Parameters requestParameters(const std::string& query, const std::string& contentType,
                                          const std::string& body);

} // namespace ktr
