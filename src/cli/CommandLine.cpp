#include "CommandLine.h"

#include <Poco/NumberParser.h>

#include <algorithm>
#include <getopt.h>

namespace ktr::cli {
namespace {

std::string synopsisOf(const Option& option) {
    return "--" + option.name + (option.value.empty() ? "" : " " + option.value);
}

/// getopt writes into neither, but wants both so.
std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts)
        pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

std::vector<option> tableOf(const std::vector<Option>& options) {
    std::vector<option> table;
    table.reserve(options.size() + 1);
    for (const Option& each : options)
        table.push_back(
            {each.name.c_str(), each.value.empty() ? no_argument : required_argument, nullptr, 0});
    table.push_back({nullptr, 0, nullptr, 0});
    return table;
}

} // namespace

std::optional<std::string> Arguments::value(const std::string& option) const {
    const auto at = options.find(option);
    if (at == options.end())
        return std::nullopt;
    return at->second.back();
}

std::optional<std::int64_t> Arguments::number(const std::string& option, std::int64_t least,
                                              std::int64_t most) const {
    const std::optional<std::string> text = value(option);
    if (!text)
        return std::nullopt;
    std::int64_t number = 0;
    if (!Poco::NumberParser::tryParse64(*text, number) || number < least || number > most)
        throw Failure(ExitUsage, "--" + option + " takes a number from " + std::to_string(least) +
                                     " to " + std::to_string(most) + ", not '" + *text + "'");
    return number;
}

std::string Command::help() const {
    std::string text = "usage: ketra " + name + " [OPTION...] " + operands;
    while (text.back() == ' ')
        text.pop_back();
    text += "\n\n" + description + "\n\nOptions:\n";
    std::vector<Option> all = options;
    all.push_back({"help", "", "show this and exit"});
    std::size_t width = 0;
    for (const Option& option : all)
        width = std::max(width, synopsisOf(option).size());
    for (const Option& option : all) {
        const std::string synopsis = synopsisOf(option);
        text +=
            "  " + synopsis + std::string(width + 2 - synopsis.size(), ' ') + option.help + "\n";
    }
    return text + "\nExit codes:\n" + exitCodes;
}

Arguments Command::parse(const std::vector<std::string>& words) const {
    std::vector<std::string> texts{name};
    texts.insert(texts.end(), words.begin(), words.end());
    const std::vector<char*> pointers = pointersTo(texts);
    const std::vector<option> table = tableOf(options);

    Arguments arguments;
    optind = 0; // begins anew
    opterr = 0;
    int at = 0;
    int found = 0;
    // '-': operands come in their place, as an option of the number 1; ':' tells a missing value
    // from an unknown option
    while ((found = getopt_long(static_cast<int>(texts.size()), pointers.data(), "-:", table.data(),
                                &at)) != -1) {
        const std::string word = optarg == nullptr ? "" : optarg;
        if (found == 1)
            arguments.operands.push_back(word);
        else if (found == 0)
            arguments.options[options[static_cast<std::size_t>(at)].name].push_back(word);
        else if (found == ':')
            throw Failure(ExitUsage, std::string(pointers[static_cast<std::size_t>(optind - 1)]) +
                                         " needs a value");
        else
            throw Failure(
                ExitUsage,
                "the option " + std::string(pointers[static_cast<std::size_t>(optind - 1)]) +
                    " is not known, not clear or takes no value; see 'ketra " + name + " --help'");
    }
    for (; optind < static_cast<int>(texts.size()); ++optind)
        arguments.operands.emplace_back(pointers[static_cast<std::size_t>(optind)]);
    return arguments;
}

} // namespace ktr::cli
