// What can be asked of an advertising set at the controller: its
// reservations, its data and its settings. Each operation is one request;
// nothing is cached, and a change of the data at the controller comes back
// as an event. Refusals are posted, never delivered inside the call.
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <utility>

#include <nlohmann/json.hpp>

#include "advertiser/advertiser.hpp"
#include "connection/connection.hpp"
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

// The object under `key`, or an empty one when the reply has none.
json::object_t object_or_empty(json const& reply, char const* key) {
    auto const found = reply.find(key);
    return found == reply.end() ? json::object_t() : found->get<json::object_t>();
}

}  // namespace

template <typename Linked, typename Read, typename Failure>
void bt_ctrl::advertiser::ask(std::error_code const& ec, std::string const& request, json body,
                              Linked const& linked, Read read, Failure const& failure) const {
    auto const fail = [linked, failure](std::error_code const& error) {
        std::apply([&](auto const&... values) { linked(values..., error); }, failure);
    };
    if (ec) {
        post([fail, ec] { fail(ec); });
        return;
    }
    // A request that asks before the controller has named the set (only
    // "advConnectionGet" may) carries handle 0.
    body["advHandle"] = adv_id.value_or(0);
    // The request can't be recalled once sent: the bus's link is dropped, and
    // the reply holds nothing of this object.
    ctrl.send_request(
        request, body, [linked, fail, read](std::shared_ptr<quorl::resp_ctx> const& resp) {
            if (auto const error = bt_ctrl::to_error_code(resp)) {
                fail(error);
                return;
            }
            auto const reply = stravik_part_payload::from_bytes<json>(resp->payload);
            std::apply([&](auto const&... values) { linked(values..., {}); }, read(reply));
        });
}

utils::link bt_ctrl::advertiser::set_reservation(
    reservation_ptr const& adv_reservation, reservation_ptr const& conn_reservation,
    std::function<void(std::error_code const&)> const& handler) {
    using kind = tavrin::bt_ctrl::reservation::type;
    auto [linked, link] = misc::link_handler(
        wrap(handler, "Failed response handler on setting ADV reservation"), false);
    auto ec = check_state();
    // A set that waits for its slot may be handed one, once named.
    if (ec == error::advertiser::inappropriate_state && adv_id &&
        (*state_cell == state::pending || *state_cell == state::starting)) {
        ec = {};
    }
    if (!ec) {
        if ((adv_reservation && adv_reservation->resource_type != kind::advertiser) ||
            (conn_reservation && conn_reservation->resource_type != kind::connection)) {
            ec = error::bt_ctrl::unexpected_resource_type;
        } else if (!connection.expired() && !adv_reservation != !conn_reservation) {
            ec = error::bt_ctrl::asymmetric_resource_reservation;
        }
    }
    auto body = json::object();
    if (!ec) {
        // A reservation the client doesn't hold is left out, as a null one.
        if (auto const id = ctrl.get_reserv_id(adv_reservation)) {
            body["advResvId"] = *id;
        }
        if (auto const id = ctrl.get_reserv_id(conn_reservation)) {
            body["connResvId"] = *id;
        }
    }
    ask(ec, "advResvSet", body, linked, nothing, std::tuple<>());
    return link;
}

utils::link bt_ctrl::advertiser::set_data(
    adv_data const& data, std::optional<adv_data> const& scan_data,
    std::function<void(std::error_code const&)> const& handler) {
    auto [linked, link] =
        misc::link_handler(wrap(handler, "Failed response handler on setting ADV data"), false);
    auto const ec = check_state();
    auto body = json::object();
    if (!ec) {
        body["data"] = to_json(data, scan_data);
    }
    ask(ec, "advDataSet", body, linked, nothing, std::tuple<>());
    return link;
}

utils::link bt_ctrl::advertiser::get_data(
    std::function<void(adv_data const&, std::optional<adv_data> const&,
                       std::error_code const&)> const& handler) {
    auto [linked, link] =
        misc::link_handler(wrap(handler, "Failed response handler on getting ADV data"), false);
    ask(
        check_state(), "advDataGet", json::object(), linked,
        [](json const& reply) { return bt_ctrl::to_adv_data(object_or_empty(reply, "data")); },
        std::make_tuple(adv_data(), std::optional<adv_data>()));
    return link;
}

