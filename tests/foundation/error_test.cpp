#include "tavrin/error.hpp"

#include <gtest/gtest.h>

#include <string>
#include <system_error>
#include <tuple>

namespace zelvo::tavrin {
namespace {

TEST(ErrorCategory, CodesCarryTheirCategoryValueAndMessage) {
    std::tuple<std::error_code, char const*, int, char const*> const cases[] = {
        {error::bt_ctrl::no_interface, "bt_ctrl", 3, "can't find interface"},
        {error::bt_ctrl::internal_failure, "bt_ctrl", 18, "internal failure"},
        {error::advertiser::bad_tx_power, "advertiser", 4, "bad tx pow"},
        {error::connection::invalid_parameter, "connection", 5, "invalid parameter"},
        {error::gatt::circular_reference, "gatt", 11, "circular reference"},
        {error::gatt_proto::success, "gattproto", 0, "a gatt operation completed successfully"},
        {error::gatt_proto::out_of_range, "gattproto", 23, "attribute value is out of range"},
    };
    for (auto const& [code, name, value, message] : cases) {
        EXPECT_STREQ(code.category().name(), name);
        EXPECT_EQ(code.value(), value) << message;
        EXPECT_EQ(code.message(), message);
    }
}

TEST(ErrorCategory, ValuesPastEitherEndOfTheTableAreUnknown) {
    // The last code of each category.
    std::error_code const last_codes[] = {
        error::bt_ctrl::internal_failure, error::advertiser::internal_failure,
        error::connection::internal_failure, error::gatt::internal_failure,
        error::gatt_proto::unknown};
    for (auto const& last : last_codes) {
        bool const proto = last.category() == error::gatt_proto_category::get_inst();
        auto const unknown =
            proto ? "unknown gatt proto error condition" : "unknonw error condition";
        for (int value : {-1, last.value() + 1, 1 << 20}) {
            EXPECT_EQ(last.category().message(value), unknown) << last.category().name();
        }
    }
    EXPECT_EQ(error::bt_ctrl_category::get_inst().message(0), "unknonw error condition");
}

TEST(ErrorCategory, CodesCompareByCategoryInstanceAndValueAndSuccessIsEmpty) {
    std::error_code const advertiser_failure = error::advertiser::internal_failure;
    EXPECT_EQ(advertiser_failure.value(),
              std::error_code(error::connection::internal_failure).value());
    EXPECT_NE(advertiser_failure, error::connection::internal_failure);
    EXPECT_EQ(advertiser_failure, error::advertiser::internal_failure);
    EXPECT_NE(std::error_code(error::bt_ctrl::operation_aborted), std::errc::operation_canceled);

    std::error_code const success = error::make_error_code(error::gatt_proto::success);
    EXPECT_FALSE(success);
    EXPECT_NE(success, std::error_code());
    EXPECT_TRUE(error::make_error_code(error::bt_ctrl::inappropriate_state));
}

}  // namespace
}  // namespace zelvo::tavrin
