#include "Table.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iomanip>
#include <sstream>

namespace ktr::bench {
namespace {

double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    if (values.size() % 2 != 0)
        return *middle;
    return (*middle + *std::max_element(values.begin(), middle)) / 2;
}

/// The counter's values, one for each round; empty if the variant did not set it each time.
std::vector<double> valuesOf(const Row& row, const std::string& variant, const Measured& measured) {
    std::vector<double> found;
    const auto rounds = measured.rounds.find(variant);
    if (rounds == measured.rounds.end())
        return found;
    for (const Values& values : rounds->second) {
        const auto value = values.find(row.counter);
        if (value == values.end())
            return {};
        found.push_back(value->second * row.unit.scale);
    }
    return found;
}

bool isWithin(const Limit& limit, const Result& result) {
    double value = 0;
    switch (limit.on) {
    case Limit::On::Nothing:
        return true;
    case Limit::On::Ratio:
        value = result.ratio;
        break;
    case Limit::On::Difference:
        value = result.ours - result.floor;
        break;
    case Limit::On::Value:
        value = result.ours;
        break;
    }
    return limit.atLeast ? value >= limit.bound : value <= limit.bound;
}

std::string fixed(double value, int decimals) {
    std::ostringstream text;
    text << std::fixed << std::setprecision(decimals) << value;
    return text.str();
}

std::string number(double value) {
    const int decimals = value == std::trunc(value) || value >= 1000 ? 0
                         : value >= 100                              ? 1
                         : value >= 1                                ? 2
                                                                     : 3;
    return fixed(value, decimals);
}

std::string withUnit(double value, const Unit& unit) {
    return number(value) + (*unit.name == '\0' ? "" : std::string(" ") + unit.name);
}

std::string limitText(const Row& row) {
    const std::string sign = row.limit.atLeast ? ">= " : "<= ";
    switch (row.limit.on) {
    case Limit::On::Ratio:
        return sign + number(row.limit.bound);
    case Limit::On::Difference:
        return sign + "floor + " + withUnit(row.limit.bound, row.unit);
    case Limit::On::Value:
        return sign + withUnit(row.limit.bound, row.unit);
    case Limit::On::Nothing:
        break;
    }
    return "-";
}

} // namespace

Result evaluate(const Row& row, const Measured& measured) {
    Result result;
    const std::vector<double> ours = valuesOf(row, row.ours, measured);
    const std::vector<double> floor = valuesOf(row, row.floor, measured);
    result.hasFloor = !row.floor.empty();
    result.measured = !ours.empty() && (!result.hasFloor || floor.size() == ours.size());
    if (!result.measured) {
        result.withinLimit = false;
        return result;
    }
    result.ours = median(ours);
    if (result.hasFloor) {
        result.floor = median(floor);
        // of the same round, so that a slow moment of the machine meets both
        std::vector<double> ratios;
        for (std::size_t i = 0; i < ours.size(); ++i)
            ratios.push_back(ours[i] / floor[i]);
        result.ratio = median(ratios);
    }
    result.withinLimit = isWithin(row.limit, result);
    return result;
}

void printRow(const Row& row, const Result& result) {
    const auto cell = [&](bool known, const std::string& text) {
        return result.measured && known ? text : std::string("-");
    };
    std::printf("%-46s | %14s | %14s | %7s | %s%s\n", row.name.c_str(),
                cell(result.hasFloor, withUnit(result.floor, row.unit)).c_str(),
                cell(true, withUnit(result.ours, row.unit)).c_str(),
                cell(result.hasFloor, fixed(result.ratio, 3)).c_str(), limitText(row).c_str(),
                result.withinLimit ? "" : "  MISSED");
    std::fflush(stdout);
}

Poco::JSON::Object::Ptr toJson(const Row& row, const Result& result) {
    Poco::JSON::Object::Ptr object(new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER));
    object->set("figure", row.name);
    object->set("unit", row.unit.name);
    if (result.measured) {
        object->set("ours", result.ours);
        if (result.hasFloor) {
            object->set("floor", result.floor);
            object->set("ratio", result.ratio);
        }
    }
    if (row.limit.on != Limit::On::Nothing) {
        object->set("limit", limitText(row));
        object->set("withinLimit", result.withinLimit);
    }
    return object;
}

} // namespace ktr::bench
