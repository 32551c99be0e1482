#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "tavrin/gatt/attribute_permission.hpp"
#include "tavrin/gatt/characteristic.hpp"

namespace zelvo::tavrin::gatt {
namespace {

using ::testing::StrEq;
using ::testing::ThrowsMessage;
using property = characteristic::property;

TEST(attribute_permission_text, words_in_any_case) {
    EXPECT_EQ(to_string(attribute_permission::read), "read");
    EXPECT_EQ(to_string(attribute_permission::write), "write");
    EXPECT_EQ(to_attribute_permission("read"), attribute_permission::read);
    EXPECT_EQ(to_attribute_permission("Write"), attribute_permission::write);
    EXPECT_EQ(static_cast<int>(to_attribute_permission("WRITE")), 1);

    EXPECT_THAT([] { to_string(static_cast<attribute_permission>(2)); },
                ThrowsMessage<std::logic_error>(StrEq("Unknown attribute permission")));
    for (char const* text : {"", "rea", "read ", "execute"}) {
        EXPECT_THAT([&] { to_attribute_permission(text); },
                    ThrowsMessage<std::logic_error>(StrEq("Unknown attribute permission str")))
            << text;
    }
}

TEST(characteristic_property_text, every_value_has_the_controller_word) {
    char const* const words[] = {"broadcast", "read",     "writeNoResponse", "write",
                                 "notify",    "indicate", "signedWrite",     "extendedProps"};
    for (int value = 0; value < 8; ++value) {
        EXPECT_EQ(characteristic::to_string(static_cast<property>(value)), words[value]);
    }
    EXPECT_THAT([] { characteristic::to_string(static_cast<property>(8)); },
                ThrowsMessage<std::logic_error>(StrEq("unknown characteristic")));
}

TEST(characteristic_property_text, only_all_lower_case_words_are_read_back) {
    EXPECT_EQ(characteristic::to_property("notify"), property::notify);
    EXPECT_EQ(static_cast<int>(characteristic::to_property("NOTIFY")), 4);
    EXPECT_EQ(characteristic::to_property("Broadcast"), property::broadcast);
    EXPECT_EQ(characteristic::to_property("read"), property::read);
    EXPECT_EQ(characteristic::to_property("wRiTe"), property::write);
    EXPECT_EQ(characteristic::to_property("Indicate"), property::indicate);

    // The words with capitals are refused in every spelling, including the
    // one to_string gives.
    for (char const* text : {"writeNoResponse", "writenoresponse", "signedWrite", "signedwrite",
                             "extendedProps", "EXTENDEDPROPS", "", "notify "}) {
        EXPECT_THAT([&] { characteristic::to_property(text); },
                    ThrowsMessage<std::logic_error>(StrEq("unknown characteristic str")))
            << text;
    }
}

}  // namespace
}  // namespace zelvo::tavrin::gatt
