#include "support/Certificates.h"
#include "support/FreePort.h"
#include "support/HostProcess.h"
#include "support/HttpClient.h"
#include "support/Ipv6.h"
#include "support/OwnAddress.h"

#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPSClientSession.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

namespace ktr::test {
namespace {

using Poco::Net::HTTPClientSession;
using Poco::Net::IPAddress;
using testing::HasSubstr;
using testing::StartsWith;

const std::string kToken = "0123456789abcdef0123456789ABCDEF";
const std::string kReport = "/index/api/all/report";

/// What a host that does not start leaves behind: one line on standard error and an exit code.
void expectRefusal(HostProcess& host, int code, const std::vector<std::string>& parts) {
    EXPECT_EQ(host.waitForExit(), code);
    EXPECT_THAT(host.err(), StartsWith("ketra-host: "));
    EXPECT_EQ(countOf(host.err(), "\n"), 1) << host.err();
    for (const std::string& part : parts)
        EXPECT_THAT(host.err(), HasSubstr(part));
    EXPECT_EQ(host.out(), "");
}

/// Asks for the report route, which answers without parameters too.
HttpAnswer askForReport(HTTPClientSession& session, const std::string& token = "") {
    session.setTimeout(Poco::Timespan(20, 0));
    Poco::Net::HTTPRequest request("GET", kReport, "HTTP/1.1");
    if (!token.empty())
        request.set("Authorization", "Bearer " + token);
    session.sendRequest(request);
    Poco::Net::HTTPResponse response;
    HttpAnswer answer;
    Poco::StreamCopier::copyToString(session.receiveResponse(response), answer.body);
    answer.status = response.getStatus();
    return answer;
}

int statusFor(const std::string& host, unsigned short port, const std::string& token = "") {
    HTTPClientSession session(host, port);
    return askForReport(session, token).status;
}

class AccessTest : public testing::Test {
protected:
    std::string writeFile(const std::string& name, const std::string& text,
                          mode_t mode = 0600) const {
        std::string path = root.notes() / name;
        std::ofstream(path) << text;
        chmod(path.c_str(), mode);
        return path;
    }

    std::string tokenFile() const { return writeFile("token", kToken + "\n"); }

    /// By the port that it was given, for the ready line says https.
    static bool waitReadyWithTls(HostProcess& host, unsigned short port) {
        const std::string ready =
            "ketra-host ready on https://127.0.0.1:" + std::to_string(port) + "\n";
        return waitUntil([&] { return host.out() == ready; }, std::chrono::seconds(30));
    }

