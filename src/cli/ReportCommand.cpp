#include "Commands.h"

#include "HostClient.h"

#include <Poco/Exception.h>
#include <Poco/Net/IPAddress.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <iostream>
#include <limits>
#include <optional>
#include <random>
#include <string>
#include <sys/prctl.h>
#include <thread>
#include <unistd.h>

namespace ktr::cli {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds kAttempt{5000};
constexpr seconds kPatience{10};
constexpr std::int64_t kDay = 86'400;

// ---- what is asked for

struct Order {
    Poco::Net::SocketAddress host;
    ServiceReport report;
    /// How long to try for a first answer; none: without end.
    std::optional<seconds> patience;
    std::optional<seconds> every;
    bool json = false;
};

std::string addressIn(const Arguments& arguments, const std::string& option) {
    std::string text = arguments.value(option).value_or("127.0.0.1");
    Poco::Net::IPAddress address;
    if (!Poco::Net::IPAddress::tryParse(text, address) || address.isWildcard())
        throw Failure(ExitUsage, "--" + option +
                                     " takes an IP address that others reach, such as 127.0.0.1 or "
                                     "::1, not '" +
                                     text + "'");
    return text;
}

void demandAll(const Arguments& arguments) {
    if (!arguments.operands.empty())
        throw Failure(ExitUsage, "no operand is known, but there is '" +
                                     arguments.operands.front() + "'; everything is an option");
    std::string missing;
    for (const char* option : {"host-port", "guid", "port"})
        if (arguments.value(option).value_or("").empty())
            missing += (missing.empty() ? "--" : ", --") + std::string(option);
    if (!missing.empty())
        throw Failure(ExitUsage, "missing: " + missing +
                                     "; --host-port is the first argument that "
                                     "the host gave to the service");
}

std::optional<seconds> secondsIn(const Arguments& arguments, const std::string& option,
                                 std::int64_t least) {
    const auto number = arguments.number(option, least, kDay);
    return number ? std::optional(seconds(*number)) : std::nullopt;
}

Order orderIn(const Arguments& arguments) {
    demandAll(arguments);
    Order order;
    order.host = Poco::Net::SocketAddress(
        Poco::Net::IPAddress::parse(addressIn(arguments, "host")),
        static_cast<Poco::UInt16>(arguments.number("host-port", 1, 65'535).value_or(0)));
    order.report.ip = addressIn(arguments, "ip");
    order.report.port =
        static_cast<unsigned short>(arguments.number("port", 1025, 65'535).value_or(0));
    order.report.type =
        static_cast<int>(arguments
                             .number("type", std::numeric_limits<std::int32_t>::min(),
                                     std::numeric_limits<std::int32_t>::max())
                             .value_or(1));
    order.report.guid = arguments.value("guid").value_or("");
    order.every = secondsIn(arguments, "every", 1);
    order.patience = secondsIn(arguments, "wait", 0);
    if (!order.patience && !order.every)
        order.patience = kPatience;
    order.json = arguments.has("json");
    return order;
}

// ---- how it ends

std::atomic<pid_t> parent{0};

// There is nothing to be tidied up, and an attempt may take seconds.
void endNow(int) {
    _exit(ExitSuccess);
}

// The signal comes at the end of the thread that started us, be it that the process goes on.
void endWithoutParent(int) {
    if (getppid() != parent)
        _exit(ExitSuccess);
}

void handle(int number, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigaction(number, &action, nullptr);
    sigset_t taken;
    sigemptyset(&taken);
    sigaddset(&taken, number);
    sigprocmask(SIG_UNBLOCK, &taken, nullptr);
}

/// From here on SIGTERM, SIGINT and the end of the process that started this one end it with 0.
void endWithParent() {
    parent = getppid();
    handle(SIGTERM, endNow);
    handle(SIGINT, endNow);
    handle(SIGUSR1, endWithoutParent);
    prctl(PR_SET_PDEATHSIG, SIGUSR1);
    // it may have gone before that
    endWithoutParent(0);
}

// ---- reporting

/// Pauses after failures: doubled from 0.1 to 5 seconds. Each is shorter by a random part, so that
/// a device's services, which all lose their host at once, do not all come back at once.
class BackOff {
public:
    milliseconds next() {
        const milliseconds most = pause;
        pause = std::min(pause * 2, milliseconds(5000));
        return milliseconds(
            std::uniform_int_distribution<long>(most.count() / 2, most.count())(random));
    }
    void reset() { pause = kFirst; }

private:
    static constexpr milliseconds kFirst{100};
    milliseconds pause = kFirst;
    std::minstd_rand random{std::random_device()()};
};

class Reporter {
public:
    explicit Reporter(Order order_) : order(std::move(order_)) {}

    // The pauses need nothing that wakes them: the signals that end it end the process.
    int run() {
        for (;;) {
            const std::optional<HostAnswer> answer = attempt();
            if (answer && answer->isTaken) {
                tellTaken();
                if (!order.every)
                    return ExitSuccess;
                // the period that was asked for; a signal ends the process meanwhile
                std::this_thread::sleep_for(*order.every);
            } else {
                const milliseconds pause = backOff.next();
                if (!wasTaken)
                    judgeFirst(answer, Clock::now() + pause);
                tellFailing(answer);
                // so as not to press a host that is not up yet
                std::this_thread::sleep_for(pause);
            }
        }
    }

private:
    enum class State { New, Taken, Failing };

    /// No answer: `problem` says why.
    std::optional<HostAnswer> attempt() {
        try {
            HostAnswer answer =
                sendReport(order.host, order.report, Poco::Timespan(0, timeout().count() * 1000));
            if (order.json && answer.isJson)
                print(answer.body);
            return answer;
        } catch (const Poco::Exception& e) {
            problem = e.displayText();
            return std::nullopt;
        }
    }

    milliseconds timeout() const {
        if (wasTaken || !order.patience)
            return kAttempt;
        const auto left =
            std::chrono::duration_cast<milliseconds>(begin + *order.patience - Clock::now());
        return std::clamp(left, milliseconds(1000), kAttempt);
    }

    static void print(const std::string& text) {
        if (!(std::cout << text + "\n" << std::flush))
            throw Failure(ExitSystem, "the answer could not be written to standard output");
    }

    /// Ends it if the first report will not succeed. What a host that is short of threads refuses
    /// now it may take later.
    void judgeFirst(const std::optional<HostAnswer>& answer, Clock::time_point next) const {
        const bool isOver = order.patience && next > begin + *order.patience;
        if (answer && (isOver || answer->status < 500))
            throw Failure(ExitRefused, "the host at " + order.host.toString() +
                                           " does not take the report: " + answer->reason + "; " +
                                           remedyFor(*answer));
        if (isOver)
            throw Failure(ExitUnavailable,
                          "the host at " + order.host.toString() + " does not answer (" + problem +
                              "); see that it runs and that --host-port is the argument that it "
                              "gave to the service, or set a longer --wait");
    }

    static std::string remedyFor(const HostAnswer& answer) {
        if (answer.status == 401)
            return "report from the host's own machine, to --host 127.0.0.1, where no token is "
                   "asked for";
        if (answer.status == 404)
            return "either it is no ketra-host, then correct --host-port, or it left out its "
                   "microservices, then its log names what to mend";
        if (answer.status >= 500)
            return "its log tells why; try again with a longer --wait";
        if (!answer.isJson)
            return "it is no ketra-host; correct --host-port";
        return "correct the value that it names";
    }

    void tellTaken() {
        wasTaken = true;
        backOff.reset();
        const std::string text =
            "reported " + order.report.guid + " to the host at " + order.host.toString();
        if (!order.every && !order.json)
            print(text);
        else if (order.every && state != State::Taken)
            tell(text);
        state = State::Taken;
    }

    /// Once, or a host that is away for long would fill the log.
    void tellFailing(const std::optional<HostAnswer>& answer) {
        if (order.every && state != State::Failing)
            tell("report to the host at " + order.host.toString() +
                 " failed, will be repeated: " + (answer ? answer->reason : problem));
        state = State::Failing;
    }

    static void tell(const std::string& text) { std::cerr << "ketra report: " + text + "\n"; }

    const Order order;
    const Clock::time_point begin = Clock::now();
    BackOff backOff;
    State state = State::New;
    bool wasTaken = false;
    std::string problem;
};

int report(const Arguments& arguments) {
    Order order = orderIn(arguments);
    if (order.every)
        endWithParent();
    return Reporter(std::move(order)).run();
}

} // namespace

Command reportCommand() {
    return {"report",
            "report a service to the host",
            "",
            "Tells the host where a service serves, which is what starts the plugin of the same\n"
            "guid. For services written in any language; a shell script that does nothing else:\n"
            "\n"
            "    #!/bin/sh\n"
            "    exec ketra report --host-port \"$1\" --guid GUID --port 18080 --every 30\n"
            "\n"
            "A service that goes on working runs it beside itself. With --every it ends with\n"
            "code 0 on SIGTERM or SIGINT, and when the process that started it is gone. Every\n"
            "report that the host takes gives the plugin a fresh object.\n"
            "\n"
            "A host that does not answer is tried again, after 0.1 to 5 seconds.",
            {
                {"host-port", "PORT", "the argument that the service got from the host"},
                {"guid", "GUID", "the plugin's guid"},
                {"port", "PORT", "where the service serves, 1025 to 65535"},
                {"ip", "IP", "likewise (default: 127.0.0.1)"},
                {"type", "NUMBER", "a number of the service's choice (default: 1)"},
                {"host", "IP", "where the host is (default: 127.0.0.1)"},
                {"wait", "SECONDS",
                 "try so long for a first answer (default: 10; with --every: for ever)"},
                {"every", "SECONDS", "report again and again, whether or not one fails"},
                {"json", "", "print the host's answers as they come"},
            },
            "  0   the host took the report; with --every: ended by a signal, or without parent\n"
            "  64  a bad or missing option\n"
            "  69  the host did not answer in time\n"
            "  71  the host's answer could not be written\n"
            "  76  the host answered that it does not take the report\n",
            report};
}

} // namespace ktr::cli
