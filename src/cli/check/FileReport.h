#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace ktr::cli {

enum class Severity {
    /// It works here, but deserves a look.
    Hint,
    /// It does not work, or not as meant.
    Fault,
};

struct Finding {
    Severity severity = Severity::Fault;
    /// Stays the same from version to version, for scripts.
    std::string rule;
    /// The rest of a sentence that begins with the file.
    std::string text;
    /// What to do about it.
    std::string remedy;
};

/// What was found out about one file.
struct FileReport {
    std::string path;
    /// "plugin", "service", or for what only owner and mode are looked at "folder" or "file".
    std::string kind;
    /// The root of the device that it is checked as a part of; empty for a file that was named
    /// itself.
    std::string device;
    // as the plugin answered, if it did
    std::optional<std::int32_t> type;
    std::optional<std::string> name;
    std::optional<std::string> guid;
    /// Whether the factory was registered under the guid; empty if that was not tried.
    std::optional<bool> registered;
    std::vector<Finding> findings;

    void fault(std::string rule, std::string text, std::string remedy) {
        findings.push_back({Severity::Fault, std::move(rule), std::move(text), std::move(remedy)});
    }
    void hint(std::string rule, std::string text, std::string remedy) {
        findings.push_back({Severity::Hint, std::move(rule), std::move(text), std::move(remedy)});
    }
};

} // namespace ktr::cli
