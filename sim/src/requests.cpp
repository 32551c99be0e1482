#include "requests.hpp"

#include "tavrin/utils/mac_address.hpp"
#include "wire.hpp"

namespace zelvo::tavrin::sim::requests {

namespace {

using nlohmann::json;
using phase = handshake_state::phase;

bool is_client_id(json const& value) {
    if (!value.is_string()) {
        return false;
    }
    auto const& text = value.get_ref<std::string const&>();
    return text.size() == 32 && text.find_first_not_of("0123456789ABCDEF") == std::string::npos;
}

outcome handshake_start(std::optional<json> const& body, context const& ctx) {
    if (!body || !body->is_object()) {
        return ctrl_error::malformed_request;
    }
    for (auto const& item : body->items()) {
        if (item.key() != "clientID" || !is_client_id(item.value())) {
            return ctrl_error::malformed_request;
        }
    }
    ctx.handshake = {phase::started, "", body->value("clientID", "")};
    return wire::handshake_reply(ctx.versions, ctx.radio.interfaces());
}

outcome handshake_finish(std::optional<json> const& body, context const& ctx) {
    bool const named = body && body->is_object() && body->size() == 1 && body->contains("if") &&
                       body->at("if").is_string();
    if (!named && !(body && body->is_null())) {
        return ctrl_error::malformed_request;
    }
    if (ctx.handshake.stage != phase::started) {
        return ctrl_error::inappropriate_state;
    }
    auto const name = named ? body->at("if").get<std::string>() : ctx.radio.default_interface();
    if (!ctx.radio.status(name)) {
        return ctrl_error::no_such_interface;
    }
    ctx.handshake.stage = phase::bound;
    ctx.handshake.bound_interface = name;
    return json{{"if", name}};
}

// Checks what every request on the bound interface needs: an empty body and
// a finished handshake.
std::optional<ctrl_error> refuse_unbound(std::optional<json> const& body, context const& ctx) {
    if (!is_empty_object(body)) {
        return ctrl_error::malformed_request;
    }
    if (ctx.handshake.stage != phase::bound) {
        return ctrl_error::inappropriate_state;
    }
    return std::nullopt;
}

outcome interface_status_get(std::optional<json> const& body, context const& ctx) {
    if (auto const refusal = refuse_unbound(body, ctx)) {
        return *refusal;
    }
    auto const status = ctx.radio.status(ctx.handshake.bound_interface);
    if (!status) {
        return ctrl_error::no_such_interface;
    }
    return json{{"status", bt_ctrl::to_string(*status)}};
}

outcome interface_address_get(std::optional<json> const& body, context const& ctx) {
    if (auto const refusal = refuse_unbound(body, ctx)) {
        return *refusal;
    }
    auto const address = ctx.radio.address(ctx.handshake.bound_interface);
    if (!address) {
        return ctrl_error::no_such_interface;
    }
    return json{{"addr", wire::to_json(*address)}};
}

}  // namespace

handler_table const& table() {
    static handler_table const handlers = [] {
        handler_table all = {
            {"hdshkStart", &handshake_start},
            {"hdshkFinish", &handshake_finish},
            {"ifStatusGet", &interface_status_get},
            {"ifAddrGet", &interface_address_get},
        };
        add_reservation_requests(all);
        add_connection_requests(all);
        add_connection_property_requests(all);
        add_advertiser_requests(all);
        add_advertiser_property_requests(all);
        add_gatt_requests(all);
        add_peer_gatt_requests(all);
        return all;
    }();
    return handlers;
}

bool is_empty_object(std::optional<json> const& body) {
    return body && body->is_object() && body->empty();
}

std::optional<ctrl_error> refuse_unready(context const& ctx) {
    if (ctx.handshake.stage != phase::bound) {
        return ctrl_error::inappropriate_state;
    }
    if (ctx.radio.status(ctx.handshake.bound_interface) != bt_ctrl::state::enabled) {
        return ctrl_error::interface_inappropriate_state;
    }
    return std::nullopt;
}

model::holder holder_of(context const& ctx) {
    if (!ctx.handshake.client_id.empty()) {
        return {ctx.handshake.client_id, 0};
    }
    return {"", ctx.session};
}

bool has_gatt_server(context const& ctx) {
    if (auto const* kept = ctx.radio.find_capabilities(ctx.handshake.bound_interface)) {
        return kept->gattSrv;
    }
    return capabilities_of(ctx).gattSrv;
}

bt_ctrl::capabilities capabilities_of(context const& ctx) {
    return ctx.radio.capabilities(ctx.handshake.bound_interface).value_or(bt_ctrl::capabilities{});
}

std::variant<bt_ctrl::address, ctrl_error> read_peer_address(json const& value,
                                                             context const& ctx) {
    auto const type = value.find("type");
    auto const mac = value.find("mac");
    if (type == value.end() || !type->is_string()) {
        return ctrl_error::bad_address_type;
    }
    auto const kind = bt_ctrl::to_addr_type(type->get<std::string>());
    if (kind == bt_ctrl::addr_type::unknown ||
        type->get<std::string>() != bt_ctrl::to_string(kind)) {
        return ctrl_error::bad_address_type;
    }
    if (mac == value.end() || !mac->is_string()) {
        return ctrl_error::bad_address;
    }
    bt_ctrl::address address;
    try {
        address = bt_ctrl::address(kind, utils::mac_address(mac->get<std::string>()));
    } catch (std::exception const&) {
        return ctrl_error::bad_address;
    }
    if (!address.is_valid()) {
        return ctrl_error::bad_address;
    }
    if (capabilities_of(ctx).addrTypes.count(kind) == 0) {
        return ctrl_error::unsupported_address;
    }
    return address;
}

bool has_shape(std::optional<json> const& body, std::set<std::string> const& required,
               std::set<std::string> const& optional) {
    if (!body || !body->is_object()) {
        return false;
    }
    for (auto const& key : required) {
        if (!body->contains(key)) {
            return false;
        }
    }
    for (auto const& item : body->items()) {
        if (required.count(item.key()) == 0 && optional.count(item.key()) == 0) {
            return false;
        }
    }
    return true;
}

std::variant<model::connection const*, ctrl_error> named_connection(
    std::optional<json> const& body, context const& ctx, std::set<std::string> const& optional) {
    if (!has_shape(body, {"connHandle"}, optional) || !read_u16(*body, "connHandle")) {
        return ctrl_error::malformed_request;
    }
    if (auto const refusal = refuse_unready(ctx)) {
        return *refusal;
    }
    if (!capabilities_of(ctx).conn) {
        return ctrl_error::unsupported_functionality;
    }
    auto const* found = ctx.resources.find_connection(ctx.handshake.bound_interface,
                                                      *read_u16(*body, "connHandle"));
    if (!found) {
        return ctrl_error::connection_inappropriate_state;
    }
    return found;
}

std::optional<ctrl_error> refuse_reservation(context const& ctx, unsigned short id,
                                             bt_ctrl::address const& peer,
                                             std::optional<unsigned short> handle) {
    auto const& interface = ctx.handshake.bound_interface;
    auto const* reservation = ctx.resources.find_reservation(interface, id);
    if (!reservation || !(reservation->owner == holder_of(ctx))) {
        return ctrl_error::unknown_resource_reservation;
    }
    if (reservation->type != model::slot_type::connection) {
        return ctrl_error::unexpected_resource_type;
    }
    if (reservation->address && reservation->address != peer) {
        return ctrl_error::unexpected_resource_target;
    }
    auto const* user = ctx.resources.user_of(interface, id);
    if (user && (!handle || user->handle != *handle)) {
        return ctrl_error::busy_resource;
    }
    return std::nullopt;
}

std::variant<bt_ctrl::phy, ctrl_error> read_phy(json const& value, context const& ctx) {
    for (auto const phy : {bt_ctrl::phy::m1, bt_ctrl::phy::m2, bt_ctrl::phy::coded}) {
        if (value == bt_ctrl::to_string(phy)) {
            if (capabilities_of(ctx).connPhys.count(phy) == 0) {
                break;
            }
            return phy;
        }
    }
    return ctrl_error::unsupported_phy;
}

std::optional<unsigned short> read_u16(json const& object, char const* key) {
    auto const found = object.find(key);
    if (found == object.end() || !found->is_number_unsigned() ||
        found->get<std::uint64_t>() > 65535) {
        return std::nullopt;
    }
    return static_cast<unsigned short>(found->get<std::uint64_t>());
}

}  // namespace zelvo::tavrin::sim::requests
