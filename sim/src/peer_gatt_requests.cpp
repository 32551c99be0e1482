// The client's side of the peers' GATT operations: the answers to reads and
// writes ("gattsCharValueReadResponse", "gattsDescValueReadResponse",
// "gattsCharValueWriteResponse", "gattsDescValueWriteResponse") and the
// values it pushes ("gattsCharValueSetNotify"). Each is checked whole before
// anything reaches the peer: the body's shape (its status word and its hex
// data included), the session and interface, `gattSrv`, the connection, the
// attribute, then the value's size against the interface's limits and the
// connection's MTU.
#include <cstdint>
#include <set>
#include <string>

#include "requests.hpp"
#include "tavrin/misc/hex.hpp"
#include "values/gatt_proto_words.hpp"

namespace zelvo::tavrin::sim::requests {

namespace {

using nlohmann::json;
using kind = gatt_database::kind;
using operation = peer_gatt::operation;

// What a request names, once its checks have passed.
struct named {
    std::string interface;
    unsigned short connection = 0;
    unsigned attribute = 0;
    gatt_database::attribute const* target = nullptr;
    std::vector<unsigned char> data;
};

std::optional<std::vector<unsigned char>> read_data(json const& body) {
    auto const found = body.find("data");
    if (found == body.end()) {
        return std::vector<unsigned char>{};
    }
    if (!found->is_string()) {
        return std::nullopt;
    }
    try {
        return misc::from_hex_string<std::vector<unsigned char>>(found->get<std::string>(), "");
    } catch (std::exception const&) {
        return std::nullopt;
    }
}

// The checks every request here makes, in order, up to the attribute, which
// must be of kind `what`. `keys` are the body's keys besides "connHandle"
// and "handle", all required.
std::variant<named, ctrl_error> check(std::optional<json> const& body, context const& ctx,
                                      std::set<std::string> keys, kind what) {
    keys.insert({"connHandle", "handle"});
    if (!has_shape(body, keys, {}) || !read_u16(*body, "connHandle") ||
        !body->at("handle").is_number_unsigned()) {
        return ctrl_error::malformed_request;
    }
    if (keys.count("status") != 0 &&
        (!body->at("status").is_string() ||
         !impl::gatt_proto_of(body->at("status").get<std::string>()))) {
        return ctrl_error::malformed_request;
    }
    if (keys.count("responseNeeded") != 0 && !body->at("responseNeeded").is_boolean()) {
        return ctrl_error::malformed_request;
    }
    auto data = read_data(*body);
    if (!data) {
        return ctrl_error::malformed_request;
    }
    if (auto const refusal = refuse_unready(ctx)) {
        return *refusal;
    }
    if (!capabilities_of(ctx).gattSrv) {
        return ctrl_error::unsupported_functionality;
    }
    named found;
    found.interface = ctx.handshake.bound_interface;
    found.connection = *read_u16(*body, "connHandle");
    auto const* connection = ctx.resources.find_connection(found.interface, found.connection);
    if (!connection) {
        return ctrl_error::connection_inappropriate_state;
    }
    if (connection->now != bt_ctrl::connection::state::opened) {
        return ctrl_error::connection_not_ready;
    }
    // A number beyond any handle names nothing, as 0 does.
    auto const number = body->at("handle").get<std::uint64_t>();
    found.attribute = number > gatt_database::max_handle ? 0u : static_cast<unsigned>(number);
    auto const attribute = ctx.resources.database(found.interface).get(found.attribute, what);
    if (auto const* refusal = std::get_if<ctrl_error>(&attribute)) {
        return *refusal;
    }
    found.target = std::get<gatt_database::attribute const*>(attribute);
    auto const caps = capabilities_of(ctx);
    auto const longest = what == kind::characteristic ? caps.gattServerCharValueMaxLen
                                                      : caps.gattServerDescValueMaxLen;
    if (data->size() > longest) {
        return ctrl_error::gatt_bad_value_size;
    }
    found.data = std::move(*data);
    return found;
}

// Whether `size` bytes fit in one PDU of the connection beside `header`
// bytes of ATT header.
bool fits(context const& ctx, named const& target, std::size_t size, unsigned header) {
    auto const mtu = ctx.resources.peers().mtu(target.interface, target.connection);
    return mtu >= header && size <= mtu - header;
}

template <kind what>
outcome read_response(std::optional<json> const& body, context const& ctx) {
    auto const checked = check(body, ctx, {"data", "status"}, what);
    if (auto const* refusal = std::get_if<ctrl_error>(&checked)) {
        return *refusal;
    }
    auto const& target = std::get<named>(checked);
    // A read response carries the value after one byte of opcode.
    if (!fits(ctx, target, target.data.size(), 1)) {
        return ctrl_error::gatt_exceeded_mtu_size_limit;
    }
    ctx.resources.peers().answer(target.interface, target.connection, target.attribute,
                                 operation::read, body->at("status").get<std::string>(),
                                 target.data);
    return json::object();
}

template <kind what>
outcome write_response(std::optional<json> const& body, context const& ctx) {
    auto const checked = check(body, ctx, {"status"}, what);
    if (auto const* refusal = std::get_if<ctrl_error>(&checked)) {
        return *refusal;
    }
    auto const& target = std::get<named>(checked);
    ctx.resources.peers().answer(target.interface, target.connection, target.attribute,
                                 operation::write, body->at("status").get<std::string>(), {});
    return json::object();
}

outcome set_notify(std::optional<json> const& body, context const& ctx) {
    auto const checked = check(body, ctx, {"data", "responseNeeded"}, kind::characteristic);
    if (auto const* refusal = std::get_if<ctrl_error>(&checked)) {
        return *refusal;
    }
    auto const& target = std::get<named>(checked);
    // A notification or indication carries the value after an opcode and
    // the handle.
    if (!fits(ctx, target, target.data.size(), 3)) {
        return ctrl_error::gatt_exceeded_mtu_size_limit;
    }
    bool const indication = body->at("responseNeeded").get<bool>();
    if (target.target->properties.count(indication ? "indicate" : "notify") == 0) {
        return ctrl_error::gatt_unsupported_attribute_operation;
    }
    if (!ctx.resources.peers().deliver(target.interface, target.connection, target.attribute,
                                       target.data, indication)) {
        return ctrl_error::gatt_inappropriate_state;
    }
    return json::object();
}

}  // namespace

void add_peer_gatt_requests(handler_table& handlers) {
    handlers.insert({
        {"gattsCharValueReadResponse", &read_response<kind::characteristic>},
        {"gattsDescValueReadResponse", &read_response<kind::descriptor>},
        {"gattsCharValueWriteResponse", &write_response<kind::characteristic>},
        {"gattsDescValueWriteResponse", &write_response<kind::descriptor>},
        {"gattsCharValueSetNotify", &set_notify},
    });
}

}  // namespace zelvo::tavrin::sim::requests
