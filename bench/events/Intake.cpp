#include "Figures.h"

#include "ktr/PluginManager.h"

#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>

namespace ktr::bench {
namespace {

/// An event to nobody, so that nothing but the intake is measured.
std::string eventOf(std::size_t size) {
    const std::string head = R"({"to":[],"payload":")";
    const std::string tail = R"("})";
    return head + std::string(size - head.size() - tail.size(), 'x') + tail;
}

void parseOnly(benchmark::State& state, const std::string& event) {
    while (state.KeepRunning()) {
        Poco::JSON::Parser parser;
        benchmark::DoNotOptimize(parser.parse(event).extract<Poco::JSON::Object::Ptr>());
    }
}

void takeIn(benchmark::State& state, std::string event) {
    while (state.KeepRunning())
        publishMsgToAllPlugin(event);
}

Figure intakeOf(std::size_t size, const std::string& name) {
    const std::string event = eventOf(size);
    Figure figure;
    figure.variants = {
        {"floor", [event](benchmark::State& state) { parseOnly(state, event); }},
        {"ours", [event](benchmark::State& state) { takeIn(state, event); }},
    };
    figure.rows = {{"intake of " + name, kMicroseconds, "ours", "floor", ratioAtMost(1.25), ""}};
    return figure;
}

} // namespace

std::vector<Figure> intakeFigures() {
    return {intakeOf(150, "150 B"), intakeOf(1024, "1 KiB"),
            intakeOf(std::size_t{16} * 1024, "16 KiB"),
            intakeOf(std::size_t{256} * 1024, "256 KiB")};
}

} // namespace ktr::bench
