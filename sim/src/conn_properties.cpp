// The property requests of an open connection: its reservation, peer
// address, signal, PHY, parameters and latency. Setters ask the radio; the
// change reaches the clients as an event when the radio has made it.
#include "requests.hpp"
#include "wire.hpp"

namespace zelvo::tavrin::sim::requests {

namespace {

using nlohmann::json;
using conn_state = bt_ctrl::connection::state;

using open_result = std::pair<model::connection const*, radio::link_status>;

// The open connection the request names, and the radio's view of it:
// connection_not_ready for one that is not open (yet).
std::variant<open_result, ctrl_error> open_connection(std::optional<json> const& body,
                                                      context const& ctx,
                                                      std::set<std::string> const& optional = {}) {
    auto const found = named_connection(body, ctx, optional);
    if (auto const* code = std::get_if<ctrl_error>(&found)) {
        return *code;
    }
    auto const* target = std::get<model::connection const*>(found);
    auto const status = ctx.radio.status_of(ctx.handshake.bound_interface, target->handle);
    if (target->now != conn_state::opened || !status || !status->open) {
        return ctrl_error::connection_not_ready;
    }
    return open_result(target, *status);
}

outcome reservation_set(std::optional<json> const& body, context const& ctx) {
    if (body && body->is_object() && body->contains("resvId") && !read_u16(*body, "resvId")) {
        return ctrl_error::malformed_request;
    }
    auto const found = named_connection(body, ctx, {"resvId"});
    if (auto const* code = std::get_if<ctrl_error>(&found)) {
        return *code;
    }
    auto const* target = std::get<model::connection const*>(found);
    if (target->now == conn_state::closing) {
        return ctrl_error::connection_inappropriate_state;
    }
    auto const reservation = read_u16(*body, "resvId");
    if (reservation) {
        if (auto const refusal =
                refuse_reservation(ctx, *reservation, target->peer, target->handle)) {
            return *refusal;
        }
    }
    if (!ctx.resources.set_reservation(ctx.handshake.bound_interface, target->handle,
                                       reservation)) {
        return ctrl_error::insufficient_resources;
    }
    return json::object();
}

outcome address_get(std::optional<json> const& body, context const& ctx) {
    auto const found = open_connection(body, ctx);
    if (auto const* code = std::get_if<ctrl_error>(&found)) {
        return *code;
    }
    return json{{"addr", wire::to_json(std::get<open_result>(found).first->peer)}};
}

outcome signal_get(std::optional<json> const& body, context const& ctx) {
    auto const found = open_connection(body, ctx);
    if (auto const* code = std::get_if<ctrl_error>(&found)) {
        return *code;
    }
    auto const& signal = std::get<open_result>(found).second.signal;
    return json{{"signal", {{"quality", signal.quality}, {"strength", signal.strength}}}};
}

outcome phy_set(std::optional<json> const& body, context const& ctx) {
    if (!has_shape(body, {"connHandle", "connPhy"}, {})) {
        return ctrl_error::malformed_request;
    }
    auto const found = open_connection(body, ctx, {"connPhy"});
    if (auto const* code = std::get_if<ctrl_error>(&found)) {
        return *code;
    }
    // Every connection here is one the controller opened as central.
    if (!capabilities_of(ctx).centRoleConnPhyChange) {
        return ctrl_error::unsupported_functionality;
    }
    auto const phy = read_phy(body->at("connPhy"), ctx);
    if (auto const* code = std::get_if<ctrl_error>(&phy)) {
        return *code;
    }
    ctx.radio.set_phy(ctx.handshake.bound_interface, std::get<open_result>(found).first->handle,
                      std::get<bt_ctrl::phy>(phy));
    return json::object();
}

outcome phy_get(std::optional<json> const& body, context const& ctx) {
    auto const found = open_connection(body, ctx);
    if (auto const* code = std::get_if<ctrl_error>(&found)) {
        return *code;
    }
    return json{{"connPhy", bt_ctrl::to_string(std::get<open_result>(found).second.phy)}};
}

// Values within what a radio takes: intervals 6 to 3200, latency up to 499,
// a timeout of 10 to 3200 that is longer than twice the longest interval
// with latency (in its units: timeout * 4 > (1 + latency) * max).
std::optional<connection_params> read_params(json const& value) {
    if (!value.is_object() || value.size() != 4) {
        return std::nullopt;
    }
    auto const min = read_u16(value, "intervalMin"), max = read_u16(value, "intervalMax"),
               latency = read_u16(value, "latency"), timeout = read_u16(value, "timeout");
    if (!min || !max || !latency || !timeout) {
        return std::nullopt;
    }
    return connection_params{*min, *max, *latency, *timeout};
}

bool params_in_range(connection_params const& p) {
    return p.interval_min >= 6 && p.interval_min <= p.interval_max && p.interval_max <= 3200 &&
           p.latency <= 499 && p.timeout >= 10 && p.timeout <= 3200 &&
           p.timeout * 4UL > (1UL + p.latency) * p.interval_max;
}

outcome params_set(std::optional<json> const& body, context const& ctx) {
    if (!has_shape(body, {"connHandle", "connParams"}, {}) ||
        !read_params(body->at("connParams"))) {
        return ctrl_error::malformed_request;
    }
    auto const found = open_connection(body, ctx, {"connParams"});
    if (auto const* code = std::get_if<ctrl_error>(&found)) {
        return *code;
    }
    if (!capabilities_of(ctx).centRoleConnParmsChange) {
        return ctrl_error::unsupported_functionality;
    }
    auto const params = *read_params(body->at("connParams"));
    if (!params_in_range(params)) {
        return ctrl_error::connection_invalid_parameter;
    }
    ctx.radio.set_params(ctx.handshake.bound_interface, std::get<open_result>(found).first->handle,
                         params);
    return json::object();
}

outcome params_get(std::optional<json> const& body, context const& ctx) {
    auto const found = open_connection(body, ctx);
    if (auto const* code = std::get_if<ctrl_error>(&found)) {
        return *code;
    }
    auto const& params = std::get<open_result>(found).second.params;
    return json{{"connParams",
                 {{"intervalMin", params.interval_min},
                  {"intervalMax", params.interval_max},
                  {"latency", params.latency},
                  {"timeout", params.timeout}}}};
}

outcome latency_set(std::optional<json> const& body, context const& ctx) {
    if (!has_shape(body, {"connHandle", "enableLatency"}, {}) ||
        !body->at("enableLatency").is_boolean()) {
        return ctrl_error::malformed_request;
    }
    auto const found = open_connection(body, ctx, {"enableLatency"});
    if (auto const* code = std::get_if<ctrl_error>(&found)) {
        return *code;
    }
    ctx.radio.set_latency(ctx.handshake.bound_interface, std::get<open_result>(found).first->handle,
                          body->at("enableLatency").get<bool>());
    return json::object();
}

outcome latency_get(std::optional<json> const& body, context const& ctx) {
    auto const found = open_connection(body, ctx);
    if (auto const* code = std::get_if<ctrl_error>(&found)) {
        return *code;
    }
    return json{{"enableLatency", std::get<open_result>(found).second.latency}};
}

}  // namespace

void add_connection_property_requests(handler_table& handlers) {
    handlers.insert({
        {"connResvSet", &reservation_set},
        {"connAddressGet", &address_get},
        {"connSignalGet", &signal_get},
        {"connPhySet", &phy_set},
        {"connPhyGet", &phy_get},
        {"connParamsSet", &params_set},
        {"connParamsGet", &params_get},
        {"connLatencySet", &latency_set},
        {"connLatencyGet", &latency_get},
    });
}

}  // namespace zelvo::tavrin::sim::requests
