#include "EventOutput.h"

#include "Stop.h"

#include <Poco/Exception.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>
#include <Poco/JSONString.h>
#include <Poco/Latin1Encoding.h>
#include <Poco/TextConverter.h>
#include <Poco/UTF8Encoding.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <poll.h>
#include <unistd.h>

namespace ktr::cli {
namespace {

bool isJson(const std::string& text) {
    try {
        Poco::JSON::Parser parser;
        parser.parse(text);
        return true;
    } catch (const Poco::Exception&) {
        return false;
    }
}

bool isObject(const std::string& text) {
    return text.find_first_of('{') == text.find_first_not_of(" \t\r\n") && isJson(text);
}

std::string quoted(const std::string& text) {
    std::string asItIs = Poco::toJSON(text);
    // the parser demands UTF-8
    if (isJson("[" + asItIs + "]"))
        return asItIs;
    std::string converted;
    const Poco::Latin1Encoding latin1;
    const Poco::UTF8Encoding utf8;
    Poco::TextConverter(latin1, utf8).convert(text, converted);
    return Poco::toJSON(converted);
}

} // namespace

std::string lineOfEvent(const std::string& event) {
    if (!isObject(event))
        return "{\"invalid\":" + quoted(event) + "}";
    std::string line = event;
    // within its strings JSON has none
    const auto isBreak = [](char c) { return c == '\n' || c == '\r'; };
    std::replace_if(line.begin(), line.end(), isBreak, ' ');
    return line;
}

void EventOutput::print(const std::string& event) {
    const std::string line = lineOfEvent(event) + "\n";
    const std::lock_guard<std::mutex> lock(mutex);
    if (!closed)
        writeLine(line);
}

std::string EventOutput::problem() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return reason;
}

void EventOutput::writeLine(const std::string& line) {
    for (std::size_t done = 0; done < line.size();) {
        if (!waitWritable())
            return close("its reader does not take them");
        // no more than a pipe that has become writable takes at once
        const std::size_t size = std::min<std::size_t>(line.size() - done, PIPE_BUF);
        const ssize_t written = write(descriptor, line.data() + done, size);
        if (written >= 0)
            done += static_cast<std::size_t>(written);
        else if (errno == EPIPE)
            return close("");
        else if (errno != EINTR && errno != EAGAIN)
            return close(std::strerror(errno));
    }
}

/// False if the run shall end and the reader did nothing for a second.
bool EventOutput::waitWritable() const {
    constexpr int kTick = 100;
    for (int ticks = 0; ticks < 10; ticks = stopRequested() ? ticks + 1 : 0) {
        pollfd wanted{descriptor, POLLOUT, 0};
        if (poll(&wanted, 1, kTick) > 0)
            return true;
    }
    return false;
}

void EventOutput::close(const std::string& why) {
    closed = true;
    reason = why;
    requestStop();
}

} // namespace ktr::cli
