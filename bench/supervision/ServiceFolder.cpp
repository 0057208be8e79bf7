#include "ServiceFolder.h"

#include "support/WaitUntil.h"

#include <csignal>

namespace ktr::bench {

namespace fs = std::filesystem;

ServiceFolder::ServiceFolder(int count) {
    const std::string folderName = folder.path().filename();
    const std::string prefix = "ketra-bench-" + folderName.substr(folderName.rfind('-') + 1) + "-";
    const fs::path services = folder / "microservices";
    fs::create_directory(services);
    for (int number = 1; number <= count; ++number) {
        files.push_back((services / (prefix + std::to_string(number))).string());
        if (number > 1) {
            fs::create_hard_link(files.front(), files.back());
            continue;
        }
        fs::copy_file(KETRA_BENCH_SERVICE, files.back());
        // a host uses nothing that others may write to
        fs::permissions(files.back(), fs::perms::owner_all);
    }
}

ServiceFolder::~ServiceFolder() {
    for (const auto& [path, pid] : running())
        kill(pid, SIGKILL);
    test::waitUntil([this] { return running().empty(); });
}

std::map<std::string, pid_t> ServiceFolder::running() const {
    const std::string below = folder.path().string() + "/";
    std::map<std::string, pid_t> found;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc")) {
        const std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") != std::string::npos)
            continue;
        std::error_code gone;
        const std::string program = fs::read_symlink(entry.path() / "exe", gone);
        if (!gone && program.rfind(below, 0) == 0)
            found[program] = std::stoi(name);
    }
    return found;
}

} // namespace ktr::bench
