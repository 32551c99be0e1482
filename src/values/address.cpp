#include "tavrin/bt_ctrl/address.hpp"

#include <algorithm>
#include <array>
#include <string>

namespace zelvo::tavrin {

namespace {

using mac_bytes = std::array<unsigned char, 6>;

bool all_bytes_are(mac_bytes const& bytes, unsigned char value) {
    return std::all_of(bytes.begin(), bytes.end(), [value](auto byte) { return byte == value; });
}

}  // namespace

bt_ctrl::address::address() : type(addr_type::unknown) {}

bt_ctrl::address::address(addr_type type, utils::mac_address const& mac) : type(type), mac(mac) {}

bt_ctrl::address::address(address const& other)
    : utils::comparator<address>(other), type(other.type), mac(other.mac) {}

bt_ctrl::address& bt_ctrl::address::operator=(address const& other) {
    type = other.type;
    mac = other.mac;
    return *this;
}

bt_ctrl::address::~address() = default;

bt_ctrl::address::operator bool() const {
    return type != addr_type::unknown;
}

bool bt_ctrl::address::is_type_unknown() const {
    return type == addr_type::unknown;
}

bool bt_ctrl::address::is_type_public() const {
    return type == addr_type::public_address;
}

bool bt_ctrl::address::is_type_random() const {
    return type == addr_type::random_address;
}

bool bt_ctrl::address::is_type_random_static() const {
    return is_type_random() && (mac.data()[0] & type_mask) == 0xC0;
}

bool bt_ctrl::address::is_type_random_resolvable() const {
    return is_type_random() && (mac.data()[0] & type_mask) == 0x40;
}

bool bt_ctrl::address::is_type_random_non_resolvable() const {
    return is_type_random() && (mac.data()[0] & type_mask) == 0x00;
}

bool bt_ctrl::address::is_equal(address const& other) const {
    return type == other.type && mac.is_equal(other.mac);
}

bool bt_ctrl::address::is_less(address const& other) const {
    auto const own_rank = static_cast<signed char>(type);
    auto const other_rank = static_cast<signed char>(other.type);
    if (own_rank != other_rank) {
        return own_rank < other_rank;
    }
    return mac.is_less(other.mac);
}

bool bt_ctrl::address::is_valid() const {
    if (mac.size() != 6) {
        return false;
    }
    mac_bytes bytes;
    std::copy_n(mac.data(), bytes.size(), bytes.begin());

    switch (type) {
        case addr_type::public_address:
            return !all_bytes_are(bytes, 0x00) && !all_bytes_are(bytes, 0xFF);
        case addr_type::unknown:
            return true;
        case addr_type::random_address:
            break;
        default:
            return false;
    }

    bool const resolvable = is_type_random_resolvable();
    if (!is_type_random_static() && !resolvable && !is_type_random_non_resolvable()) {
        return true;
    }
    // The random part may be neither all zeros nor all ones. The subtype bits
    // are not random, so both references carry this address's own; the last
    // three bytes of a resolvable address are its hash, not random, so both
    // references carry those too.
    unsigned char const subtype_bits = bytes[0] & type_mask;
    mac_bytes zeros{};
    mac_bytes ones;
    ones.fill(0xFF);
    zeros[0] = subtype_bits;
    ones[0] = static_cast<unsigned char>((0xFF ^ type_mask) | subtype_bits);
    if (resolvable) {
        std::copy(bytes.begin() + 3, bytes.end(), zeros.begin() + 3);
        std::copy(bytes.begin() + 3, bytes.end(), ones.begin() + 3);
    }
    return bytes != zeros && bytes != ones;
}

std::string bt_ctrl::address::to_string() const {
    return mac.to_string(':', true) + "-" + bt_ctrl::to_string(type);
}

}  // namespace zelvo::tavrin
