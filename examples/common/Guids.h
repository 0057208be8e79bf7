#pragma once

/// Who is who: a plugin and its microservice bear the same guid.
namespace ktr::example {

constexpr const char* kThermometerGuid = "5b96fd8a-5dfa-4914-9762-b139a8ed62bd";
constexpr const char* kRecorderGuid = "adfacc05-894e-4c95-9bc3-3d864737b9d2";
/// Stands in the shell script ketra-heartbeat too.
constexpr const char* kHeartbeatGuid = "aa594930-2ffa-4506-842d-41d8fd4b3b70";

} // namespace ktr::example
