#include "State.h"

#include <utility>

namespace ktr::test::fakes {

void reset() {
    State former; // destroyed without the lock: its functions may own pools
    const Locked state;
    std::swap(former, *state);
}

} // namespace ktr::test::fakes
