#include "ShellCommand.h"

#include "Printable.h"

#include <Poco/Format.h>
#include <Poco/String.h>

#include <algorithm>
#include <cstring>

namespace ktr::host {
namespace {

bool isPlain(unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           (c != '\0' && std::strchr("/._-+=:,@%", c) != nullptr);
}

std::string quoted(const std::string& path) {
    if (std::all_of(path.begin(), path.end(), isPlain))
        return path;
    return "'" + Poco::replace(path, "'", "'\\''") + "'";
}

/// As the format of the command printf, which needs no byte as it is that a quoted text could not
/// hold in one line.
std::string printfFormat(const std::string& path) {
    std::string format;
    for (const char c : path) {
        if (isControl(static_cast<unsigned char>(c)) || c == '\'' || c == '\\')
            format += Poco::format("\\%03o", unsigned{static_cast<unsigned char>(c)});
        else if (c == '%')
            format += "%%";
        else
            format += c;
    }
    return format;
}

} // namespace

std::string shellCommand(const std::string& command, const std::string& path) {
    if (std::none_of(path.begin(), path.end(), isControl))
        return command + " " + quoted(path);
    // A POSIX shell has no quotes in which a line break can be written otherwise, and takes those
    // at the end of a command's output away.
    return "printf '" + printfFormat(path) + "\\000' | xargs -0 " + command;
}

} // namespace ktr::host
