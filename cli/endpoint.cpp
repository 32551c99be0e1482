#include "endpoint.hpp"

#include <stdexcept>

namespace zelvo::tavrin::cli {

endpoint endpoint::parse(std::string const& text) {
    auto const colon = text.rfind(':');
    if (colon == std::string::npos || colon + 1 == text.size()) {
        throw std::invalid_argument("expected ADDR:PORT, got \"" + text + "\"");
    }
    auto host = text.substr(0, colon);
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    }
    // Digits only: what stoul would also take (a sign, blanks, "0x") is
    // refused.
    auto const port_text = text.substr(colon + 1);
    unsigned long port = 0;
    for (auto const c : port_text) {
        if (c < '0' || c > '9' || port > 65535) {
            port = 65536;
            break;
        }
        port = port * 10 + static_cast<unsigned long>(c - '0');
    }
    if (port > 65535) {
        throw std::invalid_argument("bad port \"" + port_text + "\" in \"" + text +
                                    "\": a port is a number from 0 to 65535, in decimal digits");
    }
    endpoint result;
    try {
        result.address = utils::ip_address(host);
    } catch (std::exception const&) {
        throw std::invalid_argument("bad IP address \"" + host + "\" in \"" + text + "\"");
    }
    result.port = static_cast<unsigned short>(port);
    return result;
}

std::string endpoint::to_string() const {
    auto const host = address.to_string(false, true);
    auto const bracketed = host.find(':') != std::string::npos ? "[" + host + "]" : host;
    return bracketed + ":" + std::to_string(port);
}

}  // namespace zelvo::tavrin::cli
