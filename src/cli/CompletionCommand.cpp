#include "Commands.h"

#include <iostream>

namespace ktr::cli {
namespace {

std::string optionsOf(const Command& command) {
    std::string words;
    for (const Option& option : command.options)
        words += "--" + option.name + " ";
    return words + "--help";
}

/// Options with a value, whose next word is then a file or nothing that the shell could know.
std::string valuesOf(const Command& command) {
    std::string words;
    for (const Option& option : command.options)
        if (!option.value.empty())
            words += (words.empty() ? "--" : "|--") + option.name;
    return words;
}

int printCompletion(const Arguments& arguments) {
    if (arguments.operands != std::vector<std::string>{"bash"})
        throw Failure(ExitUsage, "name the shell: only 'bash' is known");
    std::string names = "--help --version";
    std::string cases;
    for (const Command& command : commands()) {
        names += " " + command.name;
        cases += "    " + command.name + ")\n      options='" + optionsOf(command) + "'\n";
        if (const std::string values = valuesOf(command); !values.empty())
            cases += "      case $previous in " + values +
                     ") COMPREPLY=($(compgen -f -- \"$word\")); return ;; esac\n";
        cases += "      ;;\n";
    }
    std::cout << "# bash completion of ketra\n"
                 "# shellcheck disable=SC2034,SC2207 # words with blanks do not occur\n"
                 "_ketra() {\n"
                 "  local word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]} "
                 "options=\n"
                 "  COMPREPLY=()\n"
                 "  if ((COMP_CWORD == 1)); then\n"
                 "    COMPREPLY=($(compgen -W '"
              << names
              << "' -- \"$word\"))\n"
                 "    return\n"
                 "  fi\n"
                 "  case ${COMP_WORDS[1]} in\n"
              << cases
              << "  esac\n"
                 "  if [[ $word == -* ]]; then\n"
                 "    COMPREPLY=($(compgen -W \"$options\" -- \"$word\"))\n"
                 "  else\n"
                 "    COMPREPLY=($(compgen -f -- \"$word\"))\n"
                 "  fi\n"
                 "}\n"
                 "complete -o filenames -F _ketra ketra\n";
    return ExitSuccess;
}

} // namespace

Command completionCommand() {
    return {
        "completion",
        "print the completion script of a shell",
        "bash",
        "Prints what lets the shell complete the commands and options of ketra. For this shell:\n"
        "\n"
        "    eval \"$(ketra completion bash)\"\n"
        "\n"
        "The Debian package has it in place.",
        {},
        "  0   printed\n"
        "  64  another shell was named\n",
        printCompletion};
}

} // namespace ktr::cli
