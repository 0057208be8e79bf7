#include "Figure.h"
#include "Measure.h"
#include "Table.h"

#include <Poco/RegularExpression.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <optional>

namespace ktr::bench {
namespace {

constexpr int kFailed = 1;
constexpr int kBadUsage = 64;

struct Options {
    bool quick = false;
    std::string json;
    std::string filter;
};

/// What script/bench hands on; it has checked it.
std::optional<Options> parse(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--quick")
            options.quick = true;
        else if (argument == "--json" && i + 1 < argc)
            options.json = argv[++i];
        else if (argument.rfind("--", 0) == 0 || !options.filter.empty())
            return std::nullopt;
        else
            options.filter = argument;
    }
    return options;
}

/// Prints the figure's rows that are asked for, and tells whether all of them are in order.
bool report(const Figure& figure, const std::vector<Row>& rows, const Options& options) {
    const Measured measured = measure(figure, options.quick);
    bool inOrder = measured.error.empty();
    if (!inOrder)
        std::cerr << rows.front().name << ": " << measured.error << std::endl;
    std::ofstream json;
    if (!options.json.empty())
        json.open(options.json, std::ios::app);
    for (const Row& row : rows) {
        Result result = evaluate(row, measured);
        // a single short round is a look, not a verdict
        if (options.quick && result.measured)
            result.withinLimit = true;
        printRow(row, result);
        inOrder = inOrder && result.withinLimit;
        if (json.is_open()) {
            toJson(row, result)->stringify(json);
            json << '\n';
        }
    }
    return inOrder;
}

} // namespace

int run(int argc, char** argv, std::vector<Figure> figures) {
    const std::optional<Options> options = parse(argc, argv);
    if (!options) {
        std::cerr << "usage: " << argv[0] << " [--quick] [--json FILE] [FILTER]\n"
                  << "script/bench --help tells more.\n";
        return kBadUsage;
    }
    const Poco::RegularExpression wanted(options->filter, Poco::RegularExpression::RE_CASELESS);
    int exitCode = 0;
    for (const Figure& figure : figures) {
        std::vector<Row> rows;
        Poco::RegularExpression::Match match;
        for (const Row& row : figure.rows)
            if (options->filter.empty() || wanted.match(row.name, match) > 0)
                rows.push_back(row);
        if (!rows.empty() && !report(figure, rows, *options))
            exitCode = kFailed;
    }
    return exitCode;
}

} // namespace ktr::bench
