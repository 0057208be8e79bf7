#include "InputEvent.h"

#include <Poco/Exception.h>
#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>
#include <Poco/JSONString.h>
#include <Poco/String.h>

#include <algorithm>

namespace ktr::cli {
namespace {

Poco::JSON::Object::Ptr parseObject(const std::string& text) {
    try {
        Poco::JSON::Parser parser;
        return parser.parse(text).extract<Poco::JSON::Object::Ptr>();
    } catch (const Poco::BadCastException&) {
        throw BadLine(R"(it is JSON, but no object such as {"api":"..."})");
    } catch (const Poco::Exception& e) {
        throw BadLine("it is no JSON object: " + e.message());
    }
}

int countOf(const std::string& guid, const Poco::JSON::Array& to) {
    return static_cast<int>(std::count_if(to.begin(), to.end(), [&](const auto& each) {
        return each.isString() && each.template convert<std::string>() == guid;
    }));
}

} // namespace

InputEvent readEvent(const std::string& line, const std::string& guid) {
    std::string text = Poco::trim(line);
    const Poco::JSON::Object::Ptr event = parseObject(text);
    if (!event->has("to"))
        return {R"({"to":[)" + Poco::toJSON(guid) + "]" + (event->size() == 0 ? "" : ",") +
                    text.substr(1),
                1};
    const Poco::JSON::Array::Ptr to = event->getArray("to");
    if (!to)
        throw BadLine(
            "\"to\" must be an array of guids; leave it out to address the plugin itself");
    return {text, countOf(guid, *to)};
}

} // namespace ktr::cli
