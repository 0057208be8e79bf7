#pragma once

#include <string>
#include <vector>

namespace ktr::test {

/// Stands in this program for the system's resolver, for the names that a test gives it; all other
/// names go to the real one. Forgets them, and ends what hangs, when it goes. One at a time.
class NameServer {
public:
    NameServer() = default;
    ~NameServer();
    NameServer(const NameServer&) = delete;
    NameServer& operator=(const NameServer&) = delete;

    /// `name` has these addresses; there may be none.
    void answer(const std::string& name, const std::vector<std::string>& addresses);
    /// Look-ups of `name` get no answer while this object lives.
    void hang(const std::string& name);
    /// Whether a look-up hangs now.
    bool isAsked() const;
};

} // namespace ktr::test
