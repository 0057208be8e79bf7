#include "Report.h"

#include "host/Printable.h"

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/TextConverter.h>
#include <Poco/UTF8Encoding.h>

#include <algorithm>
#include <ostream>

namespace ktr::cli {
namespace {

std::string counted(std::size_t count, const std::string& thing) {
    return std::to_string(count) + " " + thing + (count == 1 ? "" : "s");
}

std::string describe(const FileReport& report) {
    std::string text = report.kind;
    if (report.name)
        text += " '" + *report.name + "'";
    if (report.type)
        text += ", type " + std::to_string(*report.type);
    if (report.guid)
        text += ", guid '" + *report.guid + "'";
    if (report.registered)
        text += *report.registered ? ", registered" : ", not registered";
    return text;
}

/// File names and what plugins say may be anything, JSON is UTF-8.
std::string utf8(const std::string& text) {
    const Poco::UTF8Encoding encoding;
    std::string valid;
    Poco::TextConverter(encoding, encoding).convert(text, valid);
    return valid;
}

template <class Value>
Poco::Dynamic::Var valueOr(const std::optional<Value>& value) {
    return value ? Poco::Dynamic::Var(*value) : Poco::Dynamic::Var();
}

Poco::Dynamic::Var textOr(const std::optional<std::string>& text) {
    return text ? Poco::Dynamic::Var(utf8(*text)) : Poco::Dynamic::Var();
}

Poco::JSON::Object::Ptr newObject() {
    return new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
}

Poco::JSON::Object::Ptr jsonOf(const Finding& finding) {
    Poco::JSON::Object::Ptr json = newObject();
    json->set("severity", finding.severity == Severity::Fault ? "fault" : "hint");
    json->set("rule", finding.rule);
    json->set("text", utf8(finding.text));
    json->set("remedy", utf8(finding.remedy));
    return json;
}

Poco::JSON::Object::Ptr jsonOf(const FileReport& report) {
    Poco::JSON::Array::Ptr findings = new Poco::JSON::Array;
    for (const Finding& finding : report.findings)
        findings->add(jsonOf(finding));
    Poco::JSON::Object::Ptr json = newObject();
    json->set("path", utf8(report.path));
    json->set("kind", report.kind);
    json->set("type", valueOr(report.type));
    json->set("name", textOr(report.name));
    json->set("guid", textOr(report.guid));
    json->set("registered", valueOr(report.registered));
    json->set("findings", findings);
    return json;
}

} // namespace

std::size_t countOf(Severity severity, const std::vector<FileReport>& reports) {
    std::size_t count = 0;
    for (const FileReport& report : reports)
        for (const Finding& finding : report.findings)
            count += finding.severity == severity ? 1 : 0;
    return count;
}

void printText(const std::vector<FileReport>& reports, std::ostream& out) {
    for (const FileReport& report : reports) {
        out << host::printable(report.path + ": " + describe(report)) << "\n";
        for (const Finding& finding : report.findings)
            out << (finding.severity == Severity::Fault ? "  fault: " : "  hint: ")
                << host::printable(finding.text) << " [" << finding.rule << "]\n"
                << "    remedy: " << host::printable(finding.remedy) << "\n";
    }
    out << counted(reports.size(), "path")
        << " checked: " << counted(countOf(Severity::Fault, reports), "fault") << ", "
        << counted(countOf(Severity::Hint, reports), "hint") << "\n";
}

void printJson(const std::vector<FileReport>& reports, std::ostream& out) {
    Poco::JSON::Array::Ptr files = new Poco::JSON::Array;
    for (const FileReport& report : reports)
        files->add(jsonOf(report));
    Poco::JSON::Object::Ptr json = newObject();
    json->set("files", files);
    json->set("faults", countOf(Severity::Fault, reports));
    json->set("hints", countOf(Severity::Hint, reports));
    json->stringify(out, 2);
    out << "\n";
}

} // namespace ktr::cli
