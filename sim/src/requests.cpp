#include "requests.hpp"

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

// The body of a request with no parameters.
bool is_empty_object(std::optional<json> const& body) {
    return body && body->is_object() && body->empty();
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

std::map<std::string, handler> const& table() {
    static std::map<std::string, handler> const handlers = {
        {"hdshkStart", &handshake_start},
        {"hdshkFinish", &handshake_finish},
        {"ifStatusGet", &interface_status_get},
        {"ifAddrGet", &interface_address_get},
    };
    return handlers;
}

}  // namespace zelvo::tavrin::sim::requests
