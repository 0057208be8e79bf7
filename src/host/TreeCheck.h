#pragma once

#include <cstddef>
#include <optional>
#include <set>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace ktr::host {

/// Looks for what others than root and one user could change in a tree of folders, so that what is
/// loaded and launched from it is what those two put there.
///
/// Each folder on the way to the tree, and each folder and regular file in it, must belong to root
/// or the user and be writable by nobody else: neither by its group, whose members are others, and
/// in whose bits an access control list shows too, nor by everybody. A folder outside the root may
/// be writable by others if it is sticky, as /tmp is, since the entries of root and the user are
/// safe there; one that is walked may not, since others could add to it. A symbolic link must
/// belong to root or the user, and what it leads to is checked like the rest, with each folder and
/// link on the way.
///
/// What holds at the time of the check holds afterwards, as long as root and the user leave it so:
/// the way is checked from "/" downwards, and nobody else can exchange an entry of a folder once
/// that folder is safe. Two gaps stay. Whoever opened a file or folder for writing while that was
/// allowed keeps that, so paths that were mended are to be looked at before the next start. And who
/// may write to the disk by other ways, such as another machine that shares it, is not seen here.
/// What a program or library itself needs, such as a script's interpreter, is not looked at.
class TreeCheck {
public:
    struct Violation {
        std::string path;
        /// What is wrong with it, as the rest of a sentence that begins with the path.
        std::string fault;
        /// The command that mends it, in one line.
        std::string remedy;
    };

    struct Findings {
        bool safe = true;
        /// Not those that an earlier call found already, and not more than kMostViolations.
        std::vector<Violation> violations;
        /// How many were left out for their number.
        std::size_t more = 0;
    };

    static constexpr std::size_t kMostViolations = 20;

    /// `root_` may be relative and lead through links; throws std::filesystem::filesystem_error if
    /// it does not exist.
    explicit TreeCheck(const std::string& root_, uid_t user_ = geteuid());

    /// Checks the folder `tree` of the root, walking it as listFilesRecursively does. That it does
    /// not exist, or that a link leads nowhere, is no violation; what cannot be read is logged as a
    /// warning and passed over.
    Findings run(const std::string& tree);

private:
    /// A file or folder, whatever the path that leads to it.
    using FileId = std::pair<dev_t, ino_t>;

    struct Entry {
        std::string path;
        struct stat status {};

        bool isFolder() const { return S_ISDIR(status.st_mode); }
        bool isLink() const { return S_ISLNK(status.st_mode); }
        FileId id() const { return {status.st_dev, status.st_ino}; }
    };

    /// Where a path leads.
    struct Way {
        std::optional<Entry> end;
        /// Whether it ends in a folder that is shared, at a missing entry or at the folder itself.
        bool isOpen = false;
    };

    void visit(const std::string& path);
    void visitLink(const Entry& link);
    void take(const Entry& entry, const std::string& path);
    void enter(const Entry& folder, const std::string& path);

    Way follow(const std::string& path);
    void judgeOnTheWay(const Entry& entry);
    void judge(const Entry& entry, bool mayBeShared);
    bool isShared(const Entry& entry) const;
    void add(const Entry& entry, const std::string& fault, const std::string& remedy);
    std::string ownerFor(const Entry& entry) const;
    bool isInRoot(const std::string& path) const;

    const std::string namedRoot;
    // without links
    const std::string root;
    const uid_t user;

    Findings findings;
    // the next one last
    std::vector<std::string> pending;
    std::set<FileId> entered;
    // by all calls
    std::set<FileId> told;
};

} // namespace ktr::host
