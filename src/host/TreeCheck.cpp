#include "TreeCheck.h"

#include "Printable.h"
#include "ShellCommand.h"

#include "ktr/common/Logger.h"

#include <Poco/Format.h>
#include <Poco/StringTokenizer.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <system_error>

namespace ktr::host {
namespace {

// the kernel's own limit
constexpr int kMostLinks = 40;
constexpr mode_t kByOthers = S_IWGRP | S_IWOTH;

std::string join(const std::string& folder, const std::string& name) {
    return folder.back() == '/' ? folder + name : folder + "/" + name;
}

std::string parentOf(const std::string& path) {
    return std::filesystem::path(path).parent_path().string();
}

void logPassedOver(const std::string& path, const std::string& reason) {
    if (cachedLogger().warning())
        cachedLogger().warning("cannot check '" + printable(path) + "': " + reason +
                                   "; passed over",
                               __FILE__, __LINE__);
}

/// Puts the names in `path` before what is ahead, the next one last.
void pushNames(const std::string& path, std::vector<std::string>& ahead) {
    const Poco::StringTokenizer names(path, "/", Poco::StringTokenizer::TOK_IGNORE_EMPTY);
    for (std::size_t i = names.count(); i > 0; --i)
        ahead.push_back(names[i - 1]);
}

std::vector<std::string> namesIn(const std::string& folder) {
    std::vector<std::string> names;
    std::error_code error;
    std::filesystem::directory_iterator entry(folder, error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error))
        names.push_back(entry->path().filename().string());
    if (error)
        logPassedOver(folder, error.message());
    return names;
}

} // namespace

TreeCheck::TreeCheck(const std::string& root_, uid_t user_)
    : namedRoot(std::filesystem::absolute(root_).string()),
      root(std::filesystem::canonical(root_).string()), user(user_) {}

TreeCheck::Findings TreeCheck::run(const std::string& tree) {
    findings = Findings();
    entered.clear();
    // who could exchange a link to the root would choose the tree of the next start
    follow(namedRoot);
    pending.push_back(join(root, tree));
    while (!pending.empty()) {
        const std::string path = std::move(pending.back());
        pending.pop_back();
        visit(path);
    }
    return findings;
}

void TreeCheck::visit(const std::string& path) {
    Entry entry{path};
    if (lstat(path.c_str(), &entry.status) != 0) {
        if (errno != ENOENT)
            logPassedOver(path, std::strerror(errno));
    } else if (entry.isLink()) {
        visitLink(entry);
    } else {
        take(entry, path);
    }
}

void TreeCheck::visitLink(const Entry& link) {
    const Way way = follow(link.path);
    if (way.isOpen) {
        // taking the right to write there from others would harm them
        add(link, "leads to where others could put something", shellCommand("rm", link.path));
        return;
    }
    Entry reached;
    if (stat(link.path.c_str(), &reached.status) != 0) {
        if (errno != ENOENT && errno != ELOOP)
            logPassedOver(link.path, std::strerror(errno));
    } else if (!way.end || way.end->id() != reached.id()) {
        // over a path that is too long, or one of those links that the kernel makes up
        add(link, "leads to what cannot be checked", shellCommand("rm", link.path));
    } else {
        take(*way.end, link.path);
    }
}

/// `path` is the one by which the tree is listed, which may lead through links.
void TreeCheck::take(const Entry& entry, const std::string& path) {
    // what is neither of these is neither loaded nor launched
    if (entry.isFolder())
        enter(entry, path);
    else if (S_ISREG(entry.status.st_mode))
        judge(entry, false);
}

