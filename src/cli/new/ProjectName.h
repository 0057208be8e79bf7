#pragma once

#include <string>

namespace ktr::cli {

/// What a project is called, in the forms that its files need.
class ProjectName {
public:
    /// Throws Failure(ExitUsage) unless `name` begins with a letter, has at most 40 letters,
    /// digits,
    /// '-' and '_', and makes a service that nothing else is called like.
    explicit ProjectName(std::string name);

    /// As given: "hello-world".
    const std::string& text() const { return name; }
    /// What a class can be called: "HelloWorld".
    std::string className() const;

private:
    const std::string name;
};

} // namespace ktr::cli
