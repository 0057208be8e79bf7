#pragma once

#include "ktr/Export.h"
#include "ktr/PluginBase.h"
#include "ktr/Version.h"

#include <Poco/Version.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <string_view>
#include <type_traits>

/// @file
/// What makes a plugin of a class: one macro for the five entry points and the factory.
///
///     #include <ktr/PluginEntry.h>
///
///     class Hello final : public ktr::PluginBase { ... };
///
///     KETRA_PLUGIN(Hello, 1, "hello", "0c2f6b9e-5d0a-4c55-9f6b-3f1f0d3c7a11");
///
/// The namespace holds what the macro asks of its arguments while the plugin is compiled.
namespace ktr::entry {

/// Whether `guid` has the canonical form of a UUID in lower case. The host compares guids byte for
/// byte, so that two spellings of one guid would be two plugins.
constexpr bool isGuid(std::string_view guid) {
    constexpr std::string_view form = "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx";
    if (guid.size() != form.size())
        return false;
    for (std::size_t i = 0; i < form.size(); ++i) {
        const char c = guid[i];
        const bool isDigit = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
        if (form[i] == '-' ? c != '-' : !isDigit)
            return false;
    }
    return true;
}

/// Whether `name` can stand in a line of the log: not empty and without control characters.
constexpr bool isName(std::string_view name) {
    for (const char c : name)
        if (static_cast<unsigned char>(c) < ' ' || c == '\x7f')
            return false;
    return !name.empty();
}

/// Whether `type` is a number that PluginType can return.
template <typename T>
constexpr bool isType(T type) {
    static_assert(std::is_integral_v<T>, "KETRA_PLUGIN: the type is a whole number");
    if constexpr (std::is_unsigned_v<T>)
        return type <= static_cast<std::make_unsigned_t<std::int32_t>>(
                           std::numeric_limits<std::int32_t>::max());
    else
        return type >= std::numeric_limits<std::int32_t>::min() &&
               type <= std::numeric_limits<std::int32_t>::max();
}

/// The characters of `text`, which are `Size`, and the null behind them.
template <std::size_t Size>
constexpr std::array<char, Size + 1> charactersOf(std::string_view text) {
    std::array<char, Size + 1> characters{};
    for (std::size_t i = 0; i < Size; ++i)
        characters[i] = text[i];
    return characters;
}

/// Makes the plugin's object; what KETRA_PLUGIN registers.
template <typename Plugin>
std::shared_ptr<PluginBase> make() {
    static_assert(std::is_base_of_v<PluginBase, Plugin>,
                  "KETRA_PLUGIN: the class has to derive from ktr::PluginBase, publicly");
    static_assert(!std::is_abstract_v<Plugin>,
                  "KETRA_PLUGIN: the class has to implement stop() and onMessage()");
    static_assert(std::is_default_constructible_v<Plugin>,
                  "KETRA_PLUGIN: the class needs a constructor without arguments");
    return std::make_shared<Plugin>();
}

} // namespace ktr::entry

#define KETRA_ENTRY_TEXT_(text) #text
#define KETRA_ENTRY_TEXT(text) KETRA_ENTRY_TEXT_(text)

// the formatter would break the lines of the assembler's text anywhere
// clang-format off

// a decimal number of one or two digits; the assembler computes, for the preprocessor cannot
#define KETRA_ENTRY_NUMBER(number)                                                                 \
    ".if (" number ") > 9\n"                                                                       \
    ".byte 48 + (" number ") / 10\n"                                                               \
    ".endif\n"                                                                                     \
    ".byte 48 + (" number ") % 10\n"
