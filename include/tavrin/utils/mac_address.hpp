// utils::mac_address: a six-byte device address, the base of every Bluetooth
// device address the library handles.
//
// The bytes are kept in the order of the text: byte 0 is the first pair of
// "aa:bb:cc:dd:ee:ff". Parsing is strict and reports bad input by
// runtime_error; a parse that fails part-way leaves the bytes read so far in
// place, so a caller that needs the old value must keep a copy. Ordering is
// byte-wise and unsigned, first byte most significant.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "tavrin/export.hpp"
#include "tavrin/utils/comparator.hpp"

namespace zelvo::tavrin::utils {

class TAVRIN_API mac_address : public comparator<mac_address> {
public:
    // 00:00:00:00:00:00.
    mac_address();
    // Copies six bytes from `source`, which must point at least that many.
    mac_address(unsigned char const* source);
    // Throws runtime_error "invalid length [N] of mac address" unless the
    // vector holds exactly six bytes.
    mac_address(std::vector<unsigned char> const& source);
    // Accepts twelve hexadecimal digits, or six pairs with one separator
    // character, the same one throughout ("aa-bb-cc-dd-ee-ff"). Throws
    // runtime_error "invalid length of mac address: ", "invalid separator in
    // mac address: " or "invalid mac address: ", each followed by the text.
    mac_address(std::string const& text);
    mac_address(mac_address const& other) = default;
    mac_address& operator=(mac_address const& other) = default;
    ~mac_address() override;

    void assign(unsigned char const* source);
    void assign(std::vector<unsigned char> const& source);
    void assign(std::string const& text);

    mac_address& operator=(unsigned char const* source);
    mac_address& operator=(std::vector<unsigned char> const& source);
    mac_address& operator=(std::string const& text);

    // Two hexadecimal digits per byte, `separator` between them if it is a
    // printable character and nothing otherwise.
    std::string to_string(char separator, bool uppercase) const;
    // Upper case with colons: "AA:BB:CC:DD:EE:FF".
    operator std::string() const;

    unsigned char* data() { return bytes.data(); }
    unsigned char const* data() const { return bytes.data(); }
    unsigned size() const { return 6; }

    bool is_equal(mac_address const& other) const override;
    bool is_less(mac_address const& other) const override;

private:
    std::array<unsigned char, 6> bytes;
};

}  // namespace zelvo::tavrin::utils
