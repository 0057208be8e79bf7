#include "Figures.h"
#include "Load.h"
#include "Servers.h"

#include <Poco/Exception.h>
#include <Poco/RegularExpression.h>

#include <memory>

namespace ktr::bench {
namespace {

struct Servers {
    ReportServer ours;
    BareServer floor;
};

/// But for its date.
std::string answerOf(const Poco::Net::SocketAddress& server) {
    test::RawClient client(server);
    std::string answer = ask(client);
    Poco::RegularExpression("Date: [^\r]*").subst(answer, "Date: now");
    return answer;
}

void load(benchmark::State& state, const Poco::Net::SocketAddress& server, int connections) {
    while (state.KeepRunning())
        try {
            state.counters["rate"] = requestsPerSecond(server, kReport, connections);
        } catch (const Poco::Exception& e) {
            state.SkipWithError(e.displayText().c_str());
        }
}

Figure rateOver(int connections, const std::string& name, const std::shared_ptr<Servers>& servers) {
    Figure figure;
    figure.variants = {
        {"floor",
         [=](benchmark::State& state) { load(state, servers->floor.address(), connections); }},
        {"ours",
         [=](benchmark::State& state) { load(state, servers->ours.address(), connections); }},
    };
    figure.rows = {
        {"reports over " + name, kPerSecond, "ours", "floor", ratioAtLeast(0.85), "rate"}};
    figure.rounds = 21;
    figure.iterations = 1;
    return figure;
}

} // namespace

std::vector<Figure> rateFigures() {
    const auto servers = std::make_shared<Servers>();
    if (answerOf(servers->ours.address()) != answerOf(servers->floor.address()))
        throw Poco::LogicException("the servers answer differently");
    return {rateOver(1, "1 connection", servers), rateOver(16, "16 connections", servers),
            rateOver(64, "64 connections", servers)};
}

} // namespace ktr::bench
