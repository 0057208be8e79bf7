#include "OneLineChannel.h"

#include "Printable.h"

#include <Poco/Message.h>

#include <algorithm>
#include <utility>

namespace ktr::host {

OneLineChannel::OneLineChannel(Poco::AutoPtr<Poco::Channel> target_) : target(std::move(target_)) {}

void OneLineChannel::open() {
    target->open();
}

void OneLineChannel::close() {
    target->close();
}

void OneLineChannel::log(const Poco::Message& message) {
    const std::string& text = message.getText();
    if (std::none_of(text.begin(), text.end(), isControl)) {
        target->log(message);
        return;
    }
    Poco::Message oneLine(message);
    oneLine.setText(printable(text));
    target->log(oneLine);
}

} // namespace ktr::host
