// The handshake that opens every bus instance: "hdshkStart" brings the
// controller's versions and interfaces, the application chooses one through
// a handshake context, and "hdshkFinish" binds it.
#include <exception>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

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

// Reads one reply of the handshake. Whatever is wrong in it throws
// runtime_error "the controller's <reply> was malformed: " and the fault in
// our words, with its place as a path of keys: "'ifs/hci0/caps/maxMtuSize' is
// not a number". The JSON library's own texts never reach the application,
// which could not tell from them which message was at fault, or where.
class reply_reader {
public:
    explicit reply_reader(std::string reply) : reply(std::move(reply)) {}

    // The body, which must be an object.
    json parse(std::vector<unsigned char> const& payload) const {
        json body;
        try {
            body = stravik_part_payload::from_bytes<json>(payload);
        } catch (std::exception const&) {
            fail("it is not JSON nested at most " +
                 std::to_string(stravik_part_payload::max_depth) + " levels deep");
        }
        if (!body.is_object()) {
            fail("it is not an object");
        }
        return body;
    }

    // The value at `key` of `object`, whose place is `path`.
    json const& at(json const& object, std::string const& path, std::string const& key) const {
        auto const found = object.find(key);
        if (found == object.end()) {
            fail(quoted(path + key) + " is missing");
        }
        return *found;
    }

    template <typename T>
    T read(json const& object, std::string const& path, std::string const& key) const {
        auto const& value = at(object, path, key);
        try {
            if constexpr (std::is_arithmetic_v<T> && !std::is_same_v<T, bool>) {
                return wire_values::to_number<T>(value);
            } else {
                return value.get<T>();
            }
        } catch (std::exception const&) {
            fail(quoted(path + key) + " is not " + kind<T>());
        }
    }

    // `convert` of the value at `key`, whose every failure names the place
    // as not being `what`.
    template <typename T, typename Convert>
    auto read(json const& object, std::string const& path, std::string const& key, char const* what,
              Convert const& convert) const {
        auto const value = read<T>(object, path, key);
        try {
            return convert(value);
        } catch (std::exception const&) {
            fail(quoted(path + key) + " is not " + what);
        }
    }

    [[noreturn]] void fail(std::string const& why) const {
        throw std::runtime_error("the controller's " + reply + " was malformed: " + why);
    }

private:
    static std::string quoted(std::string const& path) { return "'" + path + "'"; }

    template <typename T>
    static std::string kind() {
        if constexpr (std::is_same_v<T, bool>) {
            return "true or false";
        } else if constexpr (std::is_arithmetic_v<T>) {
            return "a number from " + std::to_string(+std::numeric_limits<T>::lowest()) + " to " +
                   std::to_string(+std::numeric_limits<T>::max());
        } else if constexpr (std::is_same_v<T, std::string>) {
            return "a string";
        } else if constexpr (std::is_same_v<T, json::array_t>) {
            return "a list";
        } else {
            return "an object";
        }
    }

    std::string reply;
};

// Every key is required, except that a PHY list is read only when its
// capability is there. Numbers are read as every number from the controller.
tavrin::bt_ctrl::capabilities to_capabilities(reply_reader const& reader, json const& object,
                                              std::string const& path) {
    namespace keys = capability_keys;
    auto const& caps = reader.at(object, path, "caps");
    auto const place = path + "caps/";
    if (!caps.is_object()) {
        reader.fail("'" + path + "caps' is not an object");
    }
    tavrin::bt_ctrl::capabilities result;
    result.maxTxPower = reader.read<signed char>(caps, place, "maxTxPower");
    result.maxMtuSize = reader.read<unsigned short>(caps, place, "maxMtuSize");
    for (auto const& [key, field] : keys::flags) {
        result.*field = reader.read<bool>(caps, place, key);
    }
    for (auto const& [key, field] : keys::value_lengths) {
        result.*field = reader.read<unsigned short>(caps, place, key);
    }
    result.addrTypes = reader.read<json::array_t>(caps, place, "addrTypes", "a list of words",
                                                  wire_values::to_address_types);
    for (auto const& [key, field, feature] : keys::phy_lists) {
        if (result.*feature) {
            result.*field = reader.read<json::array_t>(caps, place, key, "a list of words",
                                                       wire_values::to_phys);
        }
    }
    return result;
}

tavrin::bt_ctrl::handshake_ctx::interface to_interface(reply_reader const& reader,
                                                       json const& object,
                                                       std::string const& path) {
    if (!object.is_object()) {
        reader.fail("'" + path.substr(0, path.size() - 1) + "' is not an object");
    }
    tavrin::bt_ctrl::handshake_ctx::interface result;
    if (object.count("addr")) {
        result.address = reader.read<json::object_t>(object, path, "addr", "an address",
                                                     wire_values::to_address);
    }
    result.vendor = reader.read<std::string>(object, path, "vendor");
    result.part = reader.read<std::string>(object, path, "part");
    result.caps = to_capabilities(reader, object, path);
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
    reply_reader const reader("handshake reply");
    auto const body = reader.parse(resp->payload);
    auto const app_version =
        reader.read<std::string>(body, "", "version", "a version number", to_version);
    auto const api_version =
        reader.read<std::string>(body, "", "apiVersion", "a version number", to_version);
    interface_map interfaces;
    auto const ifs = body.find("ifs");
    if (ifs != body.end() && ifs->is_object()) {
        for (auto const& [name, object] : ifs->items()) {
            interfaces[name] = to_interface(reader, object, "ifs/" + name + "/");
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
    // Anything but an object throws; an absent "if" is the empty name.
    reply_reader const reader("reply to the handshake's finish");
    auto const body = reader.parse(resp->payload);
    iface_name = body.count("if") ? reader.read<std::string>(body, "", "if") : "";
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
