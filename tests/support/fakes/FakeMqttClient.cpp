#include "ktr/common/MqttClient.h"

namespace ktr {

struct MqttClient::Impl {};

MqttClient::MqttClient() = default;

MqttClient::~MqttClient() = default;

} // namespace ktr
