#pragma once

#include <string>

namespace ktr::example {

/// One measurement.
struct Reading {
    /// "cpu-thermal" or "loadavg".
    std::string source;
    double value = 0;
    /// "°C" or "tasks".
    std::string unit;
    /// ISO 8601 in UTC with milliseconds: 2024-05-01T12:00:00.000Z
    std::string time;
};

/// The device's own sensor: the CPU's temperature or, where there is none, the load average of the
/// last minute. Stateless; readable from any thread.
class Sensor {
public:
    Sensor() = default;
    /// Reads other files of the same formats.
    Sensor(std::string thermalFile, std::string loadFile);

    /// Throws Poco::IOException when neither file can be read.
    Reading read() const;

private:
    const std::string thermalFile = "/sys/class/thermal/thermal_zone0/temp";
    const std::string loadFile = "/proc/loadavg";
};

} // namespace ktr::example
