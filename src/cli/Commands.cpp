#include "Commands.h"

namespace ktr::cli {

const std::vector<Command>& commands() {
    static const std::vector<Command> all{newCommand(), checkCommand(), reportCommand(),
                                          runCommand(), completionCommand()};
    return all;
}

} // namespace ktr::cli
