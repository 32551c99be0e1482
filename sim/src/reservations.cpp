// The reservation requests: "freeResvsGet", "resvsGet", "resvCreate",
// "resvRecreate" and "resvDestroy", answered from the model.
#include "requests.hpp"
#include "wire.hpp"

namespace zelvo::tavrin::sim::requests {

namespace {

using nlohmann::json;
using slot_type = model::slot_type;

std::optional<slot_type> read_type(json const& value) {
    if (value == "connection") {
        return slot_type::connection;
    }
    if (value == "advertiser") {
        return slot_type::advertiser;
    }
    return std::nullopt;
}

char const* type_word(slot_type type) {
    return type == slot_type::connection ? "connection" : "advertiser";
}

// What "resvCreate" and "resvRecreate" share: the claim in the body, after
// the body's shape and the session's state have been checked.
std::variant<model::reservation, ctrl_error> read_claim(json const& body, context const& ctx) {
    if (!body.at("type").is_string() || (body.contains("addr") && !body.at("addr").is_object()) ||
        (body.contains("context") && !body.at("context").is_object())) {
        return ctrl_error::malformed_request;
    }
    std::string custom_data;
    if (body.contains("context")) {
        auto const& extra = body.at("context");
        auto const found = extra.find("customData");
        if (found != extra.end()) {
            if (!found->is_string()) {
                return ctrl_error::malformed_request;
            }
            custom_data = found->get<std::string>();
        }
    }
    auto const type = read_type(body.at("type"));
    if (!type) {
        return ctrl_error::unexpected_resource_type;
    }
    auto const caps = capabilities_of(ctx);
    if (!(*type == slot_type::connection ? caps.conn : caps.adv)) {
        return ctrl_error::unsupported_functionality;
    }
    model::reservation claim;
    claim.owner = holder_of(ctx);
    claim.type = *type;
    if (body.contains("addr")) {
        auto const address = read_peer_address(body.at("addr"), ctx);
        if (auto const* code = std::get_if<ctrl_error>(&address)) {
            return *code;
        }
        claim.address = std::get<bt_ctrl::address>(address);
    }
    // The controller keeps the text for the holder; it keeps a bounded one.
    if (custom_data.size() > model::max_custom_data) {
        return ctrl_error::insufficient_resources;
    }
    claim.custom_data = std::move(custom_data);
    return claim;
}

// The holder's reservation of that id, or the code that refuses it: an id
// that is not the holder's is as unknown as one that does not exist.
std::variant<model::reservation const*, ctrl_error> holders_reservation(json const& body,
                                                                        context const& ctx) {
    auto const id = read_u16(body, "resvId");
    if (!id) {
        return ctrl_error::malformed_request;
    }
    auto const& interface = ctx.handshake.bound_interface;
    auto const* found = ctx.resources.find_reservation(interface, *id);
    if (!found || !(found->owner == holder_of(ctx))) {
        return ctrl_error::unknown_resource_reservation;
    }
    return found;
}

outcome free_reservations_get(std::optional<json> const& body, context const& ctx) {
    if (!is_empty_object(body)) {
        return ctrl_error::malformed_request;
    }
    if (auto const refusal = refuse_unready(ctx)) {
        return *refusal;
    }
    return ctx.resources.free_json(ctx.handshake.bound_interface);
}

outcome reservations_get(std::optional<json> const& body, context const& ctx) {
    if (!is_empty_object(body)) {
        return ctrl_error::malformed_request;
    }
    if (auto const refusal = refuse_unready(ctx)) {
        return *refusal;
    }
    json all = json::object();
    for (auto const* entry :
         ctx.resources.reservations_of(ctx.handshake.bound_interface, holder_of(ctx))) {
        json described = {{"type", type_word(entry->type)}};
        if (entry->address) {
            described["addr"] = wire::to_json(entry->address);
        }
        if (!entry->custom_data.empty()) {
            described["context"] = {{"customData", entry->custom_data}};
        }
        all[std::to_string(entry->id)] = std::move(described);
    }
    return all;
}

outcome reservation_create(std::optional<json> const& body, context const& ctx) {
    if (!has_shape(body, {"type"}, {"addr", "context"})) {
        return ctrl_error::malformed_request;
    }
    if (auto const refusal = refuse_unready(ctx)) {
        return *refusal;
    }
    auto const claim = read_claim(*body, ctx);
    if (auto const* code = std::get_if<ctrl_error>(&claim)) {
        return *code;
    }
    auto const id =
        ctx.resources.reserve(ctx.handshake.bound_interface, std::get<model::reservation>(claim));
    if (!id) {
        return ctrl_error::insufficient_resources;
    }
    return json{{"resvId", *id}};
}

outcome reservation_recreate(std::optional<json> const& body, context const& ctx) {
    if (!has_shape(body, {"resvId", "type"}, {"addr", "context"})) {
        return ctrl_error::malformed_request;
    }
    if (auto const refusal = refuse_unready(ctx)) {
        return *refusal;
    }
    auto const old = holders_reservation(*body, ctx);
    if (auto const* code = std::get_if<ctrl_error>(&old)) {
        return *code;
    }
    auto const claim = read_claim(*body, ctx);
    if (auto const* code = std::get_if<ctrl_error>(&claim)) {
        return *code;
    }
    auto const& interface = ctx.handshake.bound_interface;
    auto const old_id = std::get<model::reservation const*>(old)->id;
    if (ctx.resources.in_use(interface, old_id)) {
        return ctrl_error::busy_resource;
    }
    auto const id = ctx.resources.replace(interface, old_id, std::get<model::reservation>(claim));
    if (!id) {
        return ctrl_error::insufficient_resources;
    }
    return json{{"resvId", *id}};
}

outcome reservation_destroy(std::optional<json> const& body, context const& ctx) {
    if (!has_shape(body, {"resvId"}, {})) {
        return ctrl_error::malformed_request;
    }
    if (auto const refusal = refuse_unready(ctx)) {
        return *refusal;
    }
    auto const found = holders_reservation(*body, ctx);
    if (auto const* code = std::get_if<ctrl_error>(&found)) {
        return *code;
    }
    auto const& interface = ctx.handshake.bound_interface;
    auto const id = std::get<model::reservation const*>(found)->id;
    if (ctx.resources.in_use(interface, id)) {
        return ctrl_error::busy_resource;
    }
    ctx.resources.release(interface, id);
    return json::object();
}

}  // namespace

void add_reservation_requests(handler_table& handlers) {
    handlers.insert({
        {"freeResvsGet", &free_reservations_get},
        {"resvsGet", &reservations_get},
        {"resvCreate", &reservation_create},
        {"resvRecreate", &reservation_recreate},
        {"resvDestroy", &reservation_destroy},
    });
}

}  // namespace zelvo::tavrin::sim::requests
