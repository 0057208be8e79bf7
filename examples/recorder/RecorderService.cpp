#include "common/Guids.h"
#include "common/Service.h"
#include "recorder/ReadingStore.h"

#include <Poco/Environment.h>
#include <Poco/Exception.h>
#include <Poco/JSON/Array.h>
#include <Poco/JSON/Parser.h>
#include <Poco/NumberParser.h>
#include <Poco/RegularExpression.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>

using namespace ktr::example;

namespace {

constexpr int kBadRequest = 400;
constexpr int kDefaultLimit = 10;
constexpr int kMaxLimit = 1000;
constexpr int kDefaultKeep = 100000;

/// What the client sent cannot be taken.
class BadInput : public Poco::DataFormatException {
    using Poco::DataFormatException::DataFormatException;
};

bool isControl(char c) {
    return static_cast<unsigned char>(c) < 0x20;
}

std::string textMember(const Poco::JSON::Object& object, const std::string& name,
                       std::size_t maxBytes) {
    const auto value = object.get(name);
    if (!value.isString())
        throw BadInput("\"" + name + "\" must be a string");
    auto text = value.extract<std::string>();
    if (text.empty() || text.size() > maxBytes)
        throw BadInput("\"" + name + "\" must have 1 to " + std::to_string(maxBytes) + " bytes");
    if (std::any_of(text.begin(), text.end(), isControl))
        throw BadInput("\"" + name + "\" must not have control characters");
    return text;
}

double numberMember(const Poco::JSON::Object& object, const std::string& name) {
    const auto value = object.get(name);
    if (value.isEmpty() || value.isString() || value.isBoolean() || !value.isNumeric())
        throw BadInput("\"" + name + "\" must be a number");
    const auto number = value.convert<double>();
    if (!std::isfinite(number))
        throw BadInput("\"" + name + "\" must be a finite number");
    return number;
}

std::string timeMember(const Poco::JSON::Object& object, const std::string& name) {
    static const Poco::RegularExpression format(
        R"(^\d{4}-(0[1-9]|1[0-2])-(0[1-9]|[12]\d|3[01])T([01]\d|2[0-3]):[0-5]\d:[0-5]\d(\.\d{1,6})?)"
        R"((Z|[+-]\d{2}:\d{2})\z)");
    std::string text = textMember(object, name, 40);
    if (!format.match(text))
        throw BadInput("\"" + name + "\" must be ISO 8601 like 2024-05-01T12:00:00.000Z");
    return text;
}

Poco::JSON::Object::Ptr parseObject(const std::string& text) {
    Poco::Dynamic::Var json;
    try {
        json = Poco::JSON::Parser().parse(text);
    } catch (const Poco::Exception& e) {
        throw BadInput("body is no JSON: " + e.message());
    }
    if (json.type() != typeid(Poco::JSON::Object::Ptr))
        throw BadInput("body must be a JSON object");
    return json.extract<Poco::JSON::Object::Ptr>();
}

StoredReading parseReading(const std::string& text) {
    const auto object = parseObject(text);
    return {textMember(*object, "source", 64), numberMember(*object, "value"),
            textMember(*object, "unit", 16), timeMember(*object, "time")};
}

int parseLimit(const JsonRequest& request) {
    const auto given = request.query.find("limit");
    if (given == request.query.end())
        return kDefaultLimit;
    int limit = 0;
    if (!Poco::NumberParser::tryParse(given->second, limit) || limit < 1 || limit > kMaxLimit)
        throw BadInput("limit must be 1 to " + std::to_string(kMaxLimit));
    return limit;
}

JsonAnswer storeReading(ReadingStore& store, const JsonRequest& request) {
    JsonAnswer answer = success();
    answer.json.set("stored", store.add(parseReading(request.body)));
    return answer;
}

JsonAnswer latestReadings(ReadingStore& store, const JsonRequest& request) {
    Poco::JSON::Array readings;
    for (const StoredReading& reading : store.latest(parseLimit(request))) {
        Poco::JSON::Object entry(Poco::JSON_PRESERVE_KEY_ORDER);
        entry.set("source", reading.source);
        entry.set("value", reading.value);
        entry.set("unit", reading.unit);
        entry.set("time", reading.time);
        readings.add(entry);
    }
    JsonAnswer answer = success();
    answer.json.set("total", store.count());
    answer.json.set("readings", readings);
    return answer;
}

JsonAnswer readingCount(ReadingStore& store, const JsonRequest&) {
    JsonAnswer answer = success();
    answer.json.set("count", store.count());
    return answer;
}

/// Not the current directory: a service that is started again may find itself in another one.
std::string databaseFile() {
    if (Poco::Environment::has("KETRA_RECORDER_DB"))
        return Poco::Environment::get("KETRA_RECORDER_DB");
    const auto folder =
        std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path() / "data";
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (error)
        throw Poco::CreateFileException("cannot make the folder " + folder.string(),
                                        error.message() +
                                            "; KETRA_RECORDER_DB may name a file elsewhere");
    return (folder / "recorder.db").string();
}

int readingsToKeep() {
    const std::string text =
        Poco::Environment::get("KETRA_RECORDER_KEEP", std::to_string(kDefaultKeep));
    int keep = 0;
    if (!Poco::NumberParser::tryParse(text, keep) || keep < 1)
        throw Poco::InvalidArgumentException(
            "KETRA_RECORDER_KEEP must be a number of readings above 0, not", text);
    return keep;
}

Endpoint on(const std::shared_ptr<ReadingStore>& store,
            JsonAnswer (*answer)(ReadingStore&, const JsonRequest&)) {
    return [store, answer](const JsonRequest& request) {
        try {
            return answer(*store, request);
        } catch (const BadInput& e) {
            return failure(kBadRequest, e.message());
        }
    };
}

Endpoints makeEndpoints() {
    const auto store = std::make_shared<ReadingStore>(databaseFile(), readingsToKeep());
    return {{"POST /readings", on(store, storeReading)},
            {"GET /readings", on(store, latestReadings)},
            {"GET /count", on(store, readingCount)}};
}

} // namespace

int main(int argc, char** argv) {
    const ServiceInfo info{
        "ketra-recorder",
        "Keeps readings in an SQLite file: POST /readings, GET /readings?limit=N, GET /count.\n"
        "KETRA_RECORDER_DB names the file (default: data/recorder.db beside the folder of the\n"
        "executable), KETRA_RECORDER_KEEP the number of readings to keep (default: 100000).",
        2, kRecorderGuid};
    return runService(argc, argv, info, makeEndpoints);
}
