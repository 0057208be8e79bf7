#pragma once

#include "support/ChildProcess.h"
#include "support/TempDir.h"
#include "support/WaitUntil.h"

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <vector>

namespace ktr::test {

inline std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

/// Living, rather than waiting to be read by its parent.
inline bool isAlive(pid_t pid) {
    const std::string text = readFile("/proc/" + std::to_string(pid) + "/stat");
    const auto bracket = text.rfind(") ");
    return bracket != std::string::npos && text[bracket + 2] != 'Z';
}

/// What one run of "ketra check" brought.
struct CheckRun {
    int code = -1;
    std::string text;
    /// Null unless the text is JSON.
    Poco::JSON::Object::Ptr json;

    /// Of the file whose name that is: its one report.
    Poco::JSON::Object::Ptr file(const std::string& name) const {
        Poco::JSON::Object::Ptr found;
        const auto files = json->getArray("files");
        for (unsigned i = 0; i < files->size(); ++i) {
            const auto path = files->getObject(i)->getValue<std::string>("path");
            if (path.substr(path.rfind('/') + 1) == name) {
                EXPECT_TRUE(found.isNull()) << name << " is reported twice\n" << text;
                found = files->getObject(i);
            }
        }
        EXPECT_FALSE(found.isNull()) << name << " is not reported\n" << text;
        return found;
    }

    /// "fault missing-entry-point" or alike, of the file; each with a text and a remedy.
    std::vector<std::string> findings(const std::string& name) const {
        std::vector<std::string> rules;
        const auto findings = file(name)->getArray("findings");
        for (unsigned i = 0; i < findings->size(); ++i) {
            const auto finding = findings->getObject(i);
            EXPECT_NE(finding->getValue<std::string>("text"), "");
            EXPECT_NE(finding->getValue<std::string>("remedy"), "");
            rules.push_back(finding->getValue<std::string>("severity") + " " +
                            finding->getValue<std::string>("rule"));
        }
        return rules;
    }

    /// The texts of the findings of a file, joined.
    std::string texts(const std::string& name) const {
        std::string all;
        const auto findings = file(name)->getArray("findings");
        for (unsigned i = 0; i < findings->size(); ++i)
            all += findings->getObject(i)->getValue<std::string>("text") + "\n";
        return all;
    }

    std::size_t countOfFiles() const { return json->getArray("files")->size(); }
    int faults() const { return json->getValue<int>("faults"); }
    int hints() const { return json->getValue<int>("hints"); }
};

/// A device's root in a temporary folder, and the tool to check it with.
class Check : public testing::Test {
protected:
    Check() {
        umask(022);
        std::filesystem::create_directories(plugins());
        std::filesystem::create_directories(services());
        std::filesystem::create_directories(temporary());
        unsetenv("KETRA_TEST_DEED");
        setenv("TMPDIR", temporary().c_str(), 1);
        setenv("KETRA_TEST_NOTES", notes().c_str(), 1);
    }

    ~Check() override { unsetenv("TMPDIR"); }

    std::filesystem::path root() const { return folder / "root"; }
    std::filesystem::path plugins() const { return root() / "plugins"; }
    std::filesystem::path services() const { return root() / "microservices"; }
    std::filesystem::path notes() const { return folder / "notes"; }
    /// Where the tool makes its folders.
    std::filesystem::path temporary() const { return folder / "temporary"; }

    /// What the plugin noted behind `key`.
    std::string noted(const std::string& key) const {
        std::ifstream in(notes());
        for (std::string word, line; in >> word && std::getline(in, line);)
            if (word == key)
                return line.empty() ? "" : line.substr(1);
        return "";
    }

    pid_t notedProcess() const {
        const std::string number = noted("pid");
        return number.empty() ? 0 : std::stoi(number);
    }

    static void install(const std::filesystem::path& from, const std::filesystem::path& to) {
        using std::filesystem::perms;
        std::filesystem::copy_file(from, to);
        // built under whatever umask
        std::filesystem::permissions(to, perms::group_write | perms::others_write,
                                     std::filesystem::perm_options::remove);
    }

    /// Of tests/fixtures/check; returns the file name.
    std::string addChecked(const std::string& name) const {
        std::string file = "libKetraPluginChecked" + name + ".so";
        install(std::filesystem::path(KETRA_CHECKED) / file, plugins() / file);
        return file;
    }

    /// Of tests/fixtures/plugins; returns the file name.
    std::string addFixture(const std::string& name) const {
        std::string file = "libKetraPluginFixture" + name + ".so";
        install(std::filesystem::path(KETRA_FIXTURE_PLUGINS) / file, plugins() / file);
        return file;
    }

    std::string addProgram(const std::string& name) const {
        install(KETRA_TEST_SERVICE, services() / name);
        return name;
    }

    std::string addScript(const std::string& name, const std::string& text) const {
        write(services() / name, text);
        std::filesystem::permissions(services() / name, std::filesystem::perms(0755));
        return name;
    }

    static void write(const std::filesystem::path& path, const std::string& text) {
        std::ofstream(path, std::ios::binary) << text;
    }

    /// Overwrites one byte of a file's ELF header.
    static void patch(const std::filesystem::path& path, int at, int value) {
        std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
        file.seekp(at);
        file.put(static_cast<char>(value));
    }

    static std::vector<std::string> commandLine(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {KETRA, "check"});
        return arguments;
    }

    std::string output() const { return folder / "output"; }

    /// As people run it.
    CheckRun run(const std::vector<std::string>& arguments) const {
        std::filesystem::remove(output());
        ChildProcess tool(commandLine(arguments), output());
        const int status = tool.wait();
        CheckRun result;
        result.code = WIFEXITED(status) ? WEXITSTATUS(status) : 256 + WTERMSIG(status);
        result.text = readFile(output());
        return result;
    }

    /// As scripts run it, with time for a slow machine.
    CheckRun check(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), "--json");
        if (std::find(arguments.begin(), arguments.end(), "--timeout") == arguments.end())
            arguments.insert(arguments.begin(), {"--timeout", "100"});
        CheckRun result = run(arguments);
        result.json = Poco::JSON::Parser().parse(result.text).extract<Poco::JSON::Object::Ptr>();
        return result;
    }
    CheckRun checkRoot() const { return check({root()}); }

    TempDir folder;
};

} // namespace ktr::test
