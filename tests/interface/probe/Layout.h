#pragma once

#include "ktr/MSManager.h"
#include "ktr/PluginBase.h"

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace ktr::test {

/// Where a data member lies in its class.
struct MemberLayout {
    const char* member;
    std::size_t offset;
    std::size_t size;
    std::size_t alignment;
};

/// How the compiler at hand lays out a class: its data members, in the order that the interface
/// gives them.
struct ClassLayout {
    const char* name;
    std::size_t size;
    std::size_t alignment;
    std::vector<MemberLayout> members;
};

template <class Member>
MemberLayout memberLayout(const char* name, std::size_t offset) {
    return {name, offset, sizeof(Member), alignof(Member)};
}

template <class Class>
ClassLayout classLayout(const char* name, std::vector<MemberLayout> members) {
    return {name, sizeof(Class), alignof(Class), std::move(members)};
}

/// Needs a translation unit in which private members can be named (-fno-access-control).
#define KETRA_MEMBER(Class, member)                                                                \
    memberLayout<decltype(Class::member)>(#member, offsetof(Class, member))
#define KETRA_CLASS(Class, ...) classLayout<Class>(#Class, {__VA_ARGS__})

/// The classes that cross the boundary between plugins, libraries and hosts.
std::vector<ClassLayout> publicLayouts();

/// The same as text, a line for each class and member, for comparison with another compiler's.
std::string layoutText();

} // namespace ktr::test
