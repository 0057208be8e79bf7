#include "RequestParameters.h"

#include "HttpFault.h"

#include <Poco/Exception.h>
#include <Poco/JSON/Handler.h>
#include <Poco/JSON/Parser.h>
#include <Poco/MemoryStream.h>
#include <Poco/Net/HTMLForm.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/MessageHeader.h>
#include <Poco/Net/NameValueCollection.h>
#include <Poco/Net/NetException.h>
#include <Poco/NumberFormatter.h>
#include <Poco/String.h>
#include <Poco/URI.h>
#include <Poco/UTF8String.h>

#include <algorithm>
#include <limits>
#include <string_view>
#include <utility>

namespace ktr {
namespace {

using Parameters = WebApiBasic::Parameters;
using Poco::Net::HTMLForm;
using Poco::Net::HTTPRequest;

// the form's look-up is linear in the number of its fields, and so is the map's for names chosen to
// share their hash
constexpr int kMaxFields = 1000;
// as in a form of Poco's
constexpr std::size_t kMaxNameLength = 1024;

/// Takes the plain members of the outermost object. Not Poco's own handler: there the last of two
/// equal names counts.
class MemberCollector : public Poco::JSON::Handler {
public:
    explicit MemberCollector(Parameters& parameters_) : parameters(parameters_) {}

    void reset() override { depth = 0; }
    void startObject() override { ++depth; }
    void endObject() override { --depth; }
    // a member of an object inside an array is no member of the outermost object
    void startArray() override { depth += 2; }
    void endArray() override { depth -= 2; }
    void key(const std::string& name) override {
        if (depth != 1)
            return;
        if (++members > kMaxFields)
            throw Poco::SyntaxException("Too many members");
        current = name;
    }
    void null() override {}
    void value(int number) override { add(Poco::NumberFormatter::format(number)); }
    void value(unsigned number) override { add(Poco::NumberFormatter::format(number)); }
    void value(Poco::Int64 number) override { add(Poco::NumberFormatter::format(number)); }
    void value(Poco::UInt64 number) override { add(Poco::NumberFormatter::format(number)); }
    void value(double number) override { add(Poco::NumberFormatter::format(number)); }
    void value(bool flag) override { add(flag ? "true" : "false"); }
    void value(const std::string& text) override { add(text); }

private:
    void add(const std::string& text) {
        if (depth == 1)
            parameters.emplace(current, text);
    }

    Parameters& parameters;
    std::string current;
    int members = 0;
    int depth = 0;
};

void addJson(const std::string& body, Parameters& parameters) {
    Poco::JSON::Parser parser(Poco::JSON::Handler::Ptr(new MemberCollector(parameters)));
    parser.parse(body);
}

std::string decoded(std::string text) {
    std::replace(text.begin(), text.end(), '+', ' ');
    std::string plain;
    Poco::URI::decode(text, plain);
    return plain;
}

/// As Poco's form does, which reads it character by character from a stream.
void addUrlEncoded(std::string_view text, Parameters& parameters) {
    for (int fields = 0; !text.empty(); ++fields) {
        if (fields == kMaxFields)
            throw Poco::Net::HTMLFormException("Too many form fields");
        const std::string_view field = text.substr(0, text.find('&'));
        text.remove_prefix(std::min(field.size() + 1, text.size()));
        std::string name(field.substr(0, field.find('=')));
        if (name.size() > kMaxNameLength)
            throw Poco::Net::HTMLFormException("Field name too long");
        std::string value(field.substr(std::min(name.size() + 1, field.size())));
        if (fields == 0)
            Poco::UTF8::removeBOM(name);
        name = decoded(std::move(name));
        parameters.emplace(std::move(name), decoded(std::move(value)));
    }
}

void addMultipart(const std::string& boundary, const std::string& body, Parameters& parameters) {
    if (boundary.empty())
        throw Poco::SyntaxException("the Content-Type names no boundary");
    // the form takes its boundary from a request alone
    HTTPRequest request(HTTPRequest::HTTP_POST, "/");
    request.setContentType(HTMLForm::ENCODING_MULTIPART + "; boundary=\"" + boundary + "\"");
    HTMLForm form;
    form.setFieldLimit(kMaxFields);
    form.setValueLengthLimit(std::numeric_limits<int>::max());
    Poco::MemoryInputStream stream(body.data(), static_cast<std::streamsize>(body.size()));
    form.load(request, stream);
    for (const auto& [name, value] : form)
        parameters.emplace(name, value);
}

void addBody(const std::string& contentType, const std::string& body, Parameters& parameters) {
    std::string mediaType;
    Poco::Net::NameValueCollection attributes;
    Poco::Net::MessageHeader::splitParameters(contentType, mediaType, attributes);
    if (Poco::icompare(mediaType, "application/json") == 0)
        addJson(body, parameters);
    else if (Poco::icompare(mediaType, HTMLForm::ENCODING_URL) == 0)
        addUrlEncoded(body, parameters);
    else if (Poco::icompare(mediaType, HTMLForm::ENCODING_MULTIPART) == 0)
        addMultipart(attributes.get("boundary", ""), body, parameters);
}

} // namespace

Parameters requestParameters(const std::string& query, const std::string& contentType,
                             const std::string& body) {
    Parameters parameters;
    const char* part = "body";
    try {
        if (!body.empty())
            addBody(contentType, body, parameters);
        part = "query";
        if (!query.empty())
            addUrlEncoded(query, parameters);
    } catch (const Poco::Exception& e) {
        throw HttpFault(Poco::Net::HTTPResponse::HTTP_BAD_REQUEST,
                        std::string("the ") + part + " is malformed: " + e.displayText());
    }
    return parameters;
}

} // namespace ktr
