// Events from end to end: how many a second.
#include "Counter.h"
#include "Events.h"
#include "Figures.h"
#include "Route.h"

namespace ktr::bench {
namespace {

constexpr std::size_t kEvents = 10'000;

template <class Way>
void deliverAll(benchmark::State& state, const std::string& event, std::size_t recipients) {
    Way route;
    while (state.KeepRunning()) {
        Counter& counter = Counter::begin();
        for (std::size_t raised = 1; raised <= kEvents; ++raised) {
            route.raise(event);
            counter.waitForAllBut(kUndelivered * recipients, raised * recipients, route);
        }
        counter.waitForAllBut(0, kEvents * recipients, route);
    }
    state.counters["events"] =
        benchmark::Counter(static_cast<double>(state.iterations()) * static_cast<double>(kEvents),
                           benchmark::Counter::kIsRate);
}

template <class Way>
Variant variant(const std::string& name, const std::string& event, std::size_t recipients) {
    return {name, [event, recipients](benchmark::State& state) {
                deliverAll<Way>(state, event, recipients);
            }};
}

Figure deliveryOf(std::size_t size, const std::string& sizeText, std::size_t recipients) {
    const std::string event = eventText(size, 0, recipients);
    const std::string name = "events, " + sizeText + " to " + std::to_string(recipients);
    Figure figure;
    figure.variants = {variant<HandRoute>("hand", event, recipients),
                       variant<BatchRoute>("batch", event, recipients),
                       variant<KetraRoute>("ours", event, recipients)};
    figure.rows = {
        {name + ", beside a bare loop", kPerSecond, "ours", "hand", ratioAtLeast(0.45), "events"},
        {name + ", beside a bare hand-off", kPerSecond, "ours", "batch", ratioAtLeast(0.95),
         "events"}};
    figure.rounds = 21;
    figure.iterations = 1;
    return figure;
}

} // namespace

std::vector<Figure> deliveryFigures() {
    std::vector<Figure> figures;
    for (const std::size_t recipients : {std::size_t{1}, kPluginCount}) {
        figures.push_back(deliveryOf(150, "150 B", recipients));
        figures.push_back(deliveryOf(1000, "1 kB", recipients));
    }
    return figures;
}

} // namespace ktr::bench
