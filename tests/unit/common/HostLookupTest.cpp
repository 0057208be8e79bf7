#include "common/HostLookup.h"

#include "NameServer.h"

#include <Poco/Exception.h>
#include <Poco/Net/IPAddress.h>
#include <Poco/Net/NetException.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>

namespace ktr {
namespace {

using Poco::Net::IPAddress;
using test::NameServer;
using testing::ElementsAre;
using testing::UnorderedElementsAre;
using namespace std::chrono_literals;

const auto never = [] { return false; };

/// The message of the exception that `call` throws.
template <class Exception, class Call>
std::string failureOf(Call call) {
    try {
        call();
    } catch (const Exception& e) {
        return e.message();
    }
    return "nothing failed";
}

TEST(HostLookup, takesALiteralAddressAsItIs) {
    // neither a name server nor any time is needed
    EXPECT_THAT(lookUpHost("192.0.2.7", 0ms, [] { return true; }),
                ElementsAre(IPAddress("192.0.2.7")));
    EXPECT_THAT(lookUpHost("2001:db8::7", 0ms, never), ElementsAre(IPAddress("2001:db8::7")));
}

TEST(HostLookup, findsEveryAddressOfAName) {
    NameServer server;
    server.answer("two.test", {"127.0.0.2", "127.0.0.1"});
    EXPECT_THAT(lookUpHost("two.test", 10s, never),
                UnorderedElementsAre(IPAddress("127.0.0.2"), IPAddress("127.0.0.1")));
}

TEST(HostLookup, refusesANameWithoutAddress) {
    NameServer server;
    server.answer("none.test", {});
    try {
        lookUpHost("none.test", 10s, never);
        FAIL() << "found an address";
    } catch (const Poco::NotFoundException& e) {
        EXPECT_EQ(e.message(), "the name none.test has no address");
    }
}

TEST(HostLookup, passesOnThatTheSystemDoesNotKnowTheName) {
    // the system refuses a name with a space without asking anybody
    EXPECT_THROW(lookUpHost("no name.test", 10s, never), Poco::Net::NetException);
}

TEST(HostLookup, givesUpWhenTheNameServerDoesNotAnswerInTime) {
    NameServer server;
    server.hang("slow.test");
    EXPECT_EQ(failureOf<Poco::TimeoutException>([] { lookUpHost("slow.test", 50ms, never); }),
              "no name server answers for slow.test");
    EXPECT_TRUE(server.isAsked());
}

TEST(HostLookup, givesUpWhenItIsTold) {
    NameServer server;
    server.hang("slow.test");
    try {
        lookUpHost("slow.test", 10s, [&server] { return server.isAsked(); });
        FAIL() << "found an address";
    } catch (const Poco::TimeoutException&) {
        FAIL() << "waited for the end of its time";
    } catch (const Poco::RuntimeException& e) {
        EXPECT_EQ(e.message(), "the look-up of slow.test was given up");
    }
}

} // namespace
} // namespace ktr
