#include "NewFolder.h"

#include "../ExitCode.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace ktr::cli {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void fail(const fs::path& path, const std::error_code& error,
                       const std::string& remedy) {
    throw Failure(ExitCannotCreate,
                  path.string() + " cannot be made (" + error.message() + "); " + remedy);
}

std::error_code lastError() {
    return {errno, std::generic_category()};
}

/// Writes all of `text`; false, with errno, if that fails.
bool writeAll(int file, const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t count = ::write(file, text.data() + done, text.size() - done);
        if (count < 0 && errno != EINTR)
            return false;
        if (count > 0)
            done += static_cast<std::size_t>(count);
    }
    return true;
}

void requireEmpty(const fs::path& folder) {
    std::error_code error;
    const fs::directory_iterator first(folder, error);
    if (error)
        fail(folder, error, "name another one with --directory");
    if (first != fs::directory_iterator())
        throw Failure(ExitCannotCreate, folder.string() +
                                            " exists and is not empty; name another folder with "
                                            "--directory, or remove it");
}

} // namespace

NewFolder::NewFolder(const fs::path& folder) : root(fs::absolute(folder).lexically_normal()) {
    // what cannot be looked at cannot be made either, which tells why
    std::error_code ignored;
    if (fs::exists(root, ignored)) {
        requireEmpty(root);
        return;
    }
    try {
        makeFolder(root);
    } catch (...) {
        remove();
        throw;
    }
}

NewFolder::~NewFolder() {
    remove();
}

void NewFolder::add(const fs::path& name, const std::string& text) {
    const fs::path path = root / name;
    makeFolder(path.parent_path());
    const mode_t mode = text.rfind("#!", 0) == 0 ? 0777 : 0666;
    const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (file < 0)
        fail(path, lastError(), "see to it that its folder can be written to");
    made.push_back(path);
    std::error_code error;
    if (!writeAll(file, text))
        error = lastError();
    // some file systems tell only now that the disk is full
    if (::close(file) != 0 && !error)
        error = lastError();
    if (error)
        fail(path, error, "make room, then try again");
}

void NewFolder::makeFolder(const fs::path& path) {
    std::error_code error;
    if (fs::exists(path, error))
        return;
    if (path.has_relative_path())
        makeFolder(path.parent_path());
    if (fs::create_directory(path, error))
        made.push_back(path);
    if (error)
        fail(path, error, "name a folder that can be made with --directory");
}

void NewFolder::remove() noexcept {
    // a folder into which somebody else put something stays
    std::error_code ignored;
    for (; !made.empty(); made.pop_back())
        fs::remove(made.back(), ignored);
}

} // namespace ktr::cli
