#include "ktr/TestKit.h"

#include "FixtureCalls.h"
#include "ktr/common/Logger.h"
#include "support/Broker.h"
#include "support/FreePort.h"
#include "support/HttpClient.h"
#include "support/TempDir.h"

#include <gmock/gmock.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <stdexcept>
#include <string>
#include <vector>

namespace ktr::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Optional;
using testing::UnorderedElementsAreArray;

std::string fixture(const std::string& name) {
    return KETRA_FIXTURE_PLUGINS "/libKetraPluginFixture" + name + ".so";
}

/// The text of what `action` throws; empty if it throws nothing, or something else.
template <class Action>
std::string failureOf(Action action) {
    try {
        action();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "";
}

std::string loadFailure(const std::string& file) {
    return failureOf([&] { const TestKit kit(file, {}); });
}

std::vector<std::string> calls() {
    return FixtureCalls::instance().all();
}

/// With a temporary folder of its own, in which nothing may be left.
class TestKitTest : public testing::Test {
protected:
    TestKitTest() { setenv("TMPDIR", temp.path().c_str(), 1); } // NOLINT(concurrency-mt-unsafe)
    ~TestKitTest() override { EXPECT_TRUE(fs::is_empty(temp.path())); }
    TestKitTest(const TestKitTest&) = delete;
    TestKitTest& operator=(const TestKitTest&) = delete;

    std::string file(const std::string& name, const std::string& content) const {
        std::ofstream(other / name) << content;
        return other / name;
    }

    const TempDir other;
    const TempDir temp;
};

// ctest knows the tests by this name
using TestKit_ = TestKitTest;

} // namespace
} // namespace ktr::test
