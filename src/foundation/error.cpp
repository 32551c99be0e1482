#include "tavrin/error.hpp"

#include <iterator>

namespace zelvo::tavrin::error {
namespace {

char const* const unknown_condition = "unknonw error condition";

// Message tables are indexed by enumerator value; slot 0 is unused where the
// enumeration starts at 1.
char const* const bt_ctrl_messages[] = {
    nullptr,
    "inappropriate state",
    "operation aborted",
    "can't find interface",
    "no instance",
    "bad address",
    "unsupported address",
    "unsupported phy",
    "unsupported scan type (active/passive)",
    "unsupported functionality",
    "unavailable functionality",
    "unknown resource reservation",
    "insufficient resources",
    "unexpected resource type",
    "unexpected resource target",
    "busy resource",
    "asymmetric resource reservation",
    "driver failure",
    "internal failure",
};

char const* const advertiser_messages[] = {
    nullptr,      "inappropriate state", "limit exceeded",   "bad channel map",
    "bad tx pow", "bad interval",        "internal failure",
};

char const* const connection_messages[] = {
    nullptr,          "inappropriate state", "bad instance",     "duplicate",
    "limit exceeded", "invalid parameter",   "internal failure",
};

char const* const gatt_messages[] = {
    nullptr,
    "inappropriate state",
    "aborted",
    "unknown handle",
    "bad offset value",
    "bad value size",
    "exceeded mtu size limit",
    "unsupported writing type",
    "unsupported attribute operation",
    "unavailable attribute",
    "attribute proto failure",
    "circular reference",
    "bad error code",
    "unknown reference",
    "unexpected handle",
    "internal failure",
};

char const* const gatt_proto_messages[] = {
    "a gatt operation completed successfully",
    "a read or write operation was requested with an invalid handle",
    "gatt read operation is not permitted",
    "gatt write operation is not permitted",
    "gatt attribute pdu was invalid",
    "insufficient authentication for a given operation",
    "the given request is not supported",
    "a read or write operation was requested with an invalid offset",
    "insufficient authorization for a given operation",
    "too many prepare writes have been queued",
    "attribute was not found within the given attribute handle range",
    "attribute cannot be read using read blob request",
    "insufficient encryption key size",
    "attribute value length is invalid for the operation",
    "unlikely error was encountered during execution of the operation",
    "insufficient encryption for a given operation",
    "attribute type is not a supported grouping attribute type",
    "insufficient resources to complete the request",
    "new database discovery is required",
    "attribute parameter value was not allowed",
    "write request rejected",
    "cccd improperly configured",
    "procedure already in progress",
    "attribute value is out of range",
    "unknown gatt proto error condition",
};

static_assert(std::size(bt_ctrl_messages) == static_cast<int>(bt_ctrl::internal_failure) + 1);
static_assert(std::size(advertiser_messages) == static_cast<int>(advertiser::internal_failure) + 1);
static_assert(std::size(connection_messages) == static_cast<int>(connection::internal_failure) + 1);
static_assert(std::size(gatt_messages) == static_cast<int>(gatt::internal_failure) + 1);
static_assert(std::size(gatt_proto_messages) == static_cast<int>(gatt_proto::unknown) + 1);

// The text of `value` in a table whose slots 1 and up are all set.
template <std::size_t N>
std::string lookup(char const* const (&messages)[N], int value) {
    if (value < 1 || static_cast<std::size_t>(value) >= N) {
        return unknown_condition;
    }
    return messages[value];
}

}  // namespace

bt_ctrl_category const& bt_ctrl_category::get_inst() {
    static bt_ctrl_category const instance;
    return instance;
}
bt_ctrl_category::~bt_ctrl_category() = default;
char const* bt_ctrl_category::name() const noexcept {
    return "bt_ctrl";
}
std::string bt_ctrl_category::message(int value) const {
    return lookup(bt_ctrl_messages, value);
}

advertiser_category const& advertiser_category::get_inst() {
    static advertiser_category const instance;
    return instance;
}
advertiser_category::~advertiser_category() = default;
char const* advertiser_category::name() const noexcept {
    return "advertiser";
}
std::string advertiser_category::message(int value) const {
    return lookup(advertiser_messages, value);
}

connection_category const& connection_category::get_inst() {
    static connection_category const instance;
    return instance;
}
connection_category::~connection_category() = default;
char const* connection_category::name() const noexcept {
    return "connection";
}
std::string connection_category::message(int value) const {
    return lookup(connection_messages, value);
}

gatt_category const& gatt_category::get_inst() {
    static gatt_category const instance;
    return instance;
}
gatt_category::~gatt_category() = default;
char const* gatt_category::name() const noexcept {
    return "gatt";
}
std::string gatt_category::message(int value) const {
    return lookup(gatt_messages, value);
}

gatt_proto_category const& gatt_proto_category::get_inst() {
    static gatt_proto_category const instance;
    return instance;
}
gatt_proto_category::~gatt_proto_category() = default;
char const* gatt_proto_category::name() const noexcept {
    return "gattproto";
}
std::string gatt_proto_category::message(int value) const {
    auto const last = static_cast<int>(gatt_proto::unknown);
    return gatt_proto_messages[value < 0 || value > last ? last : value];
}

std::error_code make_error_code(bt_ctrl value) noexcept {
    return {static_cast<int>(value), bt_ctrl_category::get_inst()};
}

std::error_code make_error_code(advertiser value) noexcept {
    return {static_cast<int>(value), advertiser_category::get_inst()};
}

std::error_code make_error_code(connection value) noexcept {
    return {static_cast<int>(value), connection_category::get_inst()};
}

std::error_code make_error_code(gatt value) noexcept {
    return {static_cast<int>(value), gatt_category::get_inst()};
}

std::error_code make_error_code(gatt_proto value) noexcept {
    return {static_cast<int>(value), gatt_proto_category::get_inst()};
}

}  // namespace zelvo::tavrin::error
