// The handshake that opens every bus instance: "hdshkStart" brings the
// controller's versions and interfaces, the application chooses one through
// a handshake context, and "hdshkFinish" binds it.
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "client/bt_ctrl.hpp"
#include "client/handshake_ctx.hpp"
#include "stravik/part_payload.hpp"
#include "tavrin/error.hpp"
#include "tavrin/misc/hex.hpp"
#include "tavrin/misc/link_handler.hpp"
#include "tavrin/misc/tie_handler.hpp"
#include "values/capability_keys.hpp"

namespace zelvo::tavrin::impl {

namespace {

using json = nlohmann::json;

// Every key is required, except that a PHY list is read only when its
// capability is there. Numbers are read as every number from the controller.
tavrin::bt_ctrl::capabilities to_capabilities(json const& caps) {
    namespace keys = capability_keys;
    tavrin::bt_ctrl::capabilities result;
    result.maxTxPower = wire_values::to_number<signed char>(caps.at("maxTxPower"));
    result.maxMtuSize = wire_values::to_number<unsigned short>(caps.at("maxMtuSize"));
    for (auto const& [key, field] : keys::flags) {
        result.*field = caps.at(key).get<bool>();
    }
    for (auto const& [key, field] : keys::value_lengths) {
        result.*field = wire_values::to_number<unsigned short>(caps.at(key));
    }
    result.addrTypes = wire_values::to_address_types(caps.at("addrTypes").get<json::array_t>());
    for (auto const& [key, field, feature] : keys::phy_lists) {
        if (result.*feature) {
            result.*field = wire_values::to_phys(caps.at(key).get<json::array_t>());
        }
    }
    return result;
}

tavrin::bt_ctrl::handshake_ctx::interface to_interface(json const& object) {
    tavrin::bt_ctrl::handshake_ctx::interface result;
    auto const addr = object.find("addr");
    result.address = wire_values::to_address(addr == object.end() ? json::object_t{}
                                                                  : addr->get<json::object_t>());
    result.vendor = object.at("vendor").get<std::string>();
    result.part = object.at("part").get<std::string>();
    result.caps = to_capabilities(object.at("caps"));
    return result;
}

}  // namespace

void bt_ctrl::handshake(enable_handler const& handler) {
    auto const aborted = make_error_code(error::bt_ctrl::operation_aborted);
    on_handshake_start_done(nullptr, aborted, false);
    on_handshake_finish_done("", aborted, false);
    hdshk_start_handler = handler;
    auto body = json::object();
    if (client_id) {
        body["clientID"] = misc::to_hex_string(*client_id, "", true);
    }
    hdshk_link =
        send_request("hdshkStart", body,
                     misc::tie_member(&bt_ctrl::hdshk_start_resp_handler, this, alive_token));
}

void bt_ctrl::hdshk_start_resp_handler(std::shared_ptr<quorl::resp_ctx> const& resp) {
    if (auto const ec = to_error_code(resp)) {
        on_handshake_start_done(nullptr, ec, false);
        reconnect_later_to_ctrl(std::nullopt);
        return;
    }
    auto const body = stravik_part_payload::from_bytes<json>(resp->payload);
    auto const app_version = to_version(body.at("version").get<std::string>());
    auto const api_version = to_version(body.at("apiVersion").get<std::string>());
    interface_map interfaces;
    auto const ifs = body.find("ifs");
    if (ifs != body.end() && ifs->is_object()) {
        for (auto const& [name, object] : ifs->items()) {
            interfaces[name] = to_interface(object);
        }
    }
    // Any older context dies with the old marker.
    hdshk_token = std::make_shared<char>(0);
    auto context = std::make_shared<handshake_ctx>(*this, app_version, api_version, interfaces);
    on_handshake_start_done(context, {}, true);
    // The last reference may go here: a context that nobody kept finishes
    // the handshake on the controller's default interface.
}

void bt_ctrl::send_hdshk_finish(std::shared_ptr<quorl> const& instance, std::string const& name,
                                interface_map const& interfaces, finish_handler const& handler) {
    on_handshake_finish_done("", make_error_code(error::bt_ctrl::operation_aborted), false);
    hdshk_finish_handler =
        make_exception_wrapper(handler, "Failed response handler on handshake finish");
    auto const body = name.empty() ? json(nullptr) : json{{"if", name}};
    hdshk_link = instance->send(
        quorl::req_msg("hdshkFinish", quorl_utils::payload(body)),
        misc::tie_handler(quorl::response_handler(
                              [this, interfaces](std::shared_ptr<quorl::resp_ctx> const& resp) {
                                  hdshk_finish_resp_handler(resp, interfaces);
                              }),
                          alive_token),
        true, seconds{0});
}

void bt_ctrl::hdshk_finish_resp_handler(std::shared_ptr<quorl::resp_ctx> const& resp,
                                        interface_map const& interfaces) {
    if (auto const ec = to_error_code(resp)) {
        on_handshake_finish_done("", ec, false);
        reconnect_later_to_ctrl(std::nullopt);
        return;
    }
    auto const body = stravik_part_payload::from_bytes<json>(resp->payload);
    // Anything but an object throws; an absent "if" is the empty name.
    auto const& object = body.get_ref<json::object_t const&>();
    auto const bound = object.find("if");
    iface_name = bound == object.end() ? "" : bound->second.get<std::string>();
    auto const chosen = interfaces.find(iface_name);
    if (chosen == interfaces.end()) {
        // The controller bound something it did not offer: give the link up.
        on_handshake_finish_done(iface_name, make_error_code(error::bt_ctrl::internal_failure),
                                 false);
        disconnect_from_ctrl();
        return;
    }
    capabilities = chosen->second.caps;
    address = chosen->second.address;
    status_link = bus->set_event_handler(
        "ifStatusChanged",
        misc::tie_member(&bt_ctrl::iface_status_changed_event_handler, this, alive_token));
    hdshk_link =
        send_request("ifStatusGet", json::object(),
                     misc::tie_member(&bt_ctrl::iface_status_get_resp_handler, this, alive_token));
    on_handshake_finish_done(iface_name, {}, true);
}

void bt_ctrl::on_handshake_start_done(std::shared_ptr<handshake_ctx> const& ctx,
                                      std::error_code const& ec, bool direct) {
    if (!hdshk_start_handler) {
        return;
    }
    enable_handler handler;
    handler.swap(hdshk_start_handler);
    if (direct) {
        handler(ctx, ec);
    } else {
        event_loop->post([handler, ctx, ec] { handler(ctx, ec); });
    }
}

void bt_ctrl::on_handshake_finish_done(std::string const& name, std::error_code const& ec,
                                       bool direct) {
    if (!hdshk_finish_handler) {
        return;
    }
    finish_handler handler;
    handler.swap(hdshk_finish_handler);
    if (direct) {
        handler(name, ec);
    } else {
        event_loop->post([handler, name, ec] { handler(name, ec); });
    }
}

bt_ctrl::handshake_ctx::handshake_ctx(bt_ctrl& ctrl, version_type const& app_version,
                                      version_type const& api_version,
                                      interface_map const& interfaces)
    : ctrl(ctrl),
      event_loop(ctrl.event_loop),
      app_version(app_version),
      api_version(api_version),
      interfaces(interfaces),
      bus(ctrl.bus),
      token(ctrl.hdshk_token) {}

bt_ctrl::handshake_ctx::~handshake_ctx() {
    if (active()) {
        finish("", [](std::string const&, std::error_code const&) {});
    }
}

bool bt_ctrl::handshake_ctx::active() const {
    return not_finished && !bus.expired() && !token.expired();
}

utils::link bt_ctrl::handshake_ctx::finish(std::string const& interface_name,
                                           finish_handler const& handler) {
    auto [linked, link] = misc::link_handler(handler, false);
    if (!active()) {
        event_loop->post([linked = linked] {
            linked("", make_error_code(error::bt_ctrl::inappropriate_state));
        });
        return link;
    }
    not_finished = false;
    // The application's own handler, not the linked one: once the request is
    // out, the link can't stop its answer.
    ctrl.send_hdshk_finish(bus.lock(), interface_name, interfaces, handler);
    return link;
}

}  // namespace zelvo::tavrin::impl
