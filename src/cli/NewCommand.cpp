#include "Commands.h"

#include "new/Project.h"

#include <Poco/UUID.h>
#include <Poco/UUIDGenerator.h>

#include <iostream>

namespace ktr::cli {
namespace {

/// The host compares guids byte for byte: there is one spelling for each.
std::string guidOf(const Arguments& arguments) {
    const std::optional<std::string> given = arguments.value("guid");
    if (!given)
        return Poco::UUIDGenerator::defaultGenerator().createRandom().toString();
    Poco::UUID guid;
    if (!guid.tryParse(*given) || guid.toString() != *given)
        throw Failure(ExitUsage, "--guid takes a UUID in lower case, such as "
                                 "0c2f6b9e-5d0a-4c55-9f6b-3f1f0d3c7a11, not '" +
                                     *given + "'");
    return *given;
}

ProjectKind kindOfService(const Arguments& arguments) {
    const std::string language = arguments.value("language").value_or("cpp");
    if (language == "cpp")
        return ProjectKind::CppService;
    if (language == "shell")
        return ProjectKind::ShellService;
    throw Failure(ExitUsage, "--language takes 'cpp' or 'shell', not '" + language + "'");
}

ProjectKind kindOf(const Arguments& arguments) {
    const std::string& kind = arguments.operands.front();
    if (kind == "service")
        return kindOfService(arguments);
    if (kind != "plugin")
        throw Failure(ExitUsage, "there is 'plugin' and 'service' to make, no '" + kind + "'");
    if (arguments.has("language") || arguments.has("guid"))
        throw Failure(ExitUsage, "--language and --guid are for services; a plugin is made with a "
                                 "service in shell and a guid of its own");
    return ProjectKind::Plugin;
}

int makeNew(const Arguments& arguments) {
    if (arguments.operands.size() != 2)
        throw Failure(ExitUsage,
                      "say what to make and its name, as in 'ketra new plugin hello-world'");
    const ProjectKind kind = kindOf(arguments);
    const ProjectName name(arguments.operands.back());
    const std::string guid = guidOf(arguments);
    const std::string directory = arguments.value("directory").value_or(name.text());
    makeProject(kind, name, guid, directory);
    std::cout << "made " << directory << ", guid " << guid
              << "; its README.md says how to build, test and run it\n";
    return ExitSuccess;
}

} // namespace

Command newCommand() {
    return {"new",
            "begin a plugin or a service",
            "plugin|service NAME",
            "Makes a project that builds, passes its tests and runs as it stands:\n"
            "\n"
            "  plugin   a plugin in C++ with a fresh guid, and its service in shell\n"
            "  service  a service by itself, for a plugin that is there or to come\n"
            "\n"
            "A NAME begins with a letter and has at most 40 letters, digits, '-' and '_'. The\n"
            "plugin of hello-world is libKetraPluginHelloWorld.so, its service is\n"
            "ketra-hello-world. The host ends whatever program of the device bears the file name\n"
            "of a service, so no other may be called so.",
            {{"directory", "DIR", "where to make it, instead of NAME; absent or empty"},
             {"language", "LANGUAGE", "of a service: cpp (default) or shell"},
             {"guid", "GUID", "of a service: its plugin's; a fresh one if not given"}},
            "  0   made\n"
            "  64  a bad name or option\n"
            "  66  the templates are not installed\n"
            "  73  the folder is not empty or cannot be made; nothing of it is left\n",
            makeNew};
}

} // namespace ktr::cli
