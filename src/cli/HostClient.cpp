#include "HostClient.h"

#include <Poco/Exception.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>
#include <Poco/Net/HTMLForm.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Timestamp.h>

#include <istream>
#include <ostream>
#include <sstream>

namespace ktr::cli {
namespace {

constexpr std::size_t kLongestAnswer = 65'536;

/// Byte by byte, so that a peer that drips or never ends cannot hold us.
std::string readBody(std::istream& in, const Poco::Timespan& timeout) {
    const Poco::Timestamp begin;
    std::string body;
    for (char byte = 0; in.get(byte);) {
        body += byte;
        if (body.size() > kLongestAnswer)
            throw Poco::DataException("the answer is longer than any of the host's");
        if (begin.isElapsed(timeout.totalMicroseconds()))
            throw Poco::TimeoutException("the answer does not end");
    }
    return body;
}

std::string formOf(const ServiceReport& report, Poco::Net::HTTPRequest& request) {
    Poco::Net::HTMLForm form;
    form.set("ip", report.ip);
    form.set("port", std::to_string(report.port));
    form.set("type", std::to_string(report.type));
    form.set("guid", report.guid);
    form.prepareSubmit(request);
    std::ostringstream body;
    form.write(body);
    return body.str();
}

void judge(HostAnswer& answer) {
    answer.reason = "HTTP status " + std::to_string(answer.status);
    try {
        Poco::JSON::Parser parser;
        const auto json = parser.parse(answer.body).extract<Poco::JSON::Object::Ptr>();
        answer.isJson = true;
        answer.isTaken = answer.status == 200 && json->getValue<int>("code") == 0;
        answer.reason = json->getValue<std::string>("msg");
    } catch (const Poco::Exception&) {
        // the status says it
    }
}

} // namespace

HostAnswer sendReport(const Poco::Net::SocketAddress& host, const ServiceReport& report,
                      const Poco::Timespan& timeout) {
    Poco::Net::StreamSocket socket;
    socket.connect(host, timeout);
    socket.setSendTimeout(timeout);
    socket.setReceiveTimeout(timeout);

    Poco::Net::HTTPClientSession session(socket);
    Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_POST, "/index/api/all/report",
                                   Poco::Net::HTTPRequest::HTTP_1_1);
    const std::string body = formOf(report, request);
    request.setHost(host.toString());
    request.setKeepAlive(false);
    request.setContentLength64(static_cast<Poco::Int64>(body.size()));
    session.sendRequest(request) << body << std::flush;

    Poco::Net::HTTPResponse response;
    HostAnswer answer;
    answer.body = readBody(session.receiveResponse(response), timeout);
    answer.status = response.getStatus();
    judge(answer);
    return answer;
}

} // namespace ktr::cli
