#include "tavrin/utils/mac_address.hpp"

#include <gmock/gmock.h>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace zelvo::tavrin::utils {
namespace {

using bytes = std::vector<unsigned char>;
using testing::StrEq;
using testing::ThrowsMessage;

bytes bytes_of(mac_address const& address) {
    return bytes(address.data(), address.data() + address.size());
}

TEST(MacAddress, ParsesEachTextForm) {
    for (std::string text :
         {"AABBCCDDEEFF", "aa-bb-cc-dd-ee-ff", "aa:bb:cc:dd:ee:ff", "aAxbBxcCxdDxeExfF"}) {
        EXPECT_EQ(bytes_of(mac_address(text)), (bytes{0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF})) << text;
    }
    // Pairs are read by stream extraction, which skips a blank and takes a plus.
    EXPECT_EQ(bytes_of(mac_address(std::string(" a:+b:cc:dd:ee:ff"))),
              (bytes{0x0A, 0x0B, 0xCC, 0xDD, 0xEE, 0xFF}));
}

TEST(MacAddress, RejectsMalformedTextWithItsOwnMessage) {
    std::pair<std::string, std::string> const cases[] = {
        {"aa:bb:cc:dd:ee", "invalid length of mac address: "},
        {"aa:bb-cc:dd:ee:ff", "invalid separator in mac address: "},
        {"aa:bb:cc:dd:ee-ff", "invalid separator in mac address: "},
        {"aa:bb:cc:dd:ee:fg", "invalid mac address: "},
        {"-1bbccddeeff", "invalid mac address: "},
        {"a bbccddeeff", "invalid mac address: "},
    };
    for (auto const& [text, prefix] : cases) {
        EXPECT_THAT([text = text] { mac_address{text}; },
                    ThrowsMessage<std::runtime_error>(StrEq(prefix + text)));
    }
}

TEST(MacAddress, RawBytesAndAFailedParseKeepsThePairsAlreadyRead) {
    EXPECT_THAT([] { mac_address{bytes(5)}; },
                ThrowsMessage<std::runtime_error>(StrEq("invalid length [5] of mac address")));
    unsigned char const raw[] = {0x10, 0x20, 0x30, 0x40, 0x50, 0x60, 0x70};
    mac_address address;
    EXPECT_EQ(bytes_of(address), bytes(6, 0));
    address = raw;
    EXPECT_EQ(bytes_of(address), (bytes{0x10, 0x20, 0x30, 0x40, 0x50, 0x60}));
    EXPECT_THROW(address = std::string("aa:bb:cc:xx:ee:ff"), std::runtime_error);
    EXPECT_EQ(bytes_of(address), (bytes{0xAA, 0xBB, 0xCC, 0x40, 0x50, 0x60}));
}

TEST(MacAddress, FormatsAndOrdersBytesUnsignedMostSignificantFirst) {
    mac_address const address(bytes{0x0A, 0xBC, 0x00, 0xFF, 0x12, 0x9d});
    EXPECT_EQ(address.to_string('-', false), "0a-bc-00-ff-12-9d");
    EXPECT_EQ(address.to_string('\n', true), "0ABC00FF129D");
    EXPECT_EQ(static_cast<std::string>(address), "0A:BC:00:FF:12:9D");

    mac_address const low(std::string("00:ff:ff:ff:ff:ff"));
    mac_address const high(std::string("80:00:00:00:00:00"));
    EXPECT_TRUE(low < high && low <= high && high > low && low != high);
    EXPECT_FALSE(high < low || low == high || low < low);
}

}  // namespace
}  // namespace zelvo::tavrin::utils
