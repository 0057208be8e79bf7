#pragma once

#include <Poco/Exception.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/SocketAddress.h>

#include <exception>
#include <functional>
#include <sstream>
#include <string>
#include <utility>

namespace ktr::test::fakes {

/// Keeps what a handler sends.
class FakeResponse : public Poco::Net::HTTPServerResponse {
public:
    std::ostream& send() override {
        if (onSend)
            onSend();
        ++sends;
        return out;
    }
    void sendContinue() override { unexpected(); }
    void sendFile(const std::string& /*path*/, const std::string& /*mediaType*/) override {
        unexpected();
    }
    void sendBuffer(const void* /*buffer*/, std::size_t /*length*/) override { unexpected(); }
    void redirect(const std::string& /*uri*/, HTTPStatus /*status*/) override { unexpected(); }
    void requireAuthentication(const std::string& /*realm*/) override { unexpected(); }
    bool sent() const override { return sends > 0; }

    std::string body() const { return out.str(); }

    int sends = 0;
    /// Called at the start of send(); may throw.
    std::function<void()> onSend;

private:
    static void unexpected() { throw Poco::NotImplementedException("fake response"); }

    std::ostringstream out;
};

/// A request of `uri` without a body.
class FakeRequest : public Poco::Net::HTTPServerRequest {
public:
    explicit FakeRequest(const std::string& uri, FakeResponse& answer) : response_(answer) {
        setURI(uri);
    }
    std::istream& stream() override { return in; }
    const Poco::Net::SocketAddress& clientAddress() const override { return address; }
    const Poco::Net::SocketAddress& serverAddress() const override { return address; }
    const Poco::Net::HTTPServerParams& serverParams() const override {
        throw Poco::NotImplementedException("fake request");
    }
    Poco::Net::HTTPServerResponse& response() const override { return response_; }
    bool secure() const override { return false; }

private:
    std::istringstream in;
    Poco::Net::SocketAddress address;
    FakeResponse& response_;
};

} // namespace ktr::test::fakes
