// The one mapping of bus results to error codes, and version texts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <tuple>
#include <vector>

#include "client/bt_ctrl.hpp"
#include "tavrin/error.hpp"

namespace zelvo::tavrin {
namespace {

using impl_ctrl = impl::bt_ctrl;

quorl_utils::error controller_code(int value) {
    return quorl_utils::app_error(value);
}

TEST(ErrorMapping, EachControllerCodeHasItsLocalValue) {
    using b = error::bt_ctrl;
    using a = error::advertiser;
    using c = error::connection;
    using g = error::gatt;
    auto const e = [](auto value) { return make_error_code(value); };
    // clang-format off
    std::vector<std::error_code> const from_two = {
        e(b::unsupported_functionality), e(b::unavailable_functionality), e(b::internal_failure),
        e(b::internal_failure), e(b::no_interface), e(b::internal_failure), e(b::unsupported_phy),
        e(g::bad_offset_value), e(g::unsupported_writing_type), e(b::unsupported_scan_type),
        e(b::internal_failure), e(b::insufficient_resources), e(b::unknown_resource_reservation),
        e(b::unexpected_resource_type), e(b::unexpected_resource_target), e(b::busy_resource),
        e(c::inappropriate_state), e(g::bad_value_size), e(g::exceeded_mtu_size_limit),      // 20
        e(g::attribute_proto_failure), e(b::driver_failure), e(b::internal_failure),
        e(c::limit_exceeded), e(c::duplicate), e(c::invalid_parameter), e(b::bad_address),
        e(b::bad_address), e(b::unsupported_address), e(a::limit_exceeded), e(g::unknown_handle),
        e(g::unavailable_attribute), e(a::bad_channel_map), e(a::limit_exceeded),            // 34
        e(a::inappropriate_state), e(b::asymmetric_resource_reservation),
        e(b::inappropriate_state), e(g::circular_reference), e(g::unknown_reference),
        e(g::bad_offset_value), e(b::inappropriate_state), e(a::inappropriate_state),
        e(c::inappropriate_state), e(g::inappropriate_state),
        e(g::unsupported_attribute_operation), e(g::unexpected_handle),                      // 46
    };
    // clang-format on
    ASSERT_EQ(from_two.size(), 45u);
    for (int value = 2; value <= 46; ++value) {
        EXPECT_EQ(impl_ctrl::to_error_code(controller_code(value)), from_two[value - 2])
            << "controller code " << value;
    }

    // Outside the table, and every other code space but one exchange fault.
    for (quorl_utils::error const& other :
         {controller_code(1), controller_code(47),
          quorl_utils::error(quorl_utils::local_error::buffer_overflow),
          quorl_utils::error(quorl_utils::exchange_error::timed_out)}) {
        EXPECT_EQ(impl_ctrl::to_error_code(other), e(b::internal_failure)) << other.text();
    }
    EXPECT_EQ(impl_ctrl::to_error_code(quorl_utils::exchange_error::aborted),
              e(b::operation_aborted));

    // A response reports its first error before its second.
    auto const response = std::make_shared<quorl::resp_ctx>();
    EXPECT_FALSE(impl_ctrl::to_error_code(response));
    response->second_error = controller_code(6);
    EXPECT_EQ(impl_ctrl::to_error_code(response), e(b::no_interface));
    response->first_error = quorl_utils::exchange_error::aborted;
    EXPECT_EQ(impl_ctrl::to_error_code(response), e(b::operation_aborted));
}

TEST(VersionText, UpToThreeNumbersAreReadAndMissingOnesAreZero) {
    struct row {
        char const* text;
        std::tuple<unsigned, unsigned, unsigned> expected;
    };
    for (auto const& r : {row{"1.2.3.4", {1, 2, 3}}, row{"2", {2, 0, 0}}, row{"", {0, 0, 0}},
                          row{"10.020.3", {10, 20, 3}}, row{"4294967297.1", {1, 1, 0}}}) {
        EXPECT_EQ(impl_ctrl::to_version(r.text), r.expected) << r.text;
    }
    for (char const* text : {"1.x", "1.", "x", "1..2"}) {
        EXPECT_THAT([text] { impl_ctrl::to_version(text); },
                    ::testing::ThrowsMessage<std::invalid_argument>("stol"))
            << text;
    }
    EXPECT_THROW(impl_ctrl::to_version("99999999999999999999"), std::out_of_range);
}

}  // namespace
}  // namespace zelvo::tavrin
