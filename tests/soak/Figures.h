#pragma once

#include <iostream>
#include <string>
#include <utility>
#include <vector>

namespace ktr::soak {

/// The table at the end.
class Figures {
public:
    template <class Value>
    void add(const std::string& name, const Value& value) {
        if constexpr (std::is_convertible_v<Value, std::string>)
            rows.emplace_back(name, value);
        else
            rows.emplace_back(name, std::to_string(value));
    }

    void print() const {
        constexpr std::size_t width = 36;
        for (const auto& [name, value] : rows)
            std::cout << name << std::string(width - std::min(width - 1, name.size()), ' ') << value
                      << "\n";
        std::cout << std::flush;
    }

private:
    std::vector<std::pair<std::string, std::string>> rows;
};

} // namespace ktr::soak