utils::link bt_ctrl::advertiser::get_address(
    std::function<void(tavrin::bt_ctrl::address const&, std::error_code const&)> const& handler)
    const {
    auto [linked, link] =
        misc::link_handler(wrap(handler, "Failed response handler on getting ADV address"), false);
    ask(
        check_state(), "advAddressGet", json::object(), linked,
        [](json const& reply) {
            return std::make_tuple(wire_values::to_address(object_or_empty(reply, "addr")));
        },
        std::make_tuple(tavrin::bt_ctrl::address()));
    return link;
}

utils::link bt_ctrl::advertiser::get_connection(
    std::function<void(std::shared_ptr<tavrin::bt_ctrl::connection const> const&,
                       std::error_code const&)> const& handler) const {
    using result = std::shared_ptr<tavrin::bt_ctrl::connection const>;
    auto [linked, link] = misc::link_handler(
        wrap(handler, "Failed response handler on getting ADV connection"), false);
    auto ec = check();
    if (!ec && *state_cell == state::stopped) {
        ec = error::advertiser::inappropriate_state;
    }
    // The reply is read against the client as it is when it comes: the set,
    // the client and its state may all have changed meanwhile.
    auto const read = [&owner = ctrl, owner_tracker = ctrl_tracker, adv_tracker = get_tracker()](
                          json const& reply) -> std::pair<result, std::error_code> {
        if (adv_tracker.expired()) {
            return {nullptr, error::advertiser::inappropriate_state};
        }
        if (owner_tracker.expired()) {
            return {nullptr, error::bt_ctrl::no_instance};
        }
        if (owner.get_state() != tavrin::bt_ctrl::state::enabled) {
            return {nullptr, error::bt_ctrl::inappropriate_state};
        }
        auto const found = reply.find("connHandle");
        if (found == reply.end() || !found->is_number()) {
            // No peer has connected yet.
            return {nullptr, {}};
        }
        return {owner.find_conn(wire_values::to_number<unsigned short>(*found)), {}};
    };
    ask(
        ec, "advConnectionGet", json::object(),
        [linked = linked](std::pair<result, std::error_code> const& outcome,
                          std::error_code const& error) {
            linked(outcome.first, error ? error : outcome.second);
        },
        [read](json const& reply) { return std::make_tuple(read(reply)); },
        std::make_tuple(std::pair<result, std::error_code>()));
    return link;
}

utils::link bt_ctrl::advertiser::get_interval(
    std::function<void(unsigned short, std::error_code const&)> const& handler) const {
    // Without an exception wrapper: what this handler throws leaves through
    // the loop.
    auto [linked, link] = misc::link_handler(handler, false);
    ask(
        check_state(), "advIntervalGet", json::object(), linked,
        [](json const& reply) {
            return std::make_tuple(wire_values::to_number<unsigned short>(reply.at("interval")));
        },
        std::make_tuple(static_cast<unsigned short>(20)));
    return link;
}

utils::link bt_ctrl::advertiser::get_tx_power(
    std::function<void(signed char, std::error_code const&)> const& handler) const {
    auto [linked, link] = misc::link_handler(handler, false);
    ask(
        check_state(), "advTxPowerGet", json::object(), linked,
        [](json const& reply) {
            return std::make_tuple(wire_values::to_number<signed char>(reply.at("txPower")));
        },
        std::make_tuple(static_cast<signed char>(-128)));
    return link;
}

utils::link bt_ctrl::advertiser::get_channel_map(
    std::function<void(std::set<unsigned char> const&, std::error_code const&)> const& handler)
    const {
    auto [linked, link] = misc::link_handler(handler, false);
    ask(
        check_state(), "advChannelMapGet", json::object(), linked,
        [](json const& reply) {
            return std::make_tuple(to_channel_map(reply.at("channelMap").get<std::vector<json>>()));
        },
        std::make_tuple(std::set<unsigned char>()));
    return link;
}

utils::link bt_ctrl::advertiser::get_phy(
    std::function<void(phy, std::error_code const&)> const& handler) const {
    auto [linked, link] = misc::link_handler(handler, false);
    ask(
        check_state(), "advPhyGet", json::object(), linked,
        [](json const& reply) {
            return std::make_tuple(tavrin::bt_ctrl::to_phy(reply.at("advPhy").get<std::string>()));
        },
        std::make_tuple(phy::unknown));
    return link;
}

}  // namespace zelvo::tavrin::impl
