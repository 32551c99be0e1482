// The connection requests of a bound interface, answered from the model:
// the queue reads "connsGet" and "advsGet".
#include "requests.hpp"

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

}  // namespace

void add_connection_requests(handler_table& handlers) {
    handlers.insert({
        {"connsGet", &connections_get},
        {"advsGet", &advertisers_get},
    });
}

}  // namespace zelvo::tavrin::sim::requests
