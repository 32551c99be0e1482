#include "tavrin/gatt/uuid.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace zelvo::tavrin::gatt {
namespace {

using bytes = std::vector<unsigned char>;
using ::testing::StrEq;
using ::testing::ThrowsMessage;

std::string const device_name_full = "00002a00-0000-1000-8000-00805f9b34fb";
std::string const custom_full = "6e400001-b5a3-f393-e0a9-e50e24dcca9e";

bytes as_bytes(uuid const& value, bool full) {
    return bytes(value.data(full), value.data(full) + value.size(full));
}

TEST(uuid, short_and_full_texts_of_one_value_are_equal) {
    for (std::string const text :
         {"2A00", "2a00", "00002a00", "2a-00", "00002A00-0000-1000-8000-00805F9B34FB",
          "00002a0000001000800000805f9b34fb"}) {
        uuid const value(text);
        EXPECT_EQ(value, uuid(std::string("2a00"))) << text;
        EXPECT_TRUE(value.is_reserved()) << text;
        EXPECT_EQ(value.size(false), 2u) << text;
        EXPECT_EQ(value.size(true), 16u) << text;
        EXPECT_EQ(value.to_string(false), "2a00") << text;
        EXPECT_EQ(value.to_string(true), device_name_full) << text;
        EXPECT_EQ(as_bytes(value, false), (bytes{0x2a, 0x00})) << text;
    }
}

TEST(uuid, vectors_are_expanded_through_the_base_without_byte_swap) {
    EXPECT_EQ(uuid(bytes{0x2a, 0x00}).to_string(true), device_name_full);
    EXPECT_EQ(uuid(bytes{0x12, 0x34, 0x56, 0x78}).to_string(true),
              "12345678-0000-1000-8000-00805f9b34fb");

    bytes short_form{0x18, 0x0d};
    EXPECT_EQ(&uuid::adjust(short_form), &short_form);
    EXPECT_EQ(short_form,
              as_bytes(uuid(std::string("0000180d-0000-1000-8000-00805f9b34fb")), true));

    // A full value is taken as it stands.
    bytes base = uuid::get_raw_base();
    EXPECT_EQ(uuid(std::move(base)), uuid());
    EXPECT_EQ(uuid().to_string(true), "00000000-0000-1000-8000-00805f9b34fb");
}

TEST(uuid, thirty_two_bit_form_round_trips_unless_its_top_half_is_zero) {
    uuid const wide(std::string("12345678"));
    EXPECT_EQ(wide.size(false), 4u);
    EXPECT_EQ(wide.to_string(false), "12345678");
    EXPECT_EQ(wide.data(false), wide.data(true));

    uuid const half_zero(std::string("00123456"));
    EXPECT_EQ(half_zero.size(false), 4u);
    EXPECT_EQ(half_zero.to_string(false), "00123456");

    uuid const narrow(std::string("00001234"));
    EXPECT_EQ(narrow.size(false), 2u);
    EXPECT_EQ(narrow.to_string(false), "1234");
    EXPECT_EQ(narrow.data(false), narrow.data(true) + 2);
}

TEST(uuid, value_outside_the_base_range_has_no_short_form) {
    uuid const custom(std::string("6E400001B5A3F393E0A9E50E24DCCA9E"));
    EXPECT_FALSE(custom.is_reserved());
    EXPECT_EQ(custom.size(false), 16u);
    EXPECT_EQ(custom.data(false), custom.data(true));
    EXPECT_EQ(custom.to_string(false), custom_full);
    EXPECT_EQ(custom.to_string(true), custom_full);

    // Only byte 4 differs from a reserved value.
    uuid const near_base(std::string("00002a00-0001-1000-8000-00805f9b34fb"));
    EXPECT_FALSE(near_base.is_reserved());
    EXPECT_EQ(near_base.size(false), 16u);
}

TEST(uuid, order_is_bytewise_on_the_full_value) {
    uuid const base;
    EXPECT_TRUE(base.is_reserved());
    EXPECT_EQ(base, uuid(std::string("0000")));
    EXPECT_EQ(base.to_string(false), "0000");
    for (std::string const& text :
         {std::string("0001"), std::string("2a00"), std::string("00010000"), custom_full}) {
        EXPECT_LT(base, uuid(text)) << text;
        EXPECT_FALSE(uuid(text) < base) << text;
    }
    // Bytes 0 and 1 outrank bytes 2 and 3: the 32-bit value sorts after every
    // 16-bit one.
    EXPECT_LT(uuid(std::string("ffff")), uuid(std::string("00010000")));
    EXPECT_LT(uuid(std::string("2a00")), uuid(std::string("2a01")));
    EXPECT_GT(uuid(std::string("ff000000")), uuid(custom_full));
    EXPECT_LE(uuid(std::string("2a00")), uuid(std::string("2A00")));
    EXPECT_NE(uuid(std::string("2a00")), uuid(std::string("2a01")));
}

TEST(uuid, failures_report_exact_texts_and_keep_the_old_value) {
    uuid value(std::string("2a00"));
    auto const unchanged = [&] { EXPECT_EQ(value.to_string(false), "2a00"); };

    EXPECT_THAT([&] { value.assign(std::string()); },
                ThrowsMessage<std::runtime_error>(StrEq("invalid bluetooth uuid size [0]")));
    unchanged();
    EXPECT_THAT([&] { value = std::string("2a0000"); },
                ThrowsMessage<std::runtime_error>(StrEq("invalid bluetooth uuid size [3]")));
    unchanged();
    EXPECT_THAT([&] { value.assign(std::string("2a0")); },
                ThrowsMessage<std::runtime_error>(StrEq("from_hex_string: Invalid input size")));
    unchanged();
    EXPECT_THAT(
        [&] { value.assign(std::string("2g00")); },
        ThrowsMessage<std::runtime_error>(StrEq("from_hex_string: Got non-hexadecimal value")));
    unchanged();
    EXPECT_THAT([&] { value.assign(bytes(17, 0)); },
                ThrowsMessage<std::runtime_error>(StrEq("invalid bluetooth uuid size [17]")));
    unchanged();

    bytes refused{1, 2, 3, 4, 5};
    EXPECT_THAT([&] { value.assign(std::move(refused)); },
                ThrowsMessage<std::runtime_error>(StrEq("invalid bluetooth uuid size [5]")));
    unchanged();
    EXPECT_TRUE(refused.empty());

    bytes kept{1};
    EXPECT_THAT([&] { uuid::adjust(kept); },
                ThrowsMessage<std::runtime_error>(StrEq("invalid bluetooth uuid size [1]")));
    EXPECT_EQ(kept, bytes{1});
}

TEST(uuid, moves_leave_the_source_valid) {
    uuid source(std::string("2a00"));
    uuid const moved(std::move(source));
    EXPECT_EQ(moved.to_string(false), "2a00");
    EXPECT_EQ(source, uuid());

    uuid left(std::string("180d"));
    uuid right(custom_full);
    left = std::move(right);
    EXPECT_EQ(left.to_string(true), custom_full);
    EXPECT_EQ(right.to_string(false), "180d");

    uuid copy(left);
    copy = std::string("2a01");
    EXPECT_EQ(left.to_string(true), custom_full);
}

}  // namespace
}  // namespace zelvo::tavrin::gatt
