#pragma once

#include <atomic>
#include <mutex>
#include <string>

namespace ktr::cli {

/// One line for an event that a plugin raised: as it was raised, but for line breaks between the
/// tokens, which become blanks. What the host would not take for an event, for it is no JSON
/// object, becomes {"invalid":"..."}; bytes that are no UTF-8 are then taken for Latin-1.
std::string lineOfEvent(const std::string& event);

/// Writes events, each to a line of its own.
///
/// Thread safety: print may be called from any thread.
class EventOutput {
public:
    /// The descriptor stays the caller's, and open.
    explicit EventOutput(int descriptor_) : descriptor(descriptor_) {}

    /// Waits for a reader that is slow, but not for one that is gone, and once the run shall end
    /// for no more than a second: it is called by plugins that hold up all others meanwhile. A
    /// closed output is a wish to end.
    void print(const std::string& event);

    /// Why something could not be written; empty if the reader only went.
    std::string problem() const;

private:
    bool waitWritable() const;
    void writeLine(const std::string& line);
    void close(const std::string& why);

    const int descriptor;
    mutable std::mutex mutex;
    bool closed = false;
    std::string reason;
};

} // namespace ktr::cli
