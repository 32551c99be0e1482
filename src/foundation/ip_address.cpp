#include "tavrin/utils/ip_address.hpp"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace zelvo::tavrin::utils {
namespace {

constexpr std::size_t ipv4_size = 4;
constexpr std::size_t ipv6_size = 16;

}  // namespace

ip_address::ip_address(std::string const& text) {
    assign(text);
}

ip_address::ip_address(std::vector<unsigned char> const& source) {
    assign(source);
}

ip_address::ip_address(ip_address const& other) : comparator(other) {
    assign(other.bytes);
}

ip_address::~ip_address() = default;

void ip_address::assign(std::string const& text) {
    auto const slash = text.rfind('/');
    std::string const host = text.substr(0, slash);

    bytes.assign(ipv6_size + 1, 0);
    if (inet_pton(AF_INET, host.c_str(), bytes.data()) == 1) {
        bytes.resize(ipv4_size + 1);
    } else if (inet_pton(AF_INET6, host.c_str(), bytes.data()) != 1) {
        std::fill(bytes.begin(), bytes.end(), 0);
        throw std::runtime_error("invalid address \"" + host + "\"");
    }

    if (slash == std::string::npos) {
        set_default_mask();
    } else {
        set_mask(static_cast<unsigned>(std::stoi(text.substr(slash + 1))));
    }
}

void ip_address::assign(std::vector<unsigned char> const& source) {
    auto const length = source.size();
    bool const with_mask = length == ipv4_size + 1 || length == ipv6_size + 1;
    if (!with_mask && length != ipv4_size && length != ipv6_size) {
        throw std::runtime_error("invalid ip address size");
    }
    bytes = source;
    if (!with_mask) {
        bytes.push_back(0);
        set_default_mask();
    }
    validate();
}

void ip_address::assign(ip_address const& other) {
    assign(other.bytes);
}

ip_address& ip_address::operator=(std::string const& text) {
    assign(text);
    return *this;
}

ip_address& ip_address::operator=(std::vector<unsigned char> const& source) {
    assign(source);
    return *this;
}

bool ip_address::is_ipv4() const {
    return bytes.size() == ipv4_size + 1;
}

bool ip_address::is_ipv6() const {
    return bytes.size() == ipv6_size + 1;
}

unsigned ip_address::get_default_mask_len() const {
    return is_ipv6() ? 128 : 32;
}

unsigned ip_address::get_mask_len() const {
    return bytes.empty() ? 0 : bytes.back();
}

void ip_address::set_mask(unsigned len) {
    if ((is_ipv4() && len > 32) || (is_ipv6() && len > 128)) {
        throw std::runtime_error(std::string("invalid ") + (is_ipv4() ? "ipv4" : "ipv6") +
                                 " mask length [" + std::to_string(len) + "]");
    }
    if (!is_ipv4() && !is_ipv6()) {
        throw std::logic_error("can't set mask");
    }
    bytes.back() = static_cast<unsigned char>(len);
}

void ip_address::set_default_mask() {
    set_mask(get_default_mask_len());
}

void ip_address::set_mask(ip_address const& mask) {
    auto const count = mask.size(false, false);
    unsigned prefix = 0;
    for (std::size_t i = 0; i < count; ++i) {
        unsigned const byte = mask.bytes[i];
        if (byte == 0xFF) {
            prefix += 8;
            continue;
        }
        unsigned ones = 0;
        while (byte & (0x80u >> ones)) {
            ++ones;
        }
        prefix += ones;
        if (byte & (0xFFu >> ones)) {
            throw std::runtime_error("invalid mask!");
        }
        if (std::any_of(mask.bytes.begin() + i + 1, mask.bytes.begin() + count,
                        [](unsigned char later) { return later != 0; })) {
            throw std::runtime_error("invalid mask");
        }
        break;
    }
    set_mask(prefix);
}

