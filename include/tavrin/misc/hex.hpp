// Conversion between byte containers and hexadecimal text, as the controller
// exchanges binary values (advertising data, attribute values).
#pragma once

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "tavrin/misc/strings.hpp"

namespace zelvo::tavrin::misc {

// Each element as two zero-filled hexadecimal digits, `separator` between
// elements. An empty container gives an empty text.
template <typename Container>
std::string to_hex_string(Container const& bytes, std::string const& separator, bool uppercase) {
    // Written digit by digit: attribute values and advertising data go
    // through here on every answer, and a stream costs more than the text.
    char const* const digits = uppercase ? "0123456789ABCDEF" : "0123456789abcdef";
    std::string out;
    auto const count = static_cast<std::size_t>(std::distance(std::begin(bytes), std::end(bytes)));
    if (count != 0) {
        out.reserve(count * 2 + (count - 1) * separator.size());
    }
    bool first = true;
    for (auto byte : bytes) {
        if (!first) {
            out += separator;
        }
        first = false;
        auto const value = static_cast<unsigned char>(byte);
        out += digits[value >> 4];
        out += digits[value & 0x0F];
    }
    return out;
}

// The inverse of to_hex_string. Only the overall length is checked up front,
// so with a separator a part may be one digit or empty (an empty part is 0).
// Throws runtime_error "from_hex_string: Invalid input size", "...: Type is too
// short" or "...: Got non-hexadecimal value"; nothing partial is returned.
template <typename Container>
Container from_hex_string(std::string const& text, std::string const& separator) {
    // n elements take 2n digits and n - 1 separators. Only the length is
    // checked here; an empty text is zero elements whatever the separator.
    auto const sep = separator.size();
    auto const count = (text.size() + sep) / (sep + 2);
    if (!text.empty() && count * (sep + 2) != text.size() + sep) {
        throw std::runtime_error("from_hex_string: Invalid input size");
    }
    auto const parts = sep != 0 ? split(text, separator) : chunk(text, 2);
    Container result(parts.size(), 0);
    auto out = result.begin();
    for (auto const& part : parts) {
        if (part.size() > 2 * sizeof(typename Container::value_type)) {
            throw std::runtime_error("from_hex_string: Type is too short");
        }
        for (unsigned char c : part) {
            if (!std::isxdigit(c)) {
                throw std::runtime_error("from_hex_string: Got non-hexadecimal value");
            }
        }
        // Read as a 16-bit number (saturating, as a stream read would), of
        // which the low byte is kept; an empty part is 0.
        unsigned long value = 0;
        for (unsigned char c : part) {
            auto const digit = std::isdigit(c) ? c - '0' : std::tolower(c) - 'a' + 10;
            value = std::min<unsigned long>(value * 16 + static_cast<unsigned long>(digit), 0xFFFF);
        }
        *out++ = static_cast<typename Container::value_type>(value & 0xFF);
    }
    return result;
}

}  // namespace zelvo::tavrin::misc
