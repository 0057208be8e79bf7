#pragma once

#include "Measure.h"

#include <Poco/JSON/Object.h>

namespace ktr::bench {

/// A row with what was measured for it; `floor` and `ours` in the row's unit.
struct Result {
    bool measured = false;
    bool hasFloor = false;
    double floor = 0;
    double ours = 0;
    double ratio = 0;
    bool withinLimit = true;
};

Result evaluate(const Row& row, const Measured& measured);

/// Prints to standard output, at once.
void printRow(const Row& row, const Result& result);

Poco::JSON::Object::Ptr toJson(const Row& row, const Result& result);

} // namespace ktr::bench
