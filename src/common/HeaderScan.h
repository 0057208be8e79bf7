#pragma once

#include <cstddef>
#include <string_view>

namespace ktr {

/// Finds the end of a request's header in what comes from the client: its first empty line. Those
/// before the request line do not count. Refuses what two readers may take for different lines or
/// fields, and so for different requests: Poco's parser passes over much of it.
class HeaderScan {
public:
    /// How many of the bytes, which follow those of the call before, belong to the header. Throws
    /// HttpFault.
    std::size_t find(std::string_view bytes);

    bool isReached() const { return reached; }

private:
    enum class LineEnd { unknown, withReturn, without };

    bool isOfWordOrValue(char c) const;
    void count(char c);
    void take(char c);
    void takeOfRequestLine(char c);
    void takeOfField(char c);
    void endLine();

    bool inRequestLine = true;
    /// How much of the line has come, but for its end.
    std::size_t length = 0;
    char last = 0;
    bool afterReturn = false;
    /// In the request line.
    int blanks = 0;
    /// Whether the field's name is complete.
    bool named = false;
    LineEnd lineEnd = LineEnd::unknown;
    bool reached = false;
};

} // namespace ktr
