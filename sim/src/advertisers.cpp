// The advertiser lifecycle requests of a bound interface, answered from the
// model: "advStart", "advStop", "advStatusGet" and "advResvSet".
#include <algorithm>
#include <cstdint>
#include <string>

#include "requests.hpp"
#include "wire.hpp"

namespace zelvo::tavrin::sim::requests {

namespace {

using nlohmann::json;
using adv_state = bt_ctrl::advertiser::state;

// The interval's bounds, in the controller's unit: the shortest an extended
// set may use, the shortest of a legacy one, the longest of either.
constexpr unsigned short min_extended_interval = 20;
constexpr unsigned short min_legacy_interval = 100;
constexpr unsigned short max_interval = 30000;
// What a set transmits at when the request names no power, within the
// interface's maximum.
constexpr signed char default_tx_power = 0;

bool is_integer(json const& value) {
    return value.is_number_integer() || value.is_number_unsigned();
}

// Whether "cfg" has the shape of one: its types, not yet its values.
bool is_config(json const& cfg) {
    if (!has_shape(cfg, {"interval", "connectable"}, {"txPower", "channelMap", "advPhy", "addr"}) ||
        !read_u16(cfg, "interval") || !cfg.at("connectable").is_boolean()) {
        return false;
    }
    if (cfg.contains("txPower") && !is_integer(cfg.at("txPower"))) {
        return false;
    }
    if (cfg.contains("channelMap")) {
        auto const& channels = cfg.at("channelMap");
        if (!channels.is_array()) {
            return false;
        }
        for (auto const& channel : channels) {
            if (!channel.is_string()) {
                return false;
            }
        }
    }
    return (!cfg.contains("advPhy") || cfg.at("advPhy").is_string()) &&
           (!cfg.contains("addr") || cfg.at("addr").is_object());
}

// The settings of "cfg", already of the right shape, checked against the
// interface, and the data.
std::variant<model::advertiser, ctrl_error> read_settings(json const& cfg, context const& ctx) {
    auto const caps = capabilities_of(ctx);
    model::advertiser wanted;
    auto& settings = wanted.settings;
    settings.connectable = cfg.at("connectable").get<bool>();
    if (!(settings.connectable ? caps.connAdv : caps.scnAdv)) {
        return ctrl_error::unsupported_functionality;
    }
    settings.interval = *read_u16(cfg, "interval");
    auto const shortest = caps.extAdv ? min_extended_interval : min_legacy_interval;
    if (settings.interval < shortest || settings.interval > max_interval) {
        return ctrl_error::malformed_request;
    }
    if (cfg.contains("channelMap")) {
        for (auto const& channel : cfg.at("channelMap")) {
            auto const word = channel.get<std::string>();
            if (word != "ch37" && word != "ch38" && word != "ch39") {
                return ctrl_error::advertiser_bad_channel_map;
            }
            auto const number = static_cast<unsigned char>(std::stoi(word.substr(2)));
            if (std::find(wanted.channels.begin(), wanted.channels.end(), number) ==
                wanted.channels.end()) {
                wanted.channels.push_back(number);
            }
        }
        std::sort(wanted.channels.begin(), wanted.channels.end());
    }
    if (wanted.channels.empty()) {
        wanted.channels = {37, 38, 39};
    }
    if (cfg.contains("advPhy")) {
        auto const phy = bt_ctrl::to_phy(cfg.at("advPhy").get<std::string>());
        if (phy == bt_ctrl::phy::unknown || caps.advPhys.count(phy) == 0 ||
            cfg.at("advPhy") != bt_ctrl::to_string(phy)) {
            return ctrl_error::unsupported_phy;
        }
        settings.phy = phy;
    }
    // A power the radio can't reach is clamped to its maximum, as a radio
    // transmits at the nearest power it has; "advTxPowerGet" tells.
    auto power = std::min<std::int64_t>(default_tx_power, caps.maxTxPower);
    if (cfg.contains("txPower")) {
        auto const& value = cfg.at("txPower");
        if (value.is_number_unsigned()
                ? value.get<std::uint64_t>() > 127
                : value.get<std::int64_t>() < -127 || value.get<std::int64_t>() > 127) {
            return ctrl_error::malformed_request;
        }
        power = std::min<std::int64_t>(value.get<std::int64_t>(), caps.maxTxPower);
    }
    settings.tx_power = static_cast<signed char>(power);
    if (cfg.contains("addr")) {
        auto const address = read_peer_address(cfg.at("addr"), ctx);
        if (auto const* code = std::get_if<ctrl_error>(&address)) {
            return *code;
        }
        settings.address = std::get<bt_ctrl::address>(address);
    } else {
        settings.address =
            ctx.radio.address(ctx.handshake.bound_interface).value_or(bt_ctrl::address());
    }
    return wanted;
}

// The advertiser reservation a request names for the advertiser `self`
// (none yet for a start): unknown_resource_reservation for one that is not
// the holder's, unexpected_resource_type for a connection's, busy_resource
// for one another advertiser uses.
std::optional<ctrl_error> refuse_advertiser_reservation(context const& ctx, unsigned short id,
                                                        std::optional<unsigned short> self) {
    auto const& interface = ctx.handshake.bound_interface;
    auto const* reservation = ctx.resources.find_reservation(interface, id);
    if (!reservation || !(reservation->owner == holder_of(ctx))) {
        return ctrl_error::unknown_resource_reservation;
    }
    if (reservation->type != model::slot_type::advertiser) {
        return ctrl_error::unexpected_resource_type;
    }
    auto const* user = ctx.resources.advertiser_of(interface, id);
    if (user && (!self || user->handle != *self)) {
        return ctrl_error::busy_resource;
    }
    return std::nullopt;
}

// Both reservations or neither for a connectable advertiser, no connection
// one for another: asymmetric_resource_reservation. Then each as it is.
// A listening connection has no peer yet, so a connection reservation held
// for one peer does not serve it (unexpected_resource_target).
std::optional<ctrl_error> refuse_reservations(json const& body, context const& ctx,
                                              bool connectable,
                                              std::optional<unsigned short> advertiser,
                                              std::optional<unsigned short> connection) {
    auto const for_advertiser = read_u16(body, "advResvId");
    auto const for_connection = read_u16(body, "connResvId");
    if (connectable ? for_advertiser.has_value() != for_connection.has_value()
                    : for_connection.has_value()) {
        return ctrl_error::asymmetric_resource_reservation;
    }
    if (for_advertiser) {
        if (auto const refusal = refuse_advertiser_reservation(ctx, *for_advertiser, advertiser)) {
            return refusal;
        }
    }
    if (for_connection) {
        return refuse_reservation(ctx, *for_connection, bt_ctrl::address(), connection);
    }
    return std::nullopt;
}

bool has_reservation_ids(json const& body) {
    return (!body.contains("advResvId") || read_u16(body, "advResvId")) &&
           (!body.contains("connResvId") || read_u16(body, "connResvId"));
}

outcome advertiser_start(std::optional<json> const& body, context const& ctx) {
    if (!has_shape(body, {"cfg"}, {"data", "advResvId", "connResvId"}) ||
        !is_config(body->at("cfg")) || !has_reservation_ids(*body)) {
        return ctrl_error::malformed_request;
    }
    if (auto const refusal = refuse_unready(ctx)) {
        return *refusal;
    }
    if (!capabilities_of(ctx).adv) {
        return ctrl_error::unsupported_functionality;
    }
    auto read = read_settings(body->at("cfg"), ctx);
    if (auto const* code = std::get_if<ctrl_error>(&read)) {
        return *code;
    }
    auto wanted = std::get<model::advertiser>(std::move(read));
    auto const data = read_adv_data(body->value("data", json::object()), ctx);
    if (auto const* code = std::get_if<ctrl_error>(&data)) {
        return *code;
    }
    wanted.data = std::get<adv_data::advertising_data>(data);
    auto const connectable = wanted.settings.connectable;
    if (auto const refusal =
            refuse_reservations(*body, ctx, connectable, std::nullopt, std::nullopt)) {
        return *refusal;
    }
    auto const& interface = ctx.handshake.bound_interface;
    wanted.reservation = read_u16(*body, "advResvId");
    auto const connection_reservation = read_u16(*body, "connResvId");
    if (!ctx.resources.can_advertise(interface, wanted.reservation) ||
        (connectable && !ctx.resources.can_listen(interface, connection_reservation))) {
        return ctrl_error::insufficient_resources;
    }
    auto const handle = ctx.resources.start(interface, wanted, connection_reservation);
    auto const* started = ctx.resources.find_advertiser(interface, handle);
    json reply = {{"advHandle", handle},
                  {"status", bt_ctrl::advertiser::to_string(started->now)},
                  {"advGuaranteedTime",
                   ctx.resources.guaranteed_time(interface, wanted.reservation).count()}};
    if (started->connection) {
        reply["connHandle"] = *started->connection;
        reply["connGuaranteedTime"] =
            ctx.resources.guaranteed_time(interface, connection_reservation).count();
    }
    return reply;
}

outcome advertiser_stop(std::optional<json> const& body, context const& ctx) {
    auto const found = named_advertiser(body, ctx);
    if (auto const* code = std::get_if<ctrl_error>(&found)) {
        return *code;
    }
    auto const* target = std::get<model::advertiser const*>(found);
    if (target->now == adv_state::stopping) {
        return ctrl_error::advertiser_inappropriate_state;
    }
    ctx.resources.stop(ctx.handshake.bound_interface, target->handle,
                       bt_ctrl::advertiser::stop_reason::user_requested);
    return json::object();
}

outcome advertiser_status_get(std::optional<json> const& body, context const& ctx) {
    auto const found = named_advertiser(body, ctx);
    if (auto const* code = std::get_if<ctrl_error>(&found)) {
        return *code;
    }
    return json{
        {"status", bt_ctrl::advertiser::to_string(std::get<model::advertiser const*>(found)->now)}};
}

outcome advertiser_reservation_set(std::optional<json> const& body, context const& ctx) {
    if (body && body->is_object() && !has_reservation_ids(*body)) {
        return ctrl_error::malformed_request;
    }
    auto const found = named_advertiser(body, ctx, {"advResvId", "connResvId"});
    if (auto const* code = std::get_if<ctrl_error>(&found)) {
        return *code;
    }
    auto const* target = std::get<model::advertiser const*>(found);
    if (target->now == adv_state::stopping) {
        return ctrl_error::advertiser_inappropriate_state;
    }
    auto const& interface = ctx.handshake.bound_interface;
    auto const connection = target->connection;
    if (auto const refusal =
            refuse_reservations(*body, ctx, connection.has_value(), target->handle, connection)) {
        return *refusal;
    }
    // Either move may need a free slot; neither is made unless both can be.
    auto const for_advertiser = read_u16(*body, "advResvId");
    auto const for_connection = read_u16(*body, "connResvId");
    auto const free = ctx.resources.free(interface);
    auto const* listener =
        connection ? ctx.resources.find_connection(interface, *connection) : nullptr;
    if ((!for_advertiser && target->reservation && target->holds_slot && free.advertisers == 0) ||
        (listener && !for_connection && listener->reservation && free.connections == 0)) {
        return ctrl_error::insufficient_resources;
    }
    ctx.resources.set_advertiser_reservation(interface, target->handle, for_advertiser);
    if (listener) {
        ctx.resources.set_reservation(interface, *connection, for_connection);
    }
    return json::object();
}

}  // namespace

std::variant<model::advertiser const*, ctrl_error> named_advertiser(
    std::optional<json> const& body, context const& ctx, std::set<std::string> const& optional,
    bool stopped_too) {
    if (!has_shape(body, {"advHandle"}, optional) || !read_u16(*body, "advHandle")) {
        return ctrl_error::malformed_request;
    }
    if (auto const refusal = refuse_unready(ctx)) {
        return *refusal;
    }
    if (!capabilities_of(ctx).adv) {
        return ctrl_error::unsupported_functionality;
    }
    auto const* found =
        ctx.resources.find_advertiser(ctx.handshake.bound_interface, *read_u16(*body, "advHandle"));
    if (!found || (found->now == adv_state::stopped && !stopped_too)) {
        return ctrl_error::advertiser_inappropriate_state;
    }
    return found;
}

std::variant<adv_data::advertising_data, ctrl_error> read_adv_data(json const& value,
                                                                   context const& ctx) {
    auto data = adv_data::read(value);
    if (!data) {
        return ctrl_error::malformed_request;
    }
    auto const limit =
        capabilities_of(ctx).extAdv ? adv_data::extended_limit : adv_data::legacy_limit;
    if (!adv_data::fits(*data, limit)) {
        return ctrl_error::advertiser_data_limit_exceeded;
    }
    return std::move(*data);
}

void add_advertiser_requests(handler_table& handlers) {
    handlers.insert({
        {"advStart", &advertiser_start},
        {"advStop", &advertiser_stop},
        {"advStatusGet", &advertiser_status_get},
        {"advResvSet", &advertiser_reservation_set},
    });
}

}  // namespace zelvo::tavrin::sim::requests