    DeviceRoot root;
};

TEST_F(AccessTest, RefusesAPublicAddressThatAsksNobodyForAnything) {
    root.addService();
    for (const std::string address : {"0.0.0.0", "192.0.2.77", "::", "2001:db8::77"}) {
        SCOPED_TRACE(address);
        HostProcess host(root, {"--bind=" + address});
        expectRefusal(host, 78,
                      {"on " + address + " ", "--allow", "--api-token-file", "127.0.0.1"});
    }
    EXPECT_TRUE(processesBelow(root.path()).empty());
}

TEST_F(AccessTest, NeedsNeitherOnLoopback) {
    std::vector<std::string> addresses{"127.0.0.1", "127.0.0.2"};
    if (hasIpv6())
        addresses.emplace_back("::1");
    for (const std::string& address : addresses) {
        HostProcess host(root, {"--bind=" + address});
        ASSERT_TRUE(host.waitReady()) << host.err();
        EXPECT_EQ(statusFor(address, host.port()), 200) << address;
    }
}

TEST_F(AccessTest, ServesOnEveryAddressOfBothFamilies) {
    if (!hasIpv6())
        GTEST_SKIP() << "this machine has no IPv6";
    HostProcess host(root, {"--bind=::", "--allow=2001:db8::/32"});
    ASSERT_TRUE(host.waitReady()) << host.err();
    for (const char* loopback : {"127.0.0.1", "::1"})
        EXPECT_EQ(statusFor(loopback, host.port()), 200);
}

TEST_F(AccessTest, RefusesABadNetworkByItsOrigin) {
    for (const char* bad : {"192.0.2.0/33", "nowhere", "192.0.2.1/24", "192.0.2.0/24,nowhere"}) {
        HostProcess host(root, {std::string("--allow=") + bad});
        expectRefusal(host, 64, {"--allow"});
    }
    for (const char* nothing : {"--allow=", "--allow=,"}) {
        HostProcess host(root, {"--bind=0.0.0.0", nothing});
        expectRefusal(host, 64, {"--allow", "no network"});
    }
    const std::string config =
        writeFile("host.properties", "allow.1 = 192.0.2.0/24\nallow.2 = 300.0.0.0/8\n");
    HostProcess host(root, {"--config=" + config});
    expectRefusal(host, 78, {"key 'allow'", "300.0.0.0/8", config});
}

TEST_F(AccessTest, RefusesATokenFileThatOthersCouldReadOrChange) {
    for (const mode_t mode : {0640U, 0620U, 0604U, 0602U, 0666U}) {
        const std::string path = writeFile("token", kToken + "\n", mode);
        HostProcess host(root, {"--api-token-file=" + path});
        expectRefusal(host, 78, {path, "chmod 600 " + path});
    }
    const std::string spaced = writeFile("a token", kToken + "\n", 0640);
    {
        HostProcess host(root, {"--api-token-file=" + spaced});
        expectRefusal(host, 78, {"chmod 600 '" + spaced + "'"});
    }
    const std::string path = tokenFile();
    const std::string link = root.notes() / "link";
    std::filesystem::create_symlink(path, link);
    chmod(path.c_str(), 0644);
    HostProcess host(root, {"--api-token-file=" + link});
    expectRefusal(host, 78, {link, "chmod 600"});
}

TEST_F(AccessTest, RefusesATokenFileOfAnotherUser) {
    const std::string path = tokenFile();
    if (chown(path.c_str(), 65534, 65534) != 0)
        GTEST_SKIP() << "only root may give a file away";
    HostProcess host(root, {"--api-token-file=" + path});
    expectRefusal(host, 78, {path, "65534", "chown"});
}

TEST_F(AccessTest, RefusesAFileThatHoldsNoToken) {
    const std::string missing = root.notes() / "missing";
    const std::string folder = root.notes();
    const std::string pipe = root.notes() / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    for (const std::string& path : {missing, folder, pipe}) {
        HostProcess host(root, {"--api-token-file=" + path});
        expectRefusal(host, 78, {path, "--api-token-file"});
    }
    for (const std::string& text : {std::string(), "\n" + kToken + "\n", kToken.substr(1) + "\n",
                                    "0123456789abcdef " + kToken, kToken + "\xc3\xa4\n",
                                    kToken + '\0', std::string(5000, 'x')}) {
        const std::string path = writeFile("token", text);
        HostProcess host(root, {"--api-token-file=" + path});
        expectRefusal(host, 78, {path, "openssl rand -hex 32"});
        EXPECT_EQ(countOf(host.err(), kToken.substr(1)), 0);
    }
}

TEST_F(AccessTest, RefusesACertificateOrKeyThatCannotBeUsed) {
    const Certificates files;
    const std::string rubbish = writeFile("rubbish", "no certificate\n");
    const std::string missing = root.notes() / "missing";
    const std::string folder = root.notes();
    const std::string certificate = "--tls-cert=" + files.certificateFile();
    const std::string key = "--tls-key=" + files.keyFile();
    const std::vector<std::pair<std::vector<std::string>, std::vector<std::string>>> cases{
        {{certificate}, {"--tls-cert", "--tls-key"}},
        {{key}, {"--tls-cert", "--tls-key"}},
        {{certificate, "--tls-key=" + missing}, {missing, "--tls-key"}},
        {{"--tls-cert=" + missing, key}, {missing, "--tls-cert"}},
        {{certificate, "--tls-key=" + folder}, {folder, "--tls-key"}},
        {{certificate, "--tls-key=" + rubbish}, {rubbish, "--tls-key"}},
        {{"--tls-cert=" + rubbish, key}, {rubbish, "--tls-cert"}},
        {{certificate, "--tls-key=" + files.clientKeyFile()}, {files.clientKeyFile(), "not that"}},
    };
    for (const auto& [arguments, parts] : cases) {
        HostProcess host(root, arguments);
        expectRefusal(host, 78, parts);
    }
}

TEST_F(AccessTest, ServicesReportWithoutTokenAndInPlainTextWhateverIsAskedOfOthers) {
    const Certificates files;
    root.addPlugin("thermo");
    root.addService("guid=thermo\nport=41234");
    const unsigned short port = freePort();
    HostProcess host(root,
                     {"--bind=0.0.0.0", "--port=" + std::to_string(port), "--allow=203.0.113.0/24",
                      "--api-token-file=" + tokenFile(), "--tls-cert=" + files.certificateFile(),
                      "--tls-key=" + files.keyFile()});
    EXPECT_TRUE(host.waitLogged("started plugin, guid: thermo")) << host.err();
    EXPECT_EQ(statusFor("127.0.0.1", port), 200);
}

TEST_F(AccessTest, ServesHttpsAndSaysSo) {
    const Certificates files;
    const unsigned short port = freePort();
    const std::string config =
        writeFile("host.properties", "tls.cert = " + files.certificateFile() +
                                         "\ntls.key = " + files.keyFile() + "\n");
    HostProcess host(root, {"--config=" + config, "--port=" + std::to_string(port)});
    ASSERT_TRUE(waitReadyWithTls(host, port)) << host.out() << host.err();
    Poco::Net::HTTPSClientSession session(
        "127.0.0.1", port,
        new Poco::Net::Context(Poco::Net::Context::TLS_CLIENT_USE, files.caFile(),
                               Poco::Net::Context::VERIFY_STRICT));
    EXPECT_EQ(askForReport(session).status, 200);
    host.signal(SIGTERM);
    EXPECT_EQ(host.waitForExit(), 0) << host.err();
}

/// A peer that is not on a loopback address: this machine by one of its other addresses.
class OutsideAccessTest : public AccessTest, public testing::WithParamInterface<IPAddress::Family> {
protected:
    void SetUp() override {
        const auto own = ownAddress(GetParam());
        if (!own)
            GTEST_SKIP() << "this machine has no such address but loopback and link-local";
        outside = own->toString();
    }

