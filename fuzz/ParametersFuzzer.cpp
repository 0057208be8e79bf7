// Parameters out of a request: a line with the content type, a line with the query, the body.

#include "../src/common/HttpFault.h"
#include "../src/common/RequestParameters.h"
#include "Support.h"

#include <Poco/URI.h>

namespace {

using namespace ktr::fuzz;

// as a form refuses more
constexpr std::size_t kMaxFields = 1000;

std::string encode(const std::string& text) {
    std::string encoded;
    Poco::URI::encode(text, "!#$&'()*+,/:;=?@[]", encoded);
    return encoded;
}

/// Whatever form they came in, as a query they read the same.
void checkRoundTrip(const ktr::WebApiBasic::Parameters& parameters) {
    if (parameters.size() > kMaxFields)
        return;
    std::string query;
    for (const auto& [name, value] : parameters)
        query += encode(name) + '=' + encode(value) + '&';
    require(ktr::requestParameters(query, "", "") == parameters,
            "parameters read the same when they are sent as a query");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::string> parts = split(text(data, size), '\n', 3);
    parts.resize(3);
    try {
        checkRoundTrip(ktr::requestParameters(parts[1], parts[0], parts[2]));
    } catch (const ktr::HttpFault& fault) {
        require(fault.status() == Poco::Net::HTTPResponse::HTTP_BAD_REQUEST,
                "what cannot be read is a bad request");
    }
    return 0;
}
