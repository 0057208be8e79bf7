#pragma once

#include "ktr/Export.h"

#include <Poco/Path.h>

#include <list>
#include <string>

namespace ktr {

/// Which files listFilesRecursively keeps.
enum class ListFileType {
    /// Regular files that this process may execute.
    Executable = 0,
    /// Every regular file, and one path for each distinct file (device and inode), so that
    /// `libX.so -> libX.so.1` is listed once.
    Regular = 1,
};

/// The process's current directory, without a trailing separator (but for "/"). Throws
/// Poco::SystemException if it cannot be read, for instance because it was deleted.
KTR_API std::string getCurrentPath();

/// The path of `name` below the current directory; whether it exists is not checked. Throws like
/// getCurrentPath.
KTR_API std::string getCurrentChildPath(const std::string& name);

/// Appends to `out` the full path of every file of kind `type` below `dir`, at any depth, whose
/// file name contains `filter` (an empty filter keeps all). A relative `dir` is below the current
/// directory; throws like getCurrentPath if that cannot be read.
///
/// Each folder is listed in byte order of its names, files and folders alike, and a folder in it is
/// walked when its name comes. Symbolic links are followed; links that lead nowhere are left out.
/// No folder is entered twice and, with Regular, no file listed twice: the path that comes first
/// stands. An empty or missing `dir` yields nothing; what cannot be read is logged as a warning and
/// passed over. Thread-safe for distinct `out`.
KTR_API void listFilesRecursively(const Poco::Path& dir, std::list<std::string>& out,
                                  const ListFileType& type, const std::string& filter);

} // namespace ktr
