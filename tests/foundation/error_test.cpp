#include "tavrin/error.hpp"

#include <gtest/gtest.h>

#include <string>
#include <system_error>
#include <tuple>

namespace zelvo::tavrin {
namespace {

TEST(ErrorCategory, EnumeratorsCarryTheirValueAndMessage) {
    std::tuple<std::error_code, int, std::string> const cases[] = {
        {error::bt_ctrl::no_interface, 3, "can't find interface"},
        {error::bt_ctrl::unsupported_scan_type, 8, "unsupported scan type (active/passive)"},
        {error::bt_ctrl::internal_failure, 18, "internal failure"},
        {error::advertiser::bad_tx_power, 4, "bad tx pow"},
        {error::connection::invalid_parameter, 5, "invalid parameter"},
        {error::gatt::internal_failure, 15, "internal failure"},
        {error::gatt_proto::success, 0, "a gatt operation completed successfully"},
        {error::gatt_proto::value_not_allowed, 19, "attribute parameter value was not allowed"},
        {error::gatt_proto::out_of_range, 23, "attribute value is out of range"},
        {error::gatt_proto::unknown, 24, "unknown gatt proto error condition"},
    };
    for (auto const& [code, value, message] : cases) {
        EXPECT_EQ(code.value(), value) << message;
        EXPECT_EQ(code.message(), message);
    }
}

TEST(ErrorCategory, NamesAndMessagesOutsideTheTable) {
    // Category, name, first value past the table.
    std::tuple<std::error_category const&, std::string, int> const cases[] = {
        {error::bt_ctrl_category::get_inst(), "bt_ctrl", 19},
        {error::advertiser_category::get_inst(), "advertiser", 7},
        {error::connection_category::get_inst(), "connection", 7},
        {error::gatt_category::get_inst(), "gatt", 16},
        {error::gatt_proto_category::get_inst(), "gattproto", 25},
    };
    for (auto const& [category, name, past_last] : cases) {
        EXPECT_EQ(category.name(), name);
        auto const unknown =
            name == "gattproto" ? "unknown gatt proto error condition" : "unknonw error condition";
        for (int value : {-1, past_last, 1 << 20}) {
            EXPECT_EQ(category.message(value), unknown) << name << " " << value;
        }
        EXPECT_NE(category.message(past_last - 1), "unknonw error condition") << name;
    }
    EXPECT_EQ(error::bt_ctrl_category::get_inst().message(0), "unknonw error condition");
}

TEST(ErrorCategory, CodesCompareByCategoryInstanceAndValue) {
    std::error_code const advertiser_failure = error::advertiser::internal_failure;
    EXPECT_EQ(&advertiser_failure.category(), &error::advertiser_category::get_inst());
    EXPECT_EQ(advertiser_failure.value(),
              std::error_code(error::connection::internal_failure).value());
    EXPECT_NE(advertiser_failure, error::connection::internal_failure);
    EXPECT_EQ(advertiser_failure, error::advertiser::internal_failure);
    // No library error stands for a standard condition.
    EXPECT_NE(std::error_code(error::bt_ctrl::operation_aborted), std::errc::operation_canceled);
}

TEST(ErrorCategory, GattProtoSuccessIsAnEmptyCode) {
    std::error_code const success = error::make_error_code(error::gatt_proto::success);
    EXPECT_FALSE(success);
    EXPECT_NE(success.category(), std::system_category());
    EXPECT_NE(success, std::error_code());
    EXPECT_TRUE(error::make_error_code(error::bt_ctrl::inappropriate_state));
}

}  // namespace
}  // namespace zelvo::tavrin
