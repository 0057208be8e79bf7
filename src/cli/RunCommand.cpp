#include "Commands.h"

#include "run/EventOutput.h"
#include "run/PluginWatch.h"
#include "run/RunOptions.h"
#include "run/Session.h"
#include "run/StandardStream.h"
#include "run/Stop.h"
#include "run/ThrowAwayRoot.h"

#include "host/ProcessSetup.h"

#include <unistd.h>

namespace ktr::cli {
namespace {

int run(const Arguments& arguments) {
    const RunOptions options = readRunOptions(arguments);
    takeStopSignals();
    host::setUpProcess();
    // before the first thread, and before the plugin's code runs
    const ThrowAwayRoot root(options.plugin, options.service);
    root.enter();
    const int input = takeStandardInput();
    // neither destroyed: the plugin's threads may outlive all else
    auto* const output = new EventOutput(takeStandardStream(STDOUT_FILENO, STDERR_FILENO));
    auto* const watch = new PluginWatch(*output);
    const int code = Session(options, *watch).run(input);
    if (const std::string problem = output->problem(); !problem.empty())
        throw Failure(ExitSystem, "the events could not be written to standard output: " + problem);
    return code;
}

} // namespace

Command runCommand() {
    return {
        "run",
        "run one plugin, with events typed or piped in",
        "PLUGIN.so",
        "Runs the plugin with the host's libraries, on a root of its own that is thrown away.\n"
        "Standard input: events, each a JSON object on a line of its own; one without \"to\" is\n"
        "addressed to the plugin. Standard output: the events that the plugin raises, whoever\n"
        "they are for, each on a line of its own; {\"invalid\":\"...\"} for what is no JSON "
        "object.\n"
        "Standard error: the log, and what the plugin and its service write to their outputs.\n"
        "\n"
        "    echo '{\"api\":\"hello\"}' | ketra run libKetraPluginHello.so\n"
        "\n"
        "It ends in order when the input does and all of it has been delivered, on SIGINT or\n"
        "SIGTERM, and when nobody reads the output any more. The plugin runs within this\n"
        "process, for a debugger: gdb --args ketra run libKetraPluginHello.so\n"
        "\n"
        "A service is started as the host does, under a name that nothing else has; it gets\n"
        "the port and reports by itself. Without one the plugin is started at once.",
        runOptionTable(),
        "  0   ended in order\n"
        "  1   the plugin cannot be used, threw, did not start in time or held up the end, or\n"
        "      an event could not be delivered\n"
        "  64  a bad option or operand\n"
        "  66  plugin or service cannot be read or run\n"
        "  71  the port is taken, the output cannot be written, or the system refused\n"
        "  73  no folder could be made for the root\n",
        run};
}

} // namespace ktr::cli