void TreeCheck::enter(const Entry& folder, const std::string& path) {
    if (!entered.insert(folder.id()).second)
        return;
    judge(folder, false);
    // a folder that may be read but not searched would fail once for each of its entries
    if (faccessat(AT_FDCWD, path.c_str(), X_OK, AT_EACCESS) != 0) {
        logPassedOver(path, std::strerror(errno));
        return;
    }
    std::vector<std::string> names = namesIn(path);
    std::sort(names.begin(), names.end());
    for (auto name = names.rbegin(); name != names.rend(); ++name)
        pending.push_back(join(path, *name));
}

/// Goes the way that the kernel goes from "/" along `path`, and judges each folder and each link.
TreeCheck::Way TreeCheck::follow(const std::string& path) {
    Entry at{"/"};
    if (lstat("/", &at.status) != 0)
        return {};
    const Entry top = at;
    judgeOnTheWay(at);
    std::vector<std::string> ahead;
    pushNames(path, ahead);
    for (int links = 0; !ahead.empty();) {
        const std::string name = std::move(ahead.back());
        ahead.pop_back();
        if (name == "." && at.isFolder())
            continue;
        Entry next{name == ".." ? parentOf(at.path) : join(at.path, name)};
        if (!at.isFolder() || lstat(next.path.c_str(), &next.status) != 0) {
            const bool isMissing = at.isFolder() && errno == ENOENT;
            return {{}, isMissing && isShared(at)};
        }
        judgeOnTheWay(next);
        if (next.isLink()) {
            std::error_code error;
            const std::string target = std::filesystem::read_symlink(next.path, error).string();
            if (error || ++links > kMostLinks)
                return {};
            pushNames(target, ahead);
            if (target.front() == '/')
                at = top;
        } else {
            at = next;
        }
    }
    return {at, isShared(at)};
}

void TreeCheck::judgeOnTheWay(const Entry& entry) {
    if (entry.isFolder())
        judge(entry, true);
    else if (entry.isLink())
        judge(entry, false);
}

/// Whether others may add entries, but not exchange those of root and the user.
bool TreeCheck::isShared(const Entry& entry) const {
    return entry.isFolder() && !isInRoot(entry.path) && (entry.status.st_mode & S_ISVTX) != 0 &&
           (entry.status.st_mode & kByOthers) != 0;
}

void TreeCheck::judge(const Entry& entry, bool mayBeShared) {
    const bool hasOwner = entry.status.st_uid == 0 || entry.status.st_uid == user;
    const mode_t byOthers = entry.isLink() ? 0 : entry.status.st_mode & kByOthers;
    const bool hasMode = byOthers == 0 || (mayBeShared && isShared(entry));
    std::string fault;
    std::string remedy;
    if (!hasOwner) {
        fault = std::string(entry.isLink() ? "is a link that " : "") + "belongs to user " +
                std::to_string(entry.status.st_uid) + ", not to root or the host's user";
        remedy =
            shellCommand((entry.isLink() ? "chown -h " : "chown ") + ownerFor(entry), entry.path);
    }
    if (!hasMode) {
        fault += std::string(fault.empty() ? "" : ", and ") + "can be written by " +
                 ((byOthers & S_IWOTH) != 0 ? "everybody" : "its group") +
                 Poco::format(" (mode %o)", unsigned{entry.status.st_mode & 07777U});
        remedy += (remedy.empty() ? "" : " && ") + shellCommand("chmod go-w", entry.path);
    }
    if (!fault.empty())
        add(entry, fault, remedy);
}

void TreeCheck::add(const Entry& entry, const std::string& fault, const std::string& remedy) {
    findings.safe = false;
    if (!told.insert(entry.id()).second)
        return;
    if (findings.violations.size() < kMostViolations)
        findings.violations.push_back({entry.path, fault, remedy});
    else
        ++findings.more;
}

std::string TreeCheck::ownerFor(const Entry& entry) const {
    return user == 0 || !isInRoot(entry.path) ? "root" : std::to_string(user);
}

bool TreeCheck::isInRoot(const std::string& path) const {
    return path == root || path.rfind(join(root, ""), 0) == 0;
}

} // namespace ktr::host
