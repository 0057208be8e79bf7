#include "Commands.h"

namespace ktr::cli {

const std::vector<Command>& commands() {
    static const std::vector<Command> all{completionCommand()};
    return all;
}

} // namespace ktr::cli
