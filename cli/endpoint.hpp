// A controller's address on the command line: "ADDR:PORT", IPv4 or a
// bracketed IPv6 address ("[::1]:7410").
#pragma once

#include <string>

#include "tavrin/utils/ip_address.hpp"

namespace zelvo::tavrin::cli {

struct endpoint {
    utils::ip_address address;
    unsigned short port = 0;

    // Throws invalid_argument with a message fit for the user. The port is
    // decimal digits only. Port 0 is accepted: a listener then picks a free
    // port.
    static endpoint parse(std::string const& text);
    std::string to_string() const;
};

// Where `tavrin sim` listens, and so where the other commands look, unless
// told otherwise.
inline constexpr char const* default_endpoint = "127.0.0.1:7410";

}  // namespace zelvo::tavrin::cli
