#include "WebHookTarget.h"

#include <Poco/Exception.h>
#include <Poco/Net/HTTPCredentials.h>
#include <Poco/URI.h>

#include <algorithm>

namespace ktr {
namespace {

[[noreturn]] void refuse(const std::string& url, const std::string& reason) {
    // what stands before an @ may hold a password
    const std::size_t at = url.rfind('@');
    const std::string shown = at == std::string::npos ? url : "..." + url.substr(at);
    throw Poco::InvalidArgumentException("cannot use the web hook URL \"" + shown +
                                         "\": " + reason);
}

Poco::URI split(const std::string& url) {
    const bool printable =
        std::all_of(url.begin(), url.end(), [](char c) { return c > ' ' && c < '\x7f'; });
    if (!printable)
        refuse(url, "it holds a blank or a character that must be percent-encoded");
    try {
        return Poco::URI(url);
    } catch (const Poco::Exception& e) {
        refuse(url, e.displayText() + "; expected http://host:port/path or https://...");
    }
}

std::string resourceOf(const std::string& url) {
    const std::string text = url.substr(0, url.find('#'));
    const std::size_t authority = text.find("://") + 3;
    const std::size_t begin = text.find_first_of("/?", authority);
    if (begin == std::string::npos)
        return "/";
    return (text[begin] == '?' ? "/" : "") + text.substr(begin);
}

} // namespace

WebHookTarget WebHookTarget::parse(const std::string& url) {
    const Poco::URI uri = split(url);
    if (uri.getScheme() != "http" && uri.getScheme() != "https")
        refuse(url, "its scheme must be http or https");
    if (uri.getHost().empty())
        refuse(url, "it has no host");
    WebHookTarget target;
    target.https = uri.getScheme() == "https";
    target.host = uri.getHost();
    target.port = uri.getPort();
    target.resource = resourceOf(url);
    if (!uri.getUserInfo().empty())
        Poco::Net::HTTPCredentials::extractCredentials(uri.getUserInfo(), target.user,
                                                       target.password);
    return target;
}

std::string WebHookTarget::name() const {
    const bool ipv6 = host.find(':') != std::string::npos;
    return std::string(https ? "https://" : "http://") + (ipv6 ? '[' + host + ']' : host) + ':' +
           std::to_string(port) + resource.substr(0, resource.find('?'));
}

} // namespace ktr
