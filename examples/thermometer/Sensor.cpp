#include "thermometer/Sensor.h"

#include <Poco/DateTimeFormatter.h>
#include <Poco/Exception.h>
#include <Poco/Timestamp.h>

#include <fstream>
#include <optional>
#include <utility>

namespace ktr::example {

namespace {

template <class Number>
std::optional<Number> firstNumber(const std::string& file) {
    std::ifstream in(file);
    Number number{};
    if (!(in >> number))
        return std::nullopt;
    return number;
}

std::string now() {
    return Poco::DateTimeFormatter::format(Poco::Timestamp(), "%Y-%m-%dT%H:%M:%S.%iZ");
}

} // namespace

Sensor::Sensor(std::string thermalFile_, std::string loadFile_)
    : thermalFile(std::move(thermalFile_)), loadFile(std::move(loadFile_)) {}

Reading Sensor::read() const {
    // the kernel tells thousandths of a degree; a zone that is switched off cannot be read
    if (const auto milli = firstNumber<int>(thermalFile))
        return {"cpu-thermal", *milli / 1000.0, "°C", now()};
    if (const auto load = firstNumber<double>(loadFile))
        return {"loadavg", *load, "tasks", now()};
    throw Poco::IOException("neither " + thermalFile + " nor " + loadFile + " can be read");
}

} // namespace ktr::example
