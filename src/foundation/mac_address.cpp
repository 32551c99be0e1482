#include "tavrin/utils/mac_address.hpp"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <stdexcept>

namespace zelvo::tavrin::utils {

mac_address::mac_address() : bytes{} {}

mac_address::mac_address(unsigned char const* source) : bytes{} {
    assign(source);
}

mac_address::mac_address(std::vector<unsigned char> const& source) : bytes{} {
    assign(source);
}

mac_address::mac_address(std::string const& text) : bytes{} {
    assign(text);
}

mac_address::~mac_address() = default;

void mac_address::assign(unsigned char const* source) {
    std::memcpy(bytes.data(), source, bytes.size());
}

void mac_address::assign(std::vector<unsigned char> const& source) {
    if (source.size() != bytes.size()) {
        throw std::runtime_error("invalid length [" + std::to_string(source.size()) +
                                 "] of mac address");
    }
    std::memcpy(bytes.data(), source.data(), bytes.size());
}

void mac_address::assign(std::string const& text) {
    bool const separated = text.size() == 17;
    if (!separated && text.size() != 12) {
        throw std::runtime_error("invalid length of mac address: " + text);
    }
    if (separated) {
        char const separator = text[2];
        for (auto index : {5, 8, 11, 14}) {
            if (text[index] != separator) {
                throw std::runtime_error("invalid separator in mac address: " + text);
            }
        }
    }
    std::size_t const stride = separated ? 3 : 2;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        // A stream extraction, not a digit check: it skips leading blanks and
        // takes a sign, and both are part of what this parser accepts.
        std::istringstream pair(text.substr(i * stride, 2));
        int value = 0;
        pair >> std::hex >> value;
        if (pair.fail() || !pair.eof() || static_cast<unsigned>(value) > 0xFF) {
            throw std::runtime_error("invalid mac address: " + text);
        }
        bytes[i] = static_cast<unsigned char>(value);
    }
}

mac_address& mac_address::operator=(unsigned char const* source) {
    assign(source);
    return *this;
}

mac_address& mac_address::operator=(std::vector<unsigned char> const& source) {
    assign(source);
    return *this;
}

mac_address& mac_address::operator=(std::string const& text) {
    assign(text);
    return *this;
}

std::string mac_address::to_string(char separator, bool uppercase) const {
    bool const printable = std::isprint(static_cast<unsigned char>(separator)) != 0;
    char const* const format = uppercase ? "%02X" : "%02x";
    std::string text;
    text.reserve(17);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i != 0 && printable) {
            text += separator;
        }
        char digits[3];
        std::snprintf(digits, sizeof digits, format, static_cast<unsigned>(bytes[i]));
        text += digits;
    }
    return text;
}

mac_address::operator std::string() const {
    return to_string(':', true);
}

bool mac_address::is_equal(mac_address const& other) const {
    return std::memcmp(bytes.data(), other.bytes.data(), bytes.size()) == 0;
}

bool mac_address::is_less(mac_address const& other) const {
    return std::memcmp(bytes.data(), other.bytes.data(), bytes.size()) < 0;
}

}  // namespace zelvo::tavrin::utils