#define KETRA_ENTRY_POCO(shift)                                                                    \
    KETRA_ENTRY_NUMBER("(" KETRA_ENTRY_TEXT(POCO_VERSION) " >> " #shift ") & 255")

/// Leaves an ELF note in the library, of the owner "Ketra" and type 1: lines that say what the
/// plugin was built with. It can be read without running anything of the library.
#define KETRA_ENTRY_NOTE()                                                                         \
    __asm__(                                                                                       \
        ".pushsection .note.ketra, \"a\", %note\n"                                                 \
        ".balign 4\n"                                                                              \
        ".long 662f - 661f\n"                                                                      \
        ".long 664f - 663f\n"                                                                      \
        ".long 1\n"                                                                                \
        "661: .asciz \"Ketra\"\n"                                                                  \
        "662: .balign 4\n"                                                                         \
        "663: .ascii \"ktr=" KTR_VERSION "\\npoco=\"\n"                                            \
        KETRA_ENTRY_POCO(24) ".ascii \".\"\n" KETRA_ENTRY_POCO(16) ".ascii \".\"\n"                \
        KETRA_ENTRY_POCO(8)                                                                        \
        ".ascii \"\\ncompiler=" KETRA_ENTRY_COMPILER "\\n\"\n"                                     \
        ".ascii \"cxx11abi=" KETRA_ENTRY_TEXT(_GLIBCXX_USE_CXX11_ABI) "\\n\"\n"                    \
        "664: .balign 4\n"                                                                         \
        ".popsection")

// clang-format on

#ifdef __clang__
#define KETRA_ENTRY_COMPILER __VERSION__
#else
#define KETRA_ENTRY_COMPILER "GCC " __VERSION__
#endif

/// `text` in a page that the dynamic linker has written to, and that is read-only since: to read it
/// among the constants would bring one more page in while the host loads the plugin.
#define KETRA_ENTRY_KEPT(text)                                                                     \
    ([]() -> const char* {                                                                         \
        static constexpr auto characters =                                                         \
            ktr::entry::charactersOf<std::string_view(text).size()>(text);                         \
        [[gnu::section(".data.rel.ro.ketra")]] static auto kept = characters;                      \
        return kept.data();                                                                        \
    }())

/// Makes the library a plugin. Once in a library, at file scope or in a namespace, with a semicolon
/// behind it:
///   Class  derives from ktr::PluginBase and is made by its constructor without arguments, for
///          every report of the plugin's service, under the lock of the host's registry
///   type   a number of the author's choice, 32 bits with sign
///   name   what the log calls the plugin, a literal
///   guid   a literal: the UUID, in lower case, that the service reports
/// Whatever of this does not hold is an error of the compiler that says so. Defines the five entry
/// points, of which PluginLoad registers the factory and PluginUnLoad does nothing.
// NOLINTBEGIN(bugprone-macro-parentheses): a class cannot stand in parentheses as an argument
#define KETRA_PLUGIN(Class, type, name, guid)                                                      \
    static_assert(ktr::entry::isType(type), "KETRA_PLUGIN: the type does not fit into 32 bits");   \
    static_assert(ktr::entry::isName(name),                                                        \
                  "KETRA_PLUGIN: the name is empty or holds control characters");                  \
    static_assert(ktr::entry::isGuid(guid),                                                        \
                  "KETRA_PLUGIN: the guid is no UUID in lower case, such as "                      \
                  "\"0c2f6b9e-5d0a-4c55-9f6b-3f1f0d3c7a11\"");                                     \
    KETRA_ENTRY_NOTE();                                                                            \
    /* not PluginGuid, by which a call would go to the first of all plugins that are open */       \
    static const char* ketraPluginGuid() {                                                         \
        return KETRA_ENTRY_KEPT(guid);                                                             \
    }                                                                                              \
    extern "C" {                                                                                   \
    KTR_API void PluginLoad() {                                                                    \
        ktr::registerPlugin(&ktr::entry::make<Class>, ketraPluginGuid());                          \
    }                                                                                              \
    KTR_API void PluginUnLoad() {}                                                                 \
    KTR_API std::int32_t PluginType() {                                                            \
        return static_cast<std::int32_t>(type);                                                    \
    }                                                                                              \
    KTR_API const char* PluginName() {                                                             \
        return KETRA_ENTRY_KEPT(name);                                                             \
    }                                                                                              \
    KTR_API const char* PluginGuid() {                                                             \
        return ketraPluginGuid();                                                                  \
    }                                                                                              \
    }                                                                                              \
    static_assert(true, "takes the semicolon")
// NOLINTEND(bugprone-macro-parentheses)
