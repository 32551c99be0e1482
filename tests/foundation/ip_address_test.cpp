#include "tavrin/utils/ip_address.hpp"

#include <gmock/gmock.h>

#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace zelvo::tavrin::utils {
namespace {

using bytes = std::vector<unsigned char>;

template <typename E = std::runtime_error>
auto throws(std::string const& text) {
    return testing::ThrowsMessage<E>(testing::StrEq(text));
}
ip_address ip(char const* text) {
    return ip_address(std::string(text));
}
std::string full_text(ip_address const& address) {
    return address.to_string(true, false);
}
// What `f` gives, or the message of the runtime_error it throws.
template <typename F>
std::string outcome(F const& f) {
    try {
        return f();
    } catch (std::runtime_error const& error) {
        return error.what();
    }
}

TEST(IpAddress, ParsesTextAndRejectsBadHostOrMask) {
    std::pair<char const*, char const*> const cases[] = {
        {"10.0.0.1", "10.0.0.1/32"},
        {"10.0.0.1/24x", "10.0.0.1/24"},
        {"FE80::0:1/64", "fe80::1/64"},
        {"10.0.0.256", "invalid address \"10.0.0.256\""},
        {"10.0.0.1/24/8", "invalid address \"10.0.0.1/24\""},
        {"10.0.0.1/33", "invalid ipv4 mask length [33]"},
        {"::1/129", "invalid ipv6 mask length [129]"},
    };
    for (auto const& [text, expected] : cases) {
        EXPECT_EQ(outcome([text = text] { return full_text(ip(text)); }), expected);
    }
    EXPECT_THAT([] { ip("10.0.0.1/x24"); }, throws<std::invalid_argument>("stoi"));
    EXPECT_THAT([] { ip("10.0.0.1/99999999999"); }, throws<std::out_of_range>("stoi"));

    ip_address address = ip("10.0.0.1/24");
    EXPECT_THROW(address = std::string("no address"), std::runtime_error);
    EXPECT_EQ(full_text(address), "::/0");
}

TEST(IpAddress, RawBytesAndCopiesAreValidated) {
    std::pair<bytes, char const*> const cases[] = {
        {bytes{192, 168, 1, 2}, "192.168.1.2/32"},
        {bytes{192, 168, 1, 2, 8}, "192.168.1.2/8"},
        {bytes(16, 0), "::/128"},
        {bytes{10, 0, 0}, "invalid ip address size"},
        {bytes(6, 0), "invalid ip address size"},
        {bytes{10, 0, 0, 1, 7}, "invalid ip address mask"},
        {bytes{10, 0, 0, 1, 33}, "invalid ip address mask"}};
    for (auto const& [raw, expected] : cases) {
        EXPECT_EQ(outcome([raw = raw] { return full_text(ip_address(raw)); }), expected);
    }
    // Text accepts a mask shorter than 8; a copy refuses it, an assignment doesn't.
    ip_address const parsed = ip("10.0.0.1/4");
    EXPECT_THAT([&] { ip_address{parsed}; }, throws("invalid ip address mask"));
    ip_address target = ip("10.0.0.2");
    target = parsed;
    EXPECT_EQ(full_text(target), "10.0.0.1/4");
}

TEST(IpAddress, SizeAndSuffixDependOnDefaultMask) {
    ip_address address = ip("10.0.0.1");
    EXPECT_EQ(address.to_string(true, true), "10.0.0.1");
    EXPECT_EQ(address.size(true, true), 5u);
    address.set_mask(24);
    EXPECT_EQ(address.to_string(true, true), "10.0.0.1/24");
    EXPECT_EQ(static_cast<std::string>(address), "10.0.0.1");
    EXPECT_EQ(address.size(true, false), 5u);
    EXPECT_EQ(address.size(true, true), 4u);

    ip_address empty;
    EXPECT_EQ(empty.data(), nullptr);
    EXPECT_EQ(empty.size(true, false), 0u);
    EXPECT_THAT([&] { empty.to_string(false, false); },
                throws<std::logic_error>("unknonwn ip address type"));
    EXPECT_THAT([&] { empty.validate(); }, throws("invalid ip address type"));
    EXPECT_THAT([&] { empty.set_mask(8); }, throws<std::logic_error>("can't set mask"));
}

TEST(IpAddress, MaskNetAndBroadcast) {
    // Address, mask, network, broadcast.
    std::tuple<char const*, char const*, char const*, char const*> const cases[] = {
        {"10.1.2.3/12", "255.240.0.0/32", "10.0.0.0/12", "10.15.255.255/12"},
        {"10.1.2.3", "255.255.255.255/32", "10.1.2.3/32", "10.1.2.3/32"},
        {"2001:db8::1/33", "ffff:ffff:8000::/128", "2001:db8::/33",
         "2001:db8:7fff:ffff:ffff:ffff:ffff:ffff/33"}};
    for (auto const& [text, mask, net, bcast] : cases) {
        EXPECT_EQ(full_text(ip(text).get_mask()), mask);
        EXPECT_EQ(full_text(ip(text).get_net_addr()), net);
        EXPECT_EQ(full_text(ip(text).get_bcast_addr()), bcast);
    }
    // A mask written as an address.
    std::pair<char const*, char const*> const masks[] = {
        {"255.255.252.0", "10.0.0.1/22"},
        {"0.0.0.0", "10.0.0.1/0"},
        {"255.208.0.0", "invalid mask!"},
        {"255.255.0.255", "invalid mask"},
        {"ffff:ffff:ffff:ffff::", "invalid ipv4 mask length [64]"}};
    for (auto const& [mask, expected] : masks) {
        auto const with_mask = [mask = mask] {
            ip_address address = ip("10.0.0.1");
            address.set_mask(ip(mask));
            return full_text(address);
        };
        EXPECT_EQ(outcome(with_mask), expected) << mask;
    }
}

TEST(IpAddress, OrderAndSameNet) {
    EXPECT_TRUE(ip("255.255.255.255") < ip("::") && !(ip("::") < ip("255.255.255.255")));
    EXPECT_TRUE(ip("10.0.0.1/24") < ip("10.0.0.1/25"));
    EXPECT_TRUE(ip("10.0.0.1/30") < ip("10.0.1.0/8"));
    EXPECT_EQ(ip_address::cmp(ip_address(), ip_address()), 0);
    EXPECT_THAT([] { ip_address::cmp(ip_address(), ip("10.0.0.1")); },
                throws<std::logic_error>("invalid ip addr size"));

    std::tuple<char const*, char const*, bool> const cases[] = {
        {"10.1.2.3/16", "10.1.200.1/24", true},
        {"10.1.200.1/24", "10.1.2.3/16", true},
        {"10.1.2.3/24", "10.1.3.1/24", false},
        {"10.1.2.3/24", "10.1.2.255/24", true},
        {"10.0.0.1", "::1", false},
        {"fe80::1/64", "fe80::abcd/64", true}};
    for (auto const& [a, b, same] : cases) {
        EXPECT_EQ(ip(a).is_same_net(ip(b)), same) << a << " " << b;
    }
}

}  // namespace
}  // namespace zelvo::tavrin::utils