ip_address ip_address::get_mask() const {
    ip_address mask(std::string(is_ipv4() ? "0.0.0.0" : "::"));
    // A failed vector assignment can leave a length above the width behind;
    // clamping keeps the writes inside the address bytes.
    auto const len = std::min<std::size_t>(get_mask_len(), 8 * mask.size(false, false));
    std::fill_n(mask.bytes.begin(), len / 8, 0xFF);
    if (len % 8 != 0) {
        mask.bytes[len / 8] = static_cast<unsigned char>(0xFF << (8 - len % 8));
    }
    return mask;
}

ip_address ip_address::with_host_bits(bool set) const {
    ip_address result(*this);
    auto const len = result.get_mask_len();
    auto const count = result.size(false, false);
    if (count <= len / 8) {
        return result;
    }
    auto const host_bits = static_cast<unsigned char>(0xFFu >> (len % 8));
    auto& boundary = result.bytes[len / 8];
    boundary = set ? (boundary | host_bits) : (boundary & ~host_bits);
    std::fill(result.bytes.begin() + len / 8 + 1, result.bytes.begin() + count, set ? 0xFF : 0);
    return result;
}

ip_address ip_address::get_net_addr() const {
    return with_host_bits(false);
}

ip_address ip_address::get_bcast_addr() const {
    return with_host_bits(true);
}

bool ip_address::contains(ip_address const& other) const {
    if (size(false, false) != other.size(false, false)) {
        return false;
    }
    ip_address candidate(other);
    candidate.set_mask(get_mask_len());
    return get_net_addr() <= candidate && candidate <= get_bcast_addr();
}

bool ip_address::is_same_net(ip_address const& other) const {
    return is_equal(other) || contains(other) || other.contains(*this);
}

void ip_address::validate() const {
    if (!is_ipv4() && !is_ipv6()) {
        throw std::runtime_error("invalid ip address type");
    }
    auto const len = get_mask_len();
    if (len < 8 || len > get_default_mask_len()) {
        throw std::runtime_error("invalid ip address mask");
    }
}

unsigned char* ip_address::data() {
    return bytes.empty() ? nullptr : bytes.data();
}

unsigned char const* ip_address::data() const {
    return bytes.empty() ? nullptr : bytes.data();
}

unsigned ip_address::size(bool with_mask, bool default_only) const {
    if (bytes.empty()) {
        return 0;
    }
    auto const whole = static_cast<unsigned>(bytes.size());
    if (!with_mask || (default_only && get_mask_len() != get_default_mask_len())) {
        return whole - 1;
    }
    return whole;
}

std::string ip_address::to_string(bool with_mask, bool default_hidden) const {
    std::string text;
    if (is_ipv4()) {
        char buffer[17];
        if (inet_ntop(AF_INET, bytes.data(), buffer, sizeof buffer) == nullptr) {
            throw std::runtime_error("failed to convert ipv4 address to string");
        }
        text = buffer;
    } else if (is_ipv6()) {
        char buffer[47];
        if (inet_ntop(AF_INET6, bytes.data(), buffer, sizeof buffer) == nullptr) {
            throw std::runtime_error("failed to convert ipv6 address to string");
        }
        text = buffer;
    } else {
        throw std::logic_error("unknonwn ip address type");
    }
    if (!with_mask || (default_hidden && get_mask_len() == get_default_mask_len())) {
        return text;
    }
    return text + "/" + std::to_string(get_mask_len());
}

ip_address::operator std::string() const {
    return to_string(false, true);
}

int ip_address::cmp(ip_address const& a, ip_address const& b) {
    if (a.is_ipv4() && b.is_ipv6()) {
        return -1;
    }
    if (a.is_ipv6() && b.is_ipv4()) {
        return 1;
    }
    if (a.size(false, false) != b.size(false, false)) {
        throw std::logic_error("invalid ip addr size");
    }
    if (a.bytes.empty()) {
        return 0;
    }
    return std::memcmp(a.bytes.data(), b.bytes.data(), a.bytes.size());
}

bool ip_address::is_equal(ip_address const& other) const {
    return cmp(*this, other) == 0;
}

bool ip_address::is_less(ip_address const& other) const {
    return cmp(*this, other) < 0;
}

}  // namespace zelvo::tavrin::utils
