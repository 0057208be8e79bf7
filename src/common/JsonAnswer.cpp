#include "ktr/common/JsonAnswer.h"

#include <Poco/JSON/Object.h>

#include <sstream>

namespace ktr {

std::string makeJsonDefault(int code, std::string message) {
    Poco::JSON::Object answer(Poco::JSON_PRESERVE_KEY_ORDER);
    answer.set("code", code);
    answer.set("msg", message);
    std::ostringstream text;
    answer.stringify(text);
    return text.str();
}

} // namespace ktr
