// bt_ctrl::address: a Bluetooth device address, the MAC together with its
// type. A value type; ordering is by type first, then by MAC.
//
// An address of unknown type stands for "no particular device": it is false in
// a boolean context whatever its MAC holds.
#pragma once

#include <string>

#include "tavrin/bt_ctrl/interface.hpp"
#include "tavrin/export.hpp"
#include "tavrin/utils/comparator.hpp"
#include "tavrin/utils/mac_address.hpp"

namespace zelvo::tavrin {

class TAVRIN_API bt_ctrl::address : public utils::comparator<bt_ctrl::address> {
public:
    // Unknown type, 00:00:00:00:00:00.
    address();
    address(addr_type type, utils::mac_address const& mac);
    address(address const& other);
    address& operator=(address const& other);
    ~address() override;

    // The type is known.
    explicit operator bool() const;

    bool is_type_unknown() const;
    bool is_type_public() const;
    bool is_type_random() const;
    // The random subtypes, told by the two top bits of the first MAC byte:
    // static 11, resolvable private 01, non-resolvable private 00.
    bool is_type_random_static() const;
    bool is_type_random_resolvable() const;
    bool is_type_random_non_resolvable() const;

    bool is_equal(address const& other) const override;
    bool is_less(address const& other) const override;

    // Whether the MAC is possible for the type. A public MAC must be neither
    // all zeros nor all ones. A random MAC of a known subtype must have a
    // random part that is neither all zeros nor all ones; for a resolvable one
    // that part is the first three bytes, as the rest hold the hash. An
    // unknown type accepts any MAC, and a random MAC with the reserved top
    // bits 10 is not judged.
    bool is_valid() const;

    // "AA:BB:CC:DD:EE:FF-public": the MAC in upper case, a hyphen, the type.
    std::string to_string() const;

    addr_type type;
    utils::mac_address mac;
    // Selects the subtype bits of mac[0]; always 0xC0.
    unsigned char const type_mask = 0xC0;
};

}  // namespace zelvo::tavrin
