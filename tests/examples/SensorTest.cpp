#include "thermometer/Sensor.h"

#include "support/TempDir.h"

#include <Poco/Exception.h>

#include <gmock/gmock.h>

#include <fstream>

namespace ktr::example {
namespace {

class SensorTest : public ::testing::Test {
protected:
    void write(const std::string& name, const std::string& text) const {
        std::ofstream(dir / name) << text;
    }
    Reading read() const {
        return Sensor((dir / "thermal").string(), (dir / "load").string()).read();
    }

    const test::TempDir dir;
};

TEST_F(SensorTest, readsTheTemperatureInDegrees) {
    write("thermal", "45678\n");
    write("load", "0.50 0.40 0.30 1/200 4711\n");
    const Reading reading = read();
    EXPECT_EQ("cpu-thermal", reading.source);
    EXPECT_DOUBLE_EQ(45.678, reading.value);
    EXPECT_EQ("°C", reading.unit);
}

TEST_F(SensorTest, readsTemperaturesBelowZero) {
    write("thermal", "-1500\n");
    EXPECT_DOUBLE_EQ(-1.5, read().value);
}

TEST_F(SensorTest, readsTheLoadWhereThereIsNoSensor) {
    write("load", "0.50 0.40 0.30 1/200 4711\n");
    const Reading reading = read();
    EXPECT_EQ("loadavg", reading.source);
    EXPECT_DOUBLE_EQ(0.5, reading.value);
    EXPECT_EQ("tasks", reading.unit);
}

TEST_F(SensorTest, readsTheLoadWhereTheSensorTellsNoNumber) {
    write("thermal", "off\n");
    write("load", "1.25 0.40 0.30 1/200 4711\n");
    EXPECT_DOUBLE_EQ(1.25, read().value);
}

TEST_F(SensorTest, namesBothFilesWhenNeitherCanBeRead) {
    try {
        read();
        FAIL() << "no exception";
    } catch (const Poco::IOException& e) {
        EXPECT_THAT(e.displayText(), ::testing::HasSubstr((dir / "thermal").string()));
        EXPECT_THAT(e.displayText(), ::testing::HasSubstr((dir / "load").string()));
    }
}

TEST_F(SensorTest, tellsTheTimeInUtcWithMilliseconds) {
    write("load", "0 0 0");
    EXPECT_THAT(read().time,
                ::testing::MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:]{8}\\.[0-9]{3}Z"));
}

} // namespace
} // namespace ktr::example
