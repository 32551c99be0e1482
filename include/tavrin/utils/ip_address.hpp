// utils::ip_address: an IPv4 or IPv6 address with a prefix (mask) length, the
// way the application names the controller's endpoint.
//
// The value is one byte vector: the address in network order, then the mask
// length as a last byte, 5 bytes for IPv4 and 17 for IPv6. The family is told
// by that length alone; a default-constructed address is empty and belongs to
// neither family.
//
// Strictness differs by path, and callers rely on it. Parsing text accepts any
// mask length up to the family's width and doesn't validate; building from raw
// bytes, and therefore copying, validates and refuses a mask shorter than 8.
// So "10.0.0.1/4" parses, but its first copy (and with it get_net_addr and
// get_bcast_addr) throws "invalid ip address mask". Parsing overwrites the old
// value before it reads anything: a failed parse leaves the all-zero IPv6
// address with mask length 0, never the previous address.
//
// All failures are exceptions with fixed texts; none is reported by code.
#pragma once

#include <string>
#include <vector>

#include "tavrin/export.hpp"
#include "tavrin/utils/comparator.hpp"

namespace zelvo::tavrin::utils {

class TAVRIN_API ip_address : public comparator<ip_address> {
public:
    ip_address() = default;
    // "a.b.c.d", an IPv6 text, either with an optional "/len". Throws
    // runtime_error "invalid address \"host\"" for a host that is neither
    // family, invalid_argument or out_of_range "stoi" for a mask part that is
    // not a number (digits followed by other characters count as the digits),
    // and the errors of set_mask(unsigned).
    ip_address(std::string const& text);
    // 4 or 16 address bytes (default mask length), or 5 or 17 with the mask
    // length last. Throws runtime_error "invalid ip address size" for another
    // length, then whatever validate() throws.
    ip_address(std::vector<unsigned char> const& source);
    // Validates, as the vector form does.
    ip_address(ip_address const& other);
    ~ip_address() override;

    void assign(std::string const& text);
    void assign(std::vector<unsigned char> const& source);
    void assign(ip_address const& other);

    ip_address& operator=(std::string const& text);
    ip_address& operator=(std::vector<unsigned char> const& source);
    // Copies the bytes as they are; unlike construction, it doesn't validate.
    ip_address& operator=(ip_address const& other) = default;

    bool is_ipv4() const;
    bool is_ipv6() const;

    // 32 for IPv4, 128 otherwise.
    unsigned get_default_mask_len() const;
    // The stored mask length; 0 for an empty address.
    unsigned get_mask_len() const;
    // Any length up to the family's width, 0 included. Throws runtime_error
    // "invalid ipv4 mask length [N]" (or ipv6) above it, and logic_error
    // "can't set mask" on an empty address.
    void set_mask(unsigned len);
    void set_default_mask();
    // Takes the length from a mask written as an address (255.255.255.0). Its
    // ones must be contiguous: runtime_error "invalid mask!" for a stray bit in
    // the byte where the prefix ends, "invalid mask" for one in a later byte.
    // The mask's family is not compared with this address's.
    void set_mask(ip_address const& mask);
    // The mask as an address of this family, with the default mask length.
    ip_address get_mask() const;
    // This address with the host bits cleared or set; the mask length is kept.
    ip_address get_net_addr() const;
    ip_address get_bcast_addr() const;
    // Equal, or one of the two networks contains the other.
    bool is_same_net(ip_address const& other) const;

    // Throws runtime_error "invalid ip address type" for an empty address, and
    // "invalid ip address mask" for a mask length below 8 or above the width.
    void validate() const;

    // Null for an empty address.
    unsigned char* data();
    unsigned char const* data() const;
    // 0 when empty; 4 or 16 without the mask; 5 or 17 with it, or with
    // `default_only` only when the mask has its default length.
    unsigned size(bool with_mask, bool default_only) const;

    // The usual text of the address; "/len" appended if `with_mask`, unless
    // `default_hidden` and the mask has its default length. Throws logic_error
    // "unknonwn ip address type" for an empty address.
    std::string to_string(bool with_mask, bool default_hidden) const;
    // The address without its mask.
    operator std::string() const;

    // IPv4 sorts before IPv6; within a family, bytes then mask length, so
    // addresses that differ only in their mask are different. Throws
    // logic_error "invalid ip addr size" for an empty against a non-empty one.
    static int cmp(ip_address const& a, ip_address const& b);

    bool is_equal(ip_address const& other) const override;
    bool is_less(ip_address const& other) const override;

private:
    bool contains(ip_address const& other) const;
    ip_address with_host_bits(bool set) const;

    std::vector<unsigned char> bytes;
};

}  // namespace zelvo::tavrin::utils
