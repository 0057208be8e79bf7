// Compiled once for each plugin, whose number is BENCH_NUMBER and, as text, BENCH_DIGIT.
#include "Board.h"

#include "ktr/PluginEntry.h"

#include <utility>

namespace {

class Receiver final : public ktr::bench::BenchPlugin {
public:
    void start(std::shared_ptr<ktr::WebApiBasic> webApi_,
               std::shared_ptr<ktr::MqttClient> mqttClient_, std::string ip_,
               unsigned short port_) override {
        PluginBase::start(std::move(webApi_), std::move(mqttClient_), std::move(ip_), port_);
        board.plugins.at(BENCH_NUMBER) = this;
    }

    void stop() override { board.plugins.at(BENCH_NUMBER) = nullptr; }

    void onMessage(std::string event) override {
        if (ktr::bench::Sink* const sink = board.sink)
            sink->take(BENCH_NUMBER, event);
    }

    void raise(std::string event) override { eventCallback(std::move(event)); }

private:
    ktr::bench::Board& board = ktr::bench::board();
};

} // namespace

KETRA_PLUGIN(Receiver, 1, "bench " BENCH_DIGIT, KETRA_BENCH_GUID_BEGINNING BENCH_DIGIT);
