// The word tables behind the enumerations' text forms. One table per
// enumeration serves both directions, so each value and its word are written
// down once; what a parser does with case and with a word it doesn't know is
// decided by the parser itself.
#pragma once

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>

namespace zelvo::tavrin::impl {

template <typename Enum>
struct enum_word {
    Enum value;
    char const* word;
};

// The word of `value`; throws logic_error with `failure` if the table has none.
template <typename Enum, std::size_t N>
std::string word_of(enum_word<Enum> const (&table)[N], Enum value, char const* failure) {
    for (auto const& entry : table) {
        if (entry.value == value) {
            return entry.word;
        }
    }
    throw std::logic_error(failure);
}

// The value whose word is exactly `text`, if any.
template <typename Enum, std::size_t N>
std::optional<Enum> value_of(enum_word<Enum> const (&table)[N], std::string const& text) {
    for (auto const& entry : table) {
        if (text == entry.word) {
            return entry.value;
        }
    }
    return std::nullopt;
}

}  // namespace zelvo::tavrin::impl
