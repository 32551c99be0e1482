// The error values that the library's completion handlers report.
//
// Five enumerations, each with its own category, so that an application tells
// them apart by category and prints them by message(). Each is registered as
// an error-code enumeration: an error_code is built from and compared with the
// enumerators directly. bt_ctrl, advertiser, connection and gatt start at 1;
// their 0 is the empty error_code and no enumerator means success. gatt_proto
// mirrors the attribute protocol's codes and starts at 0, `success`.
//
// Each category has exactly one instance, returned by get_inst(); error_codes
// compare by category address. No category declares any of its errors
// equivalent to a standard condition.
#pragma once

#include <string>
#include <system_error>

#include "tavrin/export.hpp"

namespace zelvo::tavrin::error {

// Failures of the client as a whole.
enum class bt_ctrl {
    inappropriate_state = 1,
    operation_aborted,
    no_interface,
    no_instance,
    bad_address,
    unsupported_address,
    unsupported_phy,
    unsupported_scan_type,
    unsupported_functionality,
    unavailable_functionality,
    unknown_resource_reservation,
    insufficient_resources,
    unexpected_resource_type,
    unexpected_resource_target,
    busy_resource,
    asymmetric_resource_reservation,
    driver_failure,
    internal_failure,
};

enum class advertiser {
    inappropriate_state = 1,
    limit_exceeded,
    bad_channel_map,
    bad_tx_power,
    bad_interval,
    internal_failure,
};

enum class connection {
    inappropriate_state = 1,
    bad_instance,
    duplicate,
    limit_exceeded,
    invalid_parameter,
    internal_failure,
};

// Failures of GATT operations, local or reported by the controller.
enum class gatt {
    inappropriate_state = 1,
    aborted,
    unknown_handle,
    bad_offset_value,
    bad_value_size,
    exceeded_mtu_size_limit,
    unsupported_writing_type,
    unsupported_attribute_operation,
    unavailable_attribute,
    attribute_proto_failure,
    circular_reference,
    bad_error_code,
    unknown_reference,
    unexpected_handle,
    internal_failure,
};

// The attribute protocol's answers. 1 to 19 equal the protocol's own codes;
// 20 to 23 stand for the common profile codes 0xFC to 0xFF, packed down to
// follow on, so a value above 19 is not the code sent over the air. `unknown`
// catches everything else.
enum class gatt_proto {
    success = 0,
    invalid_handle,
    read_not_permitted,
    write_not_permitted,
    invalid_pdu,
    insufficient_authentication,
    request_not_supported,
    invalid_offset,
    insufficient_authorization,
    prepare_queue_full,
    attribute_not_found,
    attribute_not_long,
    insufficient_encryption_key_size,
    invalid_attribute_value_length,
    unlikely_error,
    insufficient_encryption,
    unsupported_group_type,
    insufficient_resources,
    database_out_of_sync,
    value_not_allowed,
    write_request_rejected,
    cccd_improperly_configured,
    procedure_already_in_progress,
    out_of_range,
    unknown,
};

// message() of the first four categories gives "unknonw error condition" for
// a value outside its enumeration, 0 included; the text is kept as released
// because applications match on it.
class TAVRIN_API bt_ctrl_category : public std::error_category {
public:
    static bt_ctrl_category const& get_inst();
    ~bt_ctrl_category() override;
    char const* name() const noexcept override;
    std::string message(int value) const override;

private:
    bt_ctrl_category() = default;
};

class TAVRIN_API advertiser_category : public std::error_category {
public:
    static advertiser_category const& get_inst();
    ~advertiser_category() override;
    char const* name() const noexcept override;
    std::string message(int value) const override;

private:
    advertiser_category() = default;
};

class TAVRIN_API connection_category : public std::error_category {
public:
    static connection_category const& get_inst();
    ~connection_category() override;
    char const* name() const noexcept override;
    std::string message(int value) const override;

private:
    connection_category() = default;
};

class TAVRIN_API gatt_category : public std::error_category {
public:
    static gatt_category const& get_inst();
    ~gatt_category() override;
    char const* name() const noexcept override;
    std::string message(int value) const override;

private:
    gatt_category() = default;
};

// Any value outside the enumeration reads as `unknown`.
class TAVRIN_API gatt_proto_category : public std::error_category {
public:
    static gatt_proto_category const& get_inst();
    ~gatt_proto_category() override;
    char const* name() const noexcept override;
    std::string message(int value) const override;

private:
    gatt_proto_category() = default;
};

TAVRIN_API std::error_code make_error_code(bt_ctrl value) noexcept;
TAVRIN_API std::error_code make_error_code(advertiser value) noexcept;
TAVRIN_API std::error_code make_error_code(connection value) noexcept;
TAVRIN_API std::error_code make_error_code(gatt value) noexcept;
TAVRIN_API std::error_code make_error_code(gatt_proto value) noexcept;

}  // namespace zelvo::tavrin::error

namespace std {

template <>
struct is_error_code_enum<zelvo::tavrin::error::bt_ctrl> : true_type {};
template <>
struct is_error_code_enum<zelvo::tavrin::error::advertiser> : true_type {};
template <>
struct is_error_code_enum<zelvo::tavrin::error::connection> : true_type {};
template <>
struct is_error_code_enum<zelvo::tavrin::error::gatt> : true_type {};
template <>
struct is_error_code_enum<zelvo::tavrin::error::gatt_proto> : true_type {};

}  // namespace std
