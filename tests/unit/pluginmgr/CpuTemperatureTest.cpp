#include "PluginManagerUnderTest.h"

#include "support/TempDir.h"

#include <fstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

/// The paths that were asked for through Poco::File, oldest first.
std::vector<std::string>& askedFor() {
    static std::vector<std::string> paths;
    return paths;
}

} // namespace

// the program's own definition comes before that of Poco's shared library, and does the same
Poco::File::File(const std::string& path) : FileImpl(path) {
    askedFor().push_back(path);
}

namespace ktr {
namespace {

using namespace test;
using testing::ElementsAre;
using testing::IsEmpty;

// asked while the program is loaded, before any test
const bool runFlagAtLoad = _loop_thread_get_cpu_temp_run;
const bool joinableAtLoad = _loop_thread_get_cpu_temp.joinable();

class CpuTemperatureTest : public PluginManagerTest {
protected:
    int read(const std::string& content) const {
        const std::string path = (folder / "temp").string();
        std::ofstream(path) << content;
        return sReadCpuTemperature(path);
    }

    const TempDir folder;
    const LogCapture log;
};

TEST_F(CpuTemperatureTest, IsWholeDegreesTruncatedTowardZero) {
    EXPECT_EQ(read("52000\n"), 52);
    EXPECT_EQ(read("45678"), 45);
    EXPECT_EQ(read("999"), 0);
    EXPECT_EQ(read("-1500\n"), -1);
    EXPECT_EQ(read("-999\n"), 0);
    EXPECT_EQ(read("1000 and more\n2000\n"), 1);
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(CpuTemperatureTest, IsZeroWithoutAReadableNumber) {
    EXPECT_EQ(read("warm\n"), 0);
    EXPECT_EQ(read(""), 0);
    EXPECT_EQ(read("\n48000\n"), 0);
    EXPECT_EQ(sReadCpuTemperature((folder / "missing").string()), 0);
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(CpuTemperatureTest, ReadsNoMoreThanTheFirst255Characters) {
    EXPECT_EQ(read(std::string(252, ' ') + "41000\n"), 0);
    EXPECT_EQ(read(std::string(250, ' ') + "41000\n"), 41);
}

TEST_F(CpuTemperatureTest, LogsAFileThatCannotBeOpened) {
    // Not even root opens a socket as a file.
    const std::string path = (folder / "temp").string();
    const int descriptor = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    close(descriptor);
    EXPECT_EQ(sReadCpuTemperature(path), 0);
    EXPECT_THAT(lines(log), ElementsAre(std::tuple(
                                kInformation, "getCpuTemperature failed, msg: Cannot open file")));
    expectSource(log);
    cachedLogger().setLevel("none");
    EXPECT_EQ(sReadCpuTemperature(path), 0);
    EXPECT_EQ(log.messages().size(), 1U);
}

TEST_F(CpuTemperatureTest, IsThatOfTheFirstThermalZone) {
    askedFor().clear();
    getCpuTemperature();
    EXPECT_THAT(askedFor(), ElementsAre("/sys/class/thermal/thermal_zone0/temp"));
}

TEST_F(CpuTemperatureTest, ClosesTheFile) {
    const auto openFiles = [] {
        const std::filesystem::directory_iterator descriptors("/proc/self/fd");
        return std::distance(begin(descriptors), end(descriptors));
    };
    const auto before = openFiles();
    EXPECT_EQ(read("52000\n"), 52);
    EXPECT_EQ(read(""), 0);
    EXPECT_EQ(openFiles(), before);
}

TEST_F(CpuTemperatureTest, LetsOutWhatAskingForTheFileThrows) {
    EXPECT_THROW(sReadCpuTemperature(""), Poco::AssertionViolationException);
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(CpuTemperatureTest, OfThisMachineIsThatOfItsThermalFile) {
    const std::string path = "/sys/class/thermal/thermal_zone0/temp";
    if (std::filesystem::exists(path)) {
        EXPECT_NEAR(getCpuTemperature(), sReadCpuTemperature(path), 5);
    } else {
        EXPECT_EQ(getCpuTemperature(), 0);
        EXPECT_THAT(log.messages(), IsEmpty());
    }
}

TEST(SamplingThreadTest, IsNotStartedAndItsFlagIsClearAtLoad) {
    EXPECT_FALSE(runFlagAtLoad);
    EXPECT_FALSE(joinableAtLoad);
}

// what hosts and plugins were compiled against
static_assert(std::is_same_v<decltype(_loop_thread_get_cpu_temp), std::thread>);
static_assert(std::is_same_v<decltype(_loop_thread_get_cpu_temp_run), std::atomic<bool>>);
static_assert(sizeof _loop_thread_get_cpu_temp_run == 1);

} // namespace
} // namespace ktr
