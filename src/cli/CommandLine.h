#pragma once

#include "ExitCode.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace ktr::cli {

struct Option {
    std::string name;
    /// What the help calls the value; empty if the option takes none.
    std::string value;
    std::string help;
};

/// What was typed behind a command's name.
class Arguments {
public:
    std::vector<std::string> operands;
    /// By the option's name; an option without a value has an empty one for each time it was given.
    std::map<std::string, std::vector<std::string>> options;

    bool has(const std::string& option) const { return options.count(option) != 0; }

    /// The value given last.
    std::optional<std::string> value(const std::string& option) const;

    /// The value given last as a decimal number. Throws Failure(ExitUsage) if it is none, or not
    /// within the bounds, both of which belong to the range.
    std::optional<std::int64_t> number(const std::string& option, std::int64_t least,
                                       std::int64_t most) const;
};

/// A subcommand: what it understands, what its help says, and what it does.
struct Command {
    std::string name;
    /// What the command is for, as it stands in the list of all: one line, no full stop.
    std::string summary;
    /// The operands as the help shows them, such as "PATH...".
    std::string operands;
    /// Paragraphs of the help behind the usage, each line of at most 80 characters.
    std::string description;
    std::vector<Option> options;
    /// What the words of the exit codes mean for this command: the last paragraph of the help.
    std::string exitCodes;
    int (*run)(const Arguments& arguments);

    /// Every command has --help, which stands in no list of options.
    std::string help() const;

    /// Understands options and operands in any order; behind "--" there are only operands. Throws
    /// Failure(ExitUsage) for an option that it does not know, or that lacks its value or has one
    /// too many.
    Arguments parse(const std::vector<std::string>& words) const;
};

} // namespace ktr::cli
