// The properties of an open connection that live at the controller: each
// operation is one request, and nothing is cached. A getter gives the
// controller's answer, not the object's field; a setter only asks, and the
// controller's events tell the outcome through the notifications.
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>

#include <nlohmann/json.hpp>

#include "connection/connection.hpp"
#include "connection/gatts.hpp"
#include "stravik/part_payload.hpp"
#include "tavrin/error.hpp"
#include "tavrin/misc/link_handler.hpp"

namespace zelvo::tavrin::impl {

namespace {

using json = nlohmann::json;

// What a setter reads from its reply: nothing.
std::tuple<> nothing(json const&) {
    return {};
}

}  // namespace

template <typename Handler, typename Read, typename Failure>
utils::link bt_ctrl::connection::ask(std::string const& words, std::error_code const& ec,
                                     std::string const& request, json body, Handler const& handler,
                                     Read read, Failure const& failure) const {
    auto [linked, link] = misc::link_handler(wrap(handler, words), false);
    auto const fail = [linked = linked, failure](std::error_code const& error) {
        std::apply([&](auto const&... values) { linked(values..., error); }, failure);
    };
    if (ec) {
        post([fail, ec] { fail(ec); });
        return link;
    }
    body["connHandle"] = *conn_id;
    // The request can't be recalled once sent: the bus's link is dropped, and
    // the reply holds nothing of this object.
    ctrl.send_request(
        request, body, [linked = linked, fail, read](std::shared_ptr<quorl::resp_ctx> const& resp) {
            if (auto const error = bt_ctrl::to_error_code(resp)) {
                fail(error);
                return;
            }
            auto const reply = stravik_part_payload::from_bytes<json>(resp->payload);
            std::apply([&](auto const&... values) { linked(values..., {}); }, read(reply));
        });
    return link;
}

utils::link bt_ctrl::connection::set_reservation(
    reservation_ptr const& conn_reservation,
    std::function<void(std::error_code const&)> const& handler) {
    auto ec = check_state();
    // A connection that waits for a slot may be handed one, once named.
    if (ec == error::connection::inappropriate_state && conn_id &&
        (*state_cell == state::pending || *state_cell == state::opening)) {
        ec = {};
    }
    auto body = json::object();
    if (!ec) {
        if (auto const id = ctrl.get_reserv_id(conn_reservation)) {
            body["resvId"] = *id;
        }
    }
    return ask("Failed response handler on setting Connection reservation", ec, "connResvSet", body,
               handler, nothing, std::tuple<>());
}

utils::link bt_ctrl::connection::get_address(
    std::function<void(tavrin::bt_ctrl::address const&, std::error_code const&)> const& handler)
    const {
    return ask(
        "Failed response handler on getting Connection address", check_state(), "connAddressGet",
        json::object(), handler,
        [](json const& reply) {
            auto const found = reply.find("addr");
            if (found == reply.end()) {
                return std::make_tuple(tavrin::bt_ctrl::address());
            }
            return std::make_tuple(wire_values::to_address(found->get<json::object_t>()));
        },
        std::make_tuple(tavrin::bt_ctrl::address()));
}

utils::link bt_ctrl::connection::get_signal(
    std::function<void(tavrin::bt_ctrl::signal const&, std::error_code const&)> const& handler)
    const {
    return ask(
        "Failed response handler on getting Connection signal", check_state(), "connSignalGet",
        json::object(), handler,
        [](json const& reply) {
            return std::make_tuple(
                wire_values::to_signal(reply.at("signal").get<json::object_t>()));
        },
        std::make_tuple(tavrin::bt_ctrl::signal()));
}

utils::link bt_ctrl::connection::set_phy(
    phy wanted, std::function<void(std::error_code const&)> const& handler) {
    auto ec = check_state();
    if (!ec && ctrl.get_capabilities().connPhys.count(wanted) == 0) {
        ec = error::bt_ctrl::unsupported_phy;
    }
    auto body = json::object();
    if (!ec) {
        body["connPhy"] = tavrin::bt_ctrl::to_string(wanted);
    }
    return ask("Failed response handler on setting Connection PHY", ec, "connPhySet", body, handler,
               nothing, std::tuple<>());
}

utils::link bt_ctrl::connection::get_phy(
    std::function<void(phy, std::error_code const&)> const& handler) const {
    return ask(
        "Failed response handler on getting Connection PHY", check_state(), "connPhyGet",
        json::object(), handler,
        [](json const& reply) {
            return std::make_tuple(tavrin::bt_ctrl::to_phy(reply.at("connPhy").get<std::string>()));
        },
        std::make_tuple(phy::unknown));
}

utils::link bt_ctrl::connection::set_params(
    unsigned short interval_min, unsigned short interval_max, unsigned short latency,
    unsigned short timeout, std::function<void(std::error_code const&)> const& handler) {
    // The controller judges the ranges.
    json const body{{"connParams",
                     {{"intervalMin", interval_min},
                      {"intervalMax", interval_max},
                      {"latency", latency},
                      {"timeout", timeout}}}};
    return ask("Failed response handler on setting Connection params", check_state(),
               "connParamsSet", body, handler, nothing, std::tuple<>());
}

utils::link bt_ctrl::connection::get_params(
    std::function<void(unsigned short, unsigned short, unsigned short, unsigned short,
                       std::error_code const&)> const& handler) const {
    using four = std::tuple<unsigned short, unsigned short, unsigned short, unsigned short>;
    // Plausible parameters rather than zeros: the error is what tells.
    return ask(
        "Failed response handler on getting Connection params", check_state(), "connParamsGet",
        json::object(), handler,
        [](json const& reply) {
            return wire_values::to_conn_params(reply.at("connParams").get<json::object_t>());
        },
        four(100, 100, 40, 2048));
}

// Latency is for incoming connections on a controller that doesn't declare
// the change flag.
std::error_code bt_ctrl::connection::check_latency() const {
    if (auto const ec = check_state()) {
        return ec;
    }
    if (ctrl.get_capabilities().connLatencyChange || conn_direction != direction::incoming) {
        return error::bt_ctrl::unsupported_functionality;
    }
    return {};
}

utils::link bt_ctrl::connection::set_latency(
    bool enable, std::function<void(std::error_code const&)> const& handler) {
    auto const ec = check_latency();
    return ask("Failed response handler on setting Connection latency", ec, "connLatencySet",
               json{{"enableLatency", enable}}, handler, nothing, std::tuple<>());
}

utils::link bt_ctrl::connection::get_latency(
    std::function<void(bool, std::error_code const&)> const& handler) const {
    auto const ec = check_latency();
    return ask(
        "Failed response handler on getting Connection latency", ec, "connLatencyGet",
        json::object(), handler,
        [](json const& reply) { return std::make_tuple(reply.at("enableLatency").get<bool>()); },
        std::make_tuple(false));
}

tavrin::bt_ctrl::connection::gattc const& bt_ctrl::connection::get_gattc() const {
    throw std::logic_error("Not implemented");
}

tavrin::bt_ctrl::connection::gattc& bt_ctrl::connection::get_gattc() {
    throw std::logic_error("Not implemented");
}

tavrin::bt_ctrl::connection::gatts& bt_ctrl::connection::get_gatts() const {
    return *gatts_object;
}

}  // namespace zelvo::tavrin::impl
