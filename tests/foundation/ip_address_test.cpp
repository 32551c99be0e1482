#include "tavrin/utils/ip_address.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace zelvo::tavrin::utils {
namespace {

using bytes = std::vector<unsigned char>;
using testing::StrEq;
using testing::ThrowsMessage;

ip_address ip(char const* text) {
    return ip_address(std::string(text));
}
std::string full_text(ip_address const& address) {
    return address.to_string(true, false);
}

TEST(IpAddressParse, ReadsHostAndMaskLength) {
    std::pair<char const*, char const*> const cases[] = {
        {"10.0.0.1", "10.0.0.1/32"},     {"10.0.0.1/24", "10.0.0.1/24"},
        {"10.0.0.1/24x", "10.0.0.1/24"}, {"10.0.0.1/0", "10.0.0.1/0"},
        {"FE80::0:1/64", "fe80::1/64"},  {"::ffff:10.0.0.1", "::ffff:10.0.0.1/128"},
    };
    for (auto const& [text, expected] : cases) {
        EXPECT_EQ(full_text(ip(text)), expected);
    }
    EXPECT_TRUE(ip("10.0.0.1").is_ipv4() && !ip("10.0.0.1").is_ipv6());
    EXPECT_TRUE(ip("::1").is_ipv6() && !ip("::1").is_ipv4());
}

TEST(IpAddressParse, RejectsBadHostOrMask) {
    std::pair<char const*, char const*> const cases[] = {
        {"10.0.0.256", "invalid address \"10.0.0.256\""},
        {"10.0.0.1/24/8", "invalid address \"10.0.0.1/24\""},
        {"10.0.0.1/33", "invalid ipv4 mask length [33]"},
        {"::1/129", "invalid ipv6 mask length [129]"},
    };
    for (auto const& [text, message] : cases) {
        EXPECT_THAT([text = text] { ip(text); }, ThrowsMessage<std::runtime_error>(StrEq(message)));
    }
    EXPECT_THAT([] { ip("10.0.0.1/x24"); }, ThrowsMessage<std::invalid_argument>(StrEq("stoi")));
    EXPECT_THAT([] { ip("10.0.0.1/99999999999"); },
                ThrowsMessage<std::out_of_range>(StrEq("stoi")));

    ip_address address = ip("10.0.0.1/24");
    EXPECT_THROW(address = std::string("no address"), std::runtime_error);
    EXPECT_EQ(full_text(address), "::/0");
}

TEST(IpAddressBytes, ValidatesLengthAndMask) {
    EXPECT_EQ(full_text(ip_address(bytes{192, 168, 1, 2})), "192.168.1.2/32");
    EXPECT_EQ(full_text(ip_address(bytes{192, 168, 1, 2, 8})), "192.168.1.2/8");
    EXPECT_EQ(full_text(ip_address(bytes(16, 0))), "::/128");
    std::pair<bytes, char const*> const cases[] = {
        {bytes{10, 0, 0}, "invalid ip address size"},
        {bytes(6, 0), "invalid ip address size"},
        {bytes{10, 0, 0, 1, 7}, "invalid ip address mask"},
        {bytes{10, 0, 0, 1, 33}, "invalid ip address mask"},
    };
    for (auto const& [raw, message] : cases) {
        EXPECT_THAT([raw = raw] { ip_address{raw}; },
                    ThrowsMessage<std::runtime_error>(StrEq(message)));
    }
}

TEST(IpAddressBytes, CopyingValidatesAParsedShortMask) {
    ip_address const parsed = ip("10.0.0.1/4");
    auto const invalid_mask = ThrowsMessage<std::runtime_error>(StrEq("invalid ip address mask"));
    EXPECT_THAT([&] { ip_address{parsed}; }, invalid_mask);
    EXPECT_THAT([&] { parsed.get_net_addr(); }, invalid_mask);
    ip_address target = ip("10.0.0.2");
    EXPECT_THAT([&] { target = parsed; }, invalid_mask);
}

TEST(IpAddressText, SizeAndSuffixDependOnDefaultMask) {
    ip_address address = ip("10.0.0.1");
    EXPECT_EQ(address.to_string(true, true), "10.0.0.1");
    EXPECT_EQ(address.size(true, true), 5u);
    address.set_mask(24);
    EXPECT_EQ(address.to_string(true, true), "10.0.0.1/24");
    EXPECT_EQ(static_cast<std::string>(address), "10.0.0.1");
    EXPECT_EQ(address.size(false, false), 4u);
    EXPECT_EQ(address.size(true, false), 5u);
    EXPECT_EQ(address.size(true, true), 4u);
    EXPECT_EQ(address.data()[4], 24);

    ip_address empty;
    EXPECT_EQ(empty.data(), nullptr);
    EXPECT_EQ(empty.size(true, false), 0u);
    EXPECT_THAT([&] { empty.to_string(false, false); },
                ThrowsMessage<std::logic_error>(StrEq("unknonwn ip address type")));
    EXPECT_THAT([&] { empty.validate(); },
                ThrowsMessage<std::runtime_error>(StrEq("invalid ip address type")));
    EXPECT_THAT([&] { empty.set_mask(8); },
                ThrowsMessage<std::logic_error>(StrEq("can't set mask")));
}

TEST(IpAddressNetwork, MaskNetAndBroadcast) {
    // Address, mask, network, broadcast.
    std::tuple<char const*, char const*, char const*, char const*> const cases[] = {
        {"10.0.0.1/24", "255.255.255.0/32", "10.0.0.0/24", "10.0.0.255/24"},
        {"10.1.2.3/12", "255.240.0.0/32", "10.0.0.0/12", "10.15.255.255/12"},
        {"10.1.2.3", "255.255.255.255/32", "10.1.2.3/32", "10.1.2.3/32"},
        {"2001:db8::1/33", "ffff:ffff:8000::/128", "2001:db8::/33",
         "2001:db8:7fff:ffff:ffff:ffff:ffff:ffff/33"},
    };
    for (auto const& [text, mask, net, bcast] : cases) {
        EXPECT_EQ(full_text(ip(text).get_mask()), mask);
        EXPECT_EQ(full_text(ip(text).get_net_addr()), net);
        EXPECT_EQ(full_text(ip(text).get_bcast_addr()), bcast);
    }
}

TEST(IpAddressNetwork, MaskFromAddressForm) {
    std::pair<char const*, unsigned> const accepted[] = {
        {"255.255.252.0", 22}, {"255.255.255.255", 32}, {"128.0.0.0", 1}, {"0.0.0.0", 0}};
    for (auto const& [mask, len] : accepted) {
        ip_address address = ip("10.0.0.1");
        address.set_mask(ip(mask));
        EXPECT_EQ(address.get_mask_len(), len) << mask;
    }
    std::pair<char const*, char const*> const refused[] = {
        {"255.208.0.0", "invalid mask!"},
        {"255.255.0.255", "invalid mask"},
        {"ffff:ffff:ffff:ffff::", "invalid ipv4 mask length [64]"},
    };
    for (auto const& [mask, message] : refused) {
        EXPECT_THAT([mask = mask] { ip("10.0.0.1").set_mask(ip(mask)); },
                    ThrowsMessage<std::runtime_error>(StrEq(message)));
    }
}

TEST(IpAddressNetwork, OrderIsFamilyThenBytesThenMask) {
    EXPECT_EQ(ip_address::cmp(ip("255.255.255.255"), ip("::")), -1);
    EXPECT_EQ(ip_address::cmp(ip("::"), ip("255.255.255.255")), 1);
    EXPECT_TRUE(ip("10.0.0.1/24") < ip("10.0.0.1/25"));
    EXPECT_TRUE(ip("10.0.0.1/30") < ip("10.0.1.0/8"));
    EXPECT_EQ(ip("10.0.0.1/24"), ip("10.0.0.1/24"));
    EXPECT_EQ(ip_address::cmp(ip_address(), ip_address()), 0);
    EXPECT_THAT([] { ip_address::cmp(ip_address(), ip("10.0.0.1")); },
                ThrowsMessage<std::logic_error>(StrEq("invalid ip addr size")));
}

TEST(IpAddressNetwork, SameNetWhenEitherContainsTheOther) {
    std::tuple<char const*, char const*, bool> const cases[] = {
        {"10.1.2.3/16", "10.1.200.1/24", true},
        {"10.1.200.1/24", "10.1.2.3/16", true},
        {"10.1.2.3/24", "10.1.3.1/24", false},
        {"10.1.2.3/24", "10.1.2.255/24", true},
        {"10.0.0.1", "::1", false},
        {"fe80::1/64", "fe80::abcd/64", true},
    };
    for (auto const& [a, b, same] : cases) {
        EXPECT_EQ(ip(a).is_same_net(ip(b)), same) << a << " " << b;
    }
}

}  // namespace
}  // namespace zelvo::tavrin::utils
