#include "tavrin/gatt/uuid.hpp"

#include <algorithm>
#include <stdexcept>
#include <string>
#include <utility>

#include "tavrin/misc/hex.hpp"

namespace zelvo::tavrin::gatt {

namespace {

// Bytes 4 to 15 of a reserved value are those of the base.
constexpr std::size_t base_tail = 4;

// The value of a hexadecimal digit, or -1.
int hex_digit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

}  // namespace

uuid::uuid() : value(get_raw_base()) {}

uuid::uuid(uuid const& other) : value(other.value) {}

uuid::uuid(uuid&& other) : uuid() {
    value.swap(other.value);
}

uuid::uuid(std::vector<unsigned char> const& source) : uuid() {
    assign(source);
}

uuid::uuid(std::vector<unsigned char>&& source) : uuid() {
    assign(std::move(source));
}

uuid::uuid(std::string const& text) : uuid() {
    assign(text);
}

uuid::~uuid() = default;

void uuid::assign(uuid const& other) {
    value = other.value;
}

void uuid::assign(uuid&& other) {
    value.swap(other.value);
}

void uuid::assign(std::vector<unsigned char> const& source) {
    std::vector<unsigned char> expanded(source);
    adjust(expanded);
    value.swap(expanded);
}

void uuid::assign(std::vector<unsigned char>&& source) {
    std::vector<unsigned char> expanded(std::move(source));
    adjust(expanded);
    value.swap(expanded);
}

void uuid::assign(std::string const& text) {
    // Read in place, with the errors of from_hex_string and adjust in their
    // order (odd digit count, a non-hexadecimal digit, a size other than 2,
    // 4 or 16 bytes): every GATT reply names a UUID, and copying the text,
    // splitting it and growing a vector cost more than the reading.
    std::size_t digits = 0;
    for (char const c : text) {
        digits += c != '-';
    }
    if (digits % 2 != 0) {
        throw std::runtime_error("from_hex_string: Invalid input size");
    }
    for (char const c : text) {
        if (c != '-' && hex_digit(c) < 0) {
            throw std::runtime_error("from_hex_string: Got non-hexadecimal value");
        }
    }
    auto const size = digits / 2;
    if (size != 2 && size != 4 && size != 16) {
        throw std::runtime_error("invalid bluetooth uuid size [" + std::to_string(size) + "]");
    }
    unsigned char read[16] = {};
    std::size_t at = 0;
    for (char const c : text) {
        if (c != '-') {
            read[at / 2] = static_cast<unsigned char>(read[at / 2] * 16 + hex_digit(c));
            ++at;
        }
    }
    auto const& base = get_raw_base();
    value.assign(base.begin(), base.end());
    std::copy(read, read + size, value.begin() + (size == 2 ? 2 : 0));
}

uuid& uuid::operator=(uuid const& other) {
    assign(other);
    return *this;
}

uuid& uuid::operator=(uuid&& other) {
    assign(std::move(other));
    return *this;
}

uuid& uuid::operator=(std::vector<unsigned char> const& source) {
    assign(source);
    return *this;
}

uuid& uuid::operator=(std::vector<unsigned char>&& source) {
    assign(std::move(source));
    return *this;
}

uuid& uuid::operator=(std::string const& text) {
    assign(text);
    return *this;
}

std::vector<unsigned char> const& uuid::get_raw_base() {
    static std::vector<unsigned char> const base{0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x10, 0x00,
                                                 0x80, 0x00, 0x00, 0x80, 0x5F, 0x9B, 0x34, 0xFB};
    return base;
}

std::vector<unsigned char>& uuid::adjust(std::vector<unsigned char>& value) {
    auto const size = value.size();
    if (size == 16) {
        return value;
    }
    if (size != 2 && size != 4) {
        throw std::runtime_error("invalid bluetooth uuid size [" + std::to_string(size) + "]");
    }
    std::vector<unsigned char> short_form(get_raw_base());
    short_form.swap(value);
    std::copy(short_form.begin(), short_form.end(), value.begin() + (size == 2 ? 2 : 0));
    return value;
}

bool uuid::is_reserved() const {
    auto const& base = get_raw_base();
    if (value.size() <= base_tail || value.size() != base.size()) {
        return false;
    }
    return std::equal(value.begin() + base_tail, value.end(), base.begin() + base_tail);
}

std::size_t uuid::size(bool full) const {
    if (full || !is_reserved()) {
        return value.size();
    }
    return value[0] == 0 && value[1] == 0 ? 2 : 4;
}

unsigned char const* uuid::data(bool full) const {
    return value.data() + (!full && size(false) == 2 ? 2 : 0);
}

unsigned char* uuid::data(bool full) {
    return value.data() + (!full && size(false) == 2 ? 2 : 0);
}

std::string uuid::to_string(bool full) const {
    if (!full && value.size() > 4 && size(false) != value.size()) {
        auto const* const short_form = data(false);
        return misc::to_hex_string(std::vector<unsigned char>(short_form, short_form + size(false)),
                                   "", false);
    }
    auto text = misc::to_hex_string(value, "", false);
    if (text.size() != 32) {
        return text;
    }
    // 8-4-4-4-12: insert from the back so that earlier positions stay put.
    for (std::size_t position : {20, 16, 12, 8}) {
        text.insert(position, 1, '-');
    }
    return text;
}

bool uuid::is_equal(uuid const& other) const {
    return value == other.value;
}

bool uuid::is_less(uuid const& other) const {
    return std::lexicographical_compare(value.begin(), value.end(), other.value.begin(),
                                        other.value.end());
}

}  // namespace zelvo::tavrin::gatt
