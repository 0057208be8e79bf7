#include "common/Guids.h"
#include "common/Service.h"
#include "thermometer/Sensor.h"

using namespace ktr::example;

namespace {

JsonAnswer currentReading(const JsonRequest&) {
    const Reading reading = Sensor().read();
    JsonAnswer answer{200, Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER)};
    answer.json.set("source", reading.source);
    answer.json.set("value", reading.value);
    answer.json.set("unit", reading.unit);
    answer.json.set("time", reading.time);
    return answer;
}

} // namespace

int main(int argc, char** argv) {
    const ServiceInfo info{"ketra-thermometer",
                           "Serves the device's temperature, or its load, as GET /reading.", 1,
                           kThermometerGuid};
    return runService(argc, argv, info, [] { return Endpoints{{"GET /reading", currentReading}}; });
}
