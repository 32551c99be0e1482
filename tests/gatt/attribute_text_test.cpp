#include <gmock/gmock.h>

#include <stdexcept>
#include <string>

#include "tavrin/gatt/attribute_permission.hpp"
#include "tavrin/gatt/characteristic.hpp"
#include "tavrin/misc/strings.hpp"

namespace zelvo::tavrin::gatt {
namespace {

using misc::to_lower;
using misc::to_upper;
using property = characteristic::property;

auto throws(char const* text) {
    return ::testing::ThrowsMessage<std::logic_error>(::testing::StrEq(text));
}

TEST(attribute_text, permissions_round_trip_in_any_case) {
    std::string const words[] = {"read", "write"};
    for (int value = 0; value < 2; ++value) {
        auto const permission = static_cast<attribute_permission>(value);
        EXPECT_EQ(to_string(permission), words[value]);
        EXPECT_EQ(to_attribute_permission(words[value]), permission);
        EXPECT_EQ(to_attribute_permission(to_upper(words[value])), permission);
    }
    EXPECT_THAT([] { to_string(static_cast<attribute_permission>(2)); },
                throws("Unknown attribute permission"));
    for (char const* text : {"", "rea", "read "}) {
        EXPECT_THAT([&] { to_attribute_permission(text); },
                    throws("Unknown attribute permission str"))
            << text;
    }
}

// The parser lowers the text but not its own words, so words with capitals are
// refused in every spelling, including the one to_string gives.
TEST(attribute_text, properties_are_read_back_only_when_their_word_is_lower_case) {
    std::string const words[] = {"broadcast", "read",     "writeNoResponse", "write",
                                 "notify",    "indicate", "signedWrite",     "extendedProps"};
    for (int value = 0; value < 8; ++value) {
        auto const expected = static_cast<property>(value);
        auto const& word = words[value];
        EXPECT_EQ(characteristic::to_string(expected), word);
        for (auto const& spelling : {word, to_lower(word), to_upper(word)}) {
            if (word == to_lower(word)) {
                EXPECT_EQ(characteristic::to_property(spelling), expected) << spelling;
            } else {
                EXPECT_THAT([&] { characteristic::to_property(spelling); },
                            throws("unknown characteristic str"))
                    << spelling;
            }
        }
    }
    EXPECT_THAT([] { characteristic::to_string(static_cast<property>(8)); },
                throws("unknown characteristic"));
    EXPECT_THAT([] { characteristic::to_property("notify "); },
                throws("unknown characteristic str"));
}

}  // namespace
}  // namespace zelvo::tavrin::gatt
