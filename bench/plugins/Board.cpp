#include "Board.h"

namespace ktr::bench {

Board& board() {
    static Board only;
    return only;
}

} // namespace ktr::bench