    std::string bindToAll() const {
        return GetParam() == IPAddress::IPv6 ? "--bind=::" : "--bind=0.0.0.0";
    }

    std::string outside;
};

INSTANTIATE_TEST_SUITE_P(Access, OutsideAccessTest,
                         testing::Values(IPAddress::IPv4, IPAddress::IPv6), [](const auto& test) {
                             return test.param == IPAddress::IPv6 ? "IPv6" : "IPv4";
                         });

TEST_P(OutsideAccessTest, IsServedFromAnAllowedNetworkAlone) {
    HostProcess allowing(root, {bindToAll(), "--allow=203.0.113.0/24, 2001:db8::/32",
                                "--allow=198.51.100.9," + outside});
    ASSERT_TRUE(allowing.waitReady()) << allowing.err();
    EXPECT_EQ(statusFor(outside, allowing.port()), 200);

    const std::string config = writeFile(
        "host.properties", "allow = 203.0.113.0/24, 2001:db8::/32\nallow.2 = 198.51.100.9\n");
    HostProcess refusing(root, {bindToAll(), "--config=" + config});
    ASSERT_TRUE(refusing.waitReady()) << refusing.err();
    EXPECT_THROW(statusFor(outside, refusing.port()), Poco::Exception);
    EXPECT_TRUE(refusing.waitLogged(outside)) << refusing.err();
    EXPECT_EQ(statusFor("127.0.0.1", refusing.port()), 200);
}

TEST_P(OutsideAccessTest, IsServedWithTheTokenAlone) {
    HostProcess host(root, {bindToAll(), "--api-token-file=" +
                                             writeFile("token", kToken + " \r\nfurther lines\n")});
    ASSERT_TRUE(host.waitReady()) << host.err();
    EXPECT_EQ(statusFor(outside, host.port(), kToken), 200);
    EXPECT_EQ(statusFor(outside, host.port(), kToken + "x"), 401);
    HTTPClientSession session(outside, host.port());
    const HttpAnswer answer = askForReport(session);
    EXPECT_EQ(answer.status, 401);
    EXPECT_EQ(answer.json()->getValue<int>("code"), -1);
    EXPECT_EQ(statusFor("127.0.0.1", host.port()), 200);
    EXPECT_THAT(host.err(), HasSubstr("token crosses the network in plain text"));
    EXPECT_EQ(countOf(host.err(), kToken), 0);
}

} // namespace
} // namespace ktr::test
