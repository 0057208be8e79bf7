#include "../../../src/host/ExitCode.h"
#include "../../../src/host/Settings.h"
#include "support/TempDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

namespace ktr::host {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

class HostileSettingsTest : public testing::Test {
protected:
    /// What the operator is told about a configuration file of this content.
    std::string complaintAbout(const std::string& content) {
        try {
            readSettings(load(content));
        } catch (const StartError& e) {
            EXPECT_EQ(e.exitCode(), ExitConfig);
            return e.what();
        }
        return "none";
    }

    RawSettings load(const std::string& content) {
        const std::string file = folder / "host.properties";
        std::ofstream(file) << content;
        RawSettings raw;
        raw.loadFile(file);
        return raw;
    }

    const test::TempDir folder;
};

// The host ended with a stack overflow: below a key that begins with a dot lay the key itself.
TEST_F(HostileSettingsTest, RefusesAKeyThatBeginsWithADot) {
    EXPECT_THAT(complaintAbout(".port = 1\n"), HasSubstr("unknown key '.port'"));
    EXPECT_THAT(complaintAbout("= 1\n"), HasSubstr("unknown key ''"));
    EXPECT_THAT(complaintAbout("..\n"), HasSubstr("unknown key '..'"));
}

// Likewise, one frame for each level of the key.
TEST_F(HostileSettingsTest, RefusesAKeyOfAHundredThousandLevels) {
    std::string key = "a";
    for (int level = 1; level < 100'000; ++level)
        key += ".a";
    EXPECT_THAT(complaintAbout(key + " = 1\n"), HasSubstr("unknown key 'a.a.a."));
}

TEST_F(HostileSettingsTest, TakesTheValuesOfARepeatedKeyInTheOrderOfTheirNames) {
    const RawSettings raw =
        load("webhook.url.2 = http://c\nwebhook.url = http://a\nwebhook.url.10 = http://b\n");
    EXPECT_THAT(raw.values("webhook.url"), ElementsAre("http://a", "http://b", "http://c"));
}

// A value can hold line breaks, by which the one line for the operator became several.
TEST_F(HostileSettingsTest, ComplainsInOneLine) {
    EXPECT_THAT(complaintAbout("port = 1\\n2\x1b[2J\n"),
                AllOf(HasSubstr("not '1?2?[2J'"), Not(HasSubstr("\n"))));
    EXPECT_THAT(complaintAbout("a\x7f = 1\n"), HasSubstr("unknown key 'a?'"));
}

} // namespace
} // namespace ktr::host
