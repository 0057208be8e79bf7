#pragma once

// For programs that use the MQTT client under ThreadSanitizer, which does not see into Debian's
// Paho libraries, since these are not instrumented:
// - the last counts of shared pointers go down inside of them, so that a token or message seems to
// be
//   freed without order;
// - a client's callback is set with its lock held, before the library's; its callbacks, which
//   cannot run yet then, take the locks the other way round.
extern "C" {
// NOLINTNEXTLINE(bugprone-reserved-identifier,misc-definitions-in-headers): the sanitizer's name
__attribute__((visibility("default"))) const char* __tsan_default_suppressions() {
    return "race:^mqtt::\n"
           "deadlock:libpaho-mqtt3as\n";
}
}
