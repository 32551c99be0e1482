// The connection lifecycle requests of a bound interface, answered from the
// model: "connOpen", "connClose", the three reads a client makes of a
// connection it finds, and the queue reads "connsGet" and "advsGet".
#include "requests.hpp"
#include "wire.hpp"

namespace zelvo::tavrin::sim::requests {

namespace {

using nlohmann::json;

outcome connections_get(std::optional<json> const& body, context const& ctx) {
    if (!is_empty_object(body)) {
        return ctrl_error::malformed_request;
    }
    if (auto const refusal = refuse_unready(ctx)) {
        return *refusal;
    }
    if (!capabilities_of(ctx).conn) {
        return ctrl_error::unsupported_functionality;
    }
    return ctx.resources.connections_json(ctx.handshake.bound_interface);
}

outcome advertisers_get(std::optional<json> const& body, context const& ctx) {
    if (!is_empty_object(body)) {
        return ctrl_error::malformed_request;
    }
    if (auto const refusal = refuse_unready(ctx)) {
        return *refusal;
    }
    if (!capabilities_of(ctx).adv) {
        return ctrl_error::unsupported_functionality;
    }
    return ctx.resources.advertisers_json(ctx.handshake.bound_interface);
}

outcome connection_open(std::optional<json> const& body, context const& ctx) {
    if (!has_shape(body, {"addr"}, {"resvId", "connPhy"}) || !body->at("addr").is_object() ||
        (body->contains("resvId") && !read_u16(*body, "resvId"))) {
        return ctrl_error::malformed_request;
    }
    if (auto const refusal = refuse_unready(ctx)) {
        return *refusal;
    }
    auto const caps = capabilities_of(ctx);
    if (!caps.conn) {
        return ctrl_error::unsupported_functionality;
    }
    auto const address = read_peer_address(body->at("addr"), ctx);
    if (auto const* code = std::get_if<ctrl_error>(&address)) {
        return *code;
    }
    auto const peer = std::get<bt_ctrl::address>(address);
    auto phy = bt_ctrl::phy::unknown;
    if (body->contains("connPhy")) {
        auto const read = read_phy(body->at("connPhy"), ctx);
        if (auto const* code = std::get_if<ctrl_error>(&read)) {
            return *code;
        }
        phy = std::get<bt_ctrl::phy>(read);
    }
    auto const reservation = read_u16(*body, "resvId");
    if (reservation) {
        if (auto const refusal = refuse_reservation(ctx, *reservation, peer, std::nullopt)) {
            return *refusal;
        }
    }
    auto const& interface = ctx.handshake.bound_interface;
    if (!caps.connDuplicateMac && ctx.resources.find_connection_to(interface, peer)) {
        return ctrl_error::connection_duplicate;
    }
    if (!reservation && !ctx.resources.can_take_or_wait(interface)) {
        return ctrl_error::insufficient_resources;
    }
    auto const handle = ctx.resources.open(interface, peer, phy, reservation);
    return json{{"connHandle", handle},
                {"status", bt_ctrl::connection::to_string(bt_ctrl::connection::state::pending)},
                {"guaranteedTime", ctx.resources.guaranteed_time(interface, reservation).count()}};
}

outcome connection_close(std::optional<json> const& body, context const& ctx) {
    auto const found = named_connection(body, ctx);
    if (auto const* code = std::get_if<ctrl_error>(&found)) {
        return *code;
    }
    auto const* target = std::get<model::connection const*>(found);
    if (target->now == bt_ctrl::connection::state::closing) {
        return ctrl_error::connection_inappropriate_state;
    }
    ctx.resources.close(ctx.handshake.bound_interface, target->handle,
                        bt_ctrl::connection::close_reason::user_requested);
    return json::object();
}

outcome connection_status_get(std::optional<json> const& body, context const& ctx) {
    auto const found = named_connection(body, ctx);
    if (auto const* code = std::get_if<ctrl_error>(&found)) {
        return *code;
    }
    return json{
        {"status", bt_ctrl::connection::to_string(std::get<model::connection const*>(found)->now)}};
}

outcome connection_mtu_get(std::optional<json> const& body, context const& ctx) {
    auto const found = named_connection(body, ctx);
    if (auto const* code = std::get_if<ctrl_error>(&found)) {
        return *code;
    }
    auto const status = ctx.radio.status_of(ctx.handshake.bound_interface,
                                            std::get<model::connection const*>(found)->handle);
    return json{{"connMtu", status ? status->mtu : radio::link_status().mtu}};
}

outcome connection_direction_get(std::optional<json> const& body, context const& ctx) {
    auto const found = named_connection(body, ctx);
    if (auto const* code = std::get_if<ctrl_error>(&found)) {
        return *code;
    }
    using direction = bt_ctrl::connection::direction;
    auto const incoming = std::get<model::connection const*>(found)->incoming;
    return json{{"connDirection", bt_ctrl::connection::to_string(incoming ? direction::incoming
                                                                          : direction::outgoing)}};
}

}  // namespace

void add_connection_requests(handler_table& handlers) {
    handlers.insert({
        {"connOpen", &connection_open},
        {"connClose", &connection_close},
        {"connStatusGet", &connection_status_get},
        {"connMtuGet", &connection_mtu_get},
        {"connDirectionGet", &connection_direction_get},
        {"connsGet", &connections_get},
        {"advsGet", &advertisers_get},
    });
}

}  // namespace zelvo::tavrin::sim::requests
