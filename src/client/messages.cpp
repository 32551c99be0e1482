// The one mapping of bus results to error codes, and version texts.
#include <string>
#include <typeinfo>

#include "client/bt_ctrl.hpp"
#include "tavrin/error.hpp"
#include "tavrin/misc/strings.hpp"

namespace zelvo::tavrin::impl {

namespace {

// The controller's codes 2 to 46, in order. Several codes share one local
// value on purpose.
std::error_code const& controller_code(int code) {
    using b = error::bt_ctrl;
    using a = error::advertiser;
    using c = error::connection;
    using g = error::gatt;
    static std::error_code const table[] = {
        make_error_code(b::unsupported_functionality),        // 2
        make_error_code(b::unavailable_functionality),        // 3
        make_error_code(b::internal_failure),                 // 4
        make_error_code(b::internal_failure),                 // 5
        make_error_code(b::no_interface),                     // 6
        make_error_code(b::internal_failure),                 // 7
        make_error_code(b::unsupported_phy),                  // 8
        make_error_code(g::bad_offset_value),                 // 9
        make_error_code(g::unsupported_writing_type),         // 10
        make_error_code(b::unsupported_scan_type),            // 11
        make_error_code(b::internal_failure),                 // 12
        make_error_code(b::insufficient_resources),           // 13
        make_error_code(b::unknown_resource_reservation),     // 14
        make_error_code(b::unexpected_resource_type),         // 15
        make_error_code(b::unexpected_resource_target),       // 16
        make_error_code(b::busy_resource),                    // 17
        make_error_code(c::inappropriate_state),              // 18
        make_error_code(g::bad_value_size),                   // 19
        make_error_code(g::exceeded_mtu_size_limit),          // 20
        make_error_code(g::attribute_proto_failure),          // 21
        make_error_code(b::driver_failure),                   // 22
        make_error_code(b::internal_failure),                 // 23
        make_error_code(c::limit_exceeded),                   // 24
        make_error_code(c::duplicate),                        // 25
        make_error_code(c::invalid_parameter),                // 26
        make_error_code(b::bad_address),                      // 27
        make_error_code(b::bad_address),                      // 28
        make_error_code(b::unsupported_address),              // 29
        make_error_code(a::limit_exceeded),                   // 30
        make_error_code(g::unknown_handle),                   // 31
        make_error_code(g::unavailable_attribute),            // 32
        make_error_code(a::bad_channel_map),                  // 33
        make_error_code(a::limit_exceeded),                   // 34
        make_error_code(a::inappropriate_state),              // 35
        make_error_code(b::asymmetric_resource_reservation),  // 36
        make_error_code(b::inappropriate_state),              // 37
        make_error_code(g::circular_reference),               // 38
        make_error_code(g::unknown_reference),                // 39
        make_error_code(g::bad_offset_value),                 // 40
        make_error_code(b::inappropriate_state),              // 41
        make_error_code(a::inappropriate_state),              // 42
        make_error_code(c::inappropriate_state),              // 43
        make_error_code(g::inappropriate_state),              // 44
        make_error_code(g::unsupported_attribute_operation),  // 45
        make_error_code(g::unexpected_handle),                // 46
    };
    static_assert(std::size(table) == 45);
    return table[code - 2];
}

}  // namespace

std::error_code bt_ctrl::to_error_code(quorl_utils::error const& error) {
    if (!error) {
        return {};
    }
    if (error.type() == typeid(quorl::exchange_error) && error.code() == 1) {
        return make_error_code(error::bt_ctrl::operation_aborted);
    }
    if (error.type() == quorl_utils::error().type() && error.code() >= 2 && error.code() <= 46) {
        return controller_code(error.code());
    }
    return make_error_code(error::bt_ctrl::internal_failure);
}

std::error_code bt_ctrl::to_error_code(std::shared_ptr<quorl::resp_ctx> const& resp) {
    return to_error_code(resp->first_error ? resp->first_error : resp->second_error);
}

bt_ctrl::version_type bt_ctrl::to_version(std::string const& text) {
    auto const parts = misc::split(text, ".");
    unsigned numbers[3] = {0, 0, 0};
    for (std::size_t i = 0; i < 3 && i < parts.size(); ++i) {
        numbers[i] = static_cast<unsigned>(std::stol(parts[i]));
    }
    return {numbers[0], numbers[1], numbers[2]};
}

}  // namespace zelvo::tavrin::impl
