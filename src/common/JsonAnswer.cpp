#include "ktr/common/JsonAnswer.h"

#include <Poco/JSONString.h>

namespace ktr {

// Of its parts: to make an object of two members takes longer than all else about a small answer.
std::string makeJsonDefault(int code, std::string message) {
    return R"({"code":)" + std::to_string(code) + R"(,"msg":)" +
           Poco::toJSON(message, Poco::JSON_WRAP_STRINGS) + "}";
}

} // namespace ktr
