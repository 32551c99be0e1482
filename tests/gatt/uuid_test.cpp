#include "tavrin/gatt/uuid.hpp"

#include <gmock/gmock.h>

#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace zelvo::tavrin::gatt {
namespace {

using bytes = std::vector<unsigned char>;

std::string const base_tail = "-0000-1000-8000-00805f9b34fb";
std::string const custom_full = "6e400001-b5a3-f393-e0a9-e50e24dcca9e";

auto throws(std::string const& text) {
    return ::testing::ThrowsMessage<std::runtime_error>(::testing::StrEq(text));
}
uuid make(std::string const& text) {
    return uuid(text);
}

// Short forms are expanded through the base on the way in, and the narrowest
// one that the base allows is cut out again on the way out.
TEST(uuid, texts_of_every_form_and_case_give_one_value) {
    // Text, reserved, short size, short text, full text.
    std::tuple<std::string, bool, std::size_t, std::string, std::string> const cases[] = {
        {"2A00", true, 2, "2a00", "00002a00" + base_tail},
        {"2a-00", true, 2, "2a00", "00002a00" + base_tail},
        {"00002A00-0000-1000-8000-00805F9B34FB", true, 2, "2a00", "00002a00" + base_tail},
        {"0000", true, 2, "0000", "00000000" + base_tail},
        {"00001234", true, 2, "1234", "00001234" + base_tail},
        {"00123456", true, 4, "00123456", "00123456" + base_tail},
        {"12345678", true, 4, "12345678", "12345678" + base_tail},
        {"6E400001B5A3F393E0A9E50E24DCCA9E", false, 16, custom_full, custom_full},
        // Only byte 4 differs from a reserved value.
        {"00002a00-0001-1000-8000-00805f9b34fb", false, 16, "00002a00-0001-1000-8000-00805f9b34fb",
         "00002a00-0001-1000-8000-00805f9b34fb"},
    };
    for (auto const& [text, reserved, size, short_text, full_text] : cases) {
        uuid const value = make(text);
        EXPECT_EQ(value.is_reserved(), reserved) << text;
        EXPECT_EQ(value.size(false), size) << text;
        EXPECT_EQ(value.size(true), 16u) << text;
        EXPECT_EQ(value.data(false), value.data(true) + (size == 2 ? 2 : 0)) << text;
        EXPECT_EQ(value.to_string(false), short_text) << text;
        EXPECT_EQ(value.to_string(true), full_text) << text;
    }
    EXPECT_EQ(uuid(), make("0000"));
}

TEST(uuid, vectors_are_expanded_through_the_base_without_byte_swap) {
    EXPECT_EQ(uuid(bytes{0x2a, 0x01}), make("2a01"));
    EXPECT_EQ(uuid(bytes{0x12, 0x34, 0x56, 0x78}), make("12345678"));
    bytes short_form{0x18, 0x0d};
    EXPECT_EQ(&uuid::adjust(short_form), &short_form);
    uuid const expanded = make("180d");
    EXPECT_EQ(short_form, bytes(expanded.data(true), expanded.data(true) + 16));
    // A full value is taken as it stands.
    EXPECT_EQ(uuid(bytes(uuid::get_raw_base())), uuid());
}

TEST(uuid, order_is_bytewise_on_the_full_value) {
    // Bytes 0 and 1 outrank bytes 2 and 3: a 32-bit value sorts after every
    // 16-bit one.
    std::string const ascending[] = {"0000", "0001",     "2a00",      "2a01",
                                     "ffff", "00010000", custom_full, "ff000000"};
    for (std::size_t i = 0; i < std::size(ascending); ++i) {
        for (std::size_t j = 0; j < std::size(ascending); ++j) {
            EXPECT_EQ(make(ascending[i]) < make(ascending[j]), i < j) << i << " vs " << j;
            EXPECT_EQ(make(ascending[i]) == make(ascending[j]), i == j) << i << " vs " << j;
        }
    }
}

TEST(uuid, failures_report_exact_texts_and_keep_the_old_value) {
    uuid value = make("2a00");
    std::pair<std::string, std::string> const texts[] = {
        {"", "invalid bluetooth uuid size [0]"},
        {"2a0000", "invalid bluetooth uuid size [3]"},
        {"2a0", "from_hex_string: Invalid input size"},
        {"2g00", "from_hex_string: Got non-hexadecimal value"}};
    for (auto const& [text, message] : texts) {
        auto const assign = [&value, text = text] { value = text; };
        EXPECT_THAT(assign, throws(message));
        EXPECT_EQ(value.to_string(false), "2a00");
    }
    bytes const too_long(17, 0);
    EXPECT_THAT([&] { value.assign(too_long); }, throws("invalid bluetooth uuid size [17]"));
    EXPECT_EQ(value.to_string(false), "2a00");
    bytes refused{1, 2, 3, 4, 5};
    EXPECT_THAT([&] { value.assign(std::move(refused)); },
                throws("invalid bluetooth uuid size [5]"));
    EXPECT_EQ(value.to_string(false), "2a00");
    EXPECT_TRUE(refused.empty());

    bytes kept{1};
    EXPECT_THAT([&] { uuid::adjust(kept); }, throws("invalid bluetooth uuid size [1]"));
    EXPECT_EQ(kept, bytes{1});
}

TEST(uuid, moves_leave_the_source_valid) {
    uuid source = make("2a00");
    uuid const moved(std::move(source));
    EXPECT_EQ(moved.to_string(false), "2a00");
    EXPECT_EQ(source, uuid());

    uuid left = make("180d");
    uuid right = make(custom_full);
    left = std::move(right);
    EXPECT_EQ(left.to_string(true), custom_full);
    EXPECT_EQ(right.to_string(false), "180d");
    uuid copy(left);
    copy = std::string("2a01");
    EXPECT_EQ(left.to_string(true), custom_full);
}

}  // namespace
}  // namespace zelvo::tavrin::gatt
