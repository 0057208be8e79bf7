#include "Load.h"

#include <Poco/Exception.h>
#include <Poco/NumberParser.h>
#include <Poco/Pipe.h>
#include <Poco/PipeStream.h>
#include <Poco/Process.h>
#include <Poco/RegularExpression.h>
#include <Poco/StreamCopier.h>

#include <vector>

namespace ktr::bench {

double requestsPerSecond(const Poco::Net::SocketAddress& server, const std::string& target,
                         int connections) {
    // one thread, so that the server has a core of its own
    const Poco::Process::Args arguments{"--threads",
                                        "1",
                                        "--duration",
                                        "1s",
                                        "--connections",
                                        std::to_string(connections),
                                        "http://" + server.toString() + target};
    Poco::Pipe output;
    const Poco::ProcessHandle wrk =
        Poco::Process::launch("wrk", arguments, nullptr, &output, &output);
    std::string told;
    Poco::PipeInputStream stream(output);
    Poco::StreamCopier::copyToString(stream, told);
    const bool ended = wrk.wait() == 0;
    std::vector<std::string> rate;
    Poco::RegularExpression(R"(Requests/sec:\s*([0-9.]+))").split(told, rate);
    // it tells of both only when there are any
    const bool failures = told.find("Non-2xx") != std::string::npos ||
                          told.find("Socket errors") != std::string::npos;
    if (!ended || failures || rate.size() != 2)
        throw Poco::RuntimeException("wrk: " + told);
    return Poco::NumberParser::parseFloat(rate[1]);
}

} // namespace ktr::bench
