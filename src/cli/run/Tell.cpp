#include "Tell.h"

#include <unistd.h>

namespace ktr::cli {

void tell(const std::string& text) {
    const std::string line = "ketra run: " + text + "\n";
    const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
    // nobody is left to tell
    static_cast<void>(written);
}

} // namespace ktr::cli
