#include <ktr/PluginEntry.h>
#include <ktr/common/Logger.h>

namespace consumer {

/// Uses both libraries.
class ConsumerPlugin final : public ktr::PluginBase {
public:
    void stop() override {
        if (ktr::cachedLogger().information())
            ktr::cachedLogger().information("consumer: stopped", __FILE__, __LINE__);
    }
    void onMessage(std::string) override {}
};

/// Not to be seen from outside.
int shared() {
    return 1;
}

} // namespace consumer

KETRA_PLUGIN(consumer::ConsumerPlugin, -7, "consumer", "3b1d3d5c-41f4-4f43-8d0d-1e0a9a6f2c11");
