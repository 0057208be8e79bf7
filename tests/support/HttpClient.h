#pragma once

#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>
#include <Poco/Net/HTMLForm.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/StreamCopier.h>

#include <map>
#include <sstream>
#include <string>

namespace ktr::test {

struct HttpAnswer {
    int status = 0;
    std::string body;

    /// The body as a JSON object; throws for anything else.
    Poco::JSON::Object::Ptr json() const {
        return Poco::JSON::Parser().parse(body).extract<Poco::JSON::Object::Ptr>();
    }
};

/// Posts `fields` as an urlencoded form to `path` on 127.0.0.1. Throws Poco::Exception if there is
/// no answer.
inline HttpAnswer httpPost(unsigned short port, const std::string& path,
                           const std::map<std::string, std::string>& fields = {}) {
    Poco::Net::HTTPClientSession session("127.0.0.1", port);
    session.setTimeout(Poco::Timespan(20, 0));
    Poco::Net::HTTPRequest request("POST", path, "HTTP/1.1");
    Poco::Net::HTMLForm form;
    for (const auto& [name, value] : fields)
        form.set(name, value);
    form.prepareSubmit(request);
    std::ostringstream body;
    form.write(body);
    request.setContentLength64(static_cast<Poco::Int64>(body.str().size()));
    session.sendRequest(request) << body.str();
    Poco::Net::HTTPResponse response;
    HttpAnswer answer;
    Poco::StreamCopier::copyToString(session.receiveResponse(response), answer.body);
    answer.status = response.getStatus();
    return answer;
}

} // namespace ktr::test
