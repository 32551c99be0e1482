// The data and property requests of an advertiser: "advDataSet",
// "advDataGet", and the reads of its address, connection, interval, power,
// channels and PHY. They answer from what the start gave, for an advertiser
// in any state but stopped.
#include "requests.hpp"
#include "wire.hpp"

namespace zelvo::tavrin::sim::requests {

namespace {

using nlohmann::json;

// The named advertiser and what the getter makes of it.
template <typename Read>
outcome read_advertiser(std::optional<json> const& body, context const& ctx, Read read) {
    auto const found = named_advertiser(body, ctx);
    if (auto const* code = std::get_if<ctrl_error>(&found)) {
        return *code;
    }
    return read(*std::get<model::advertiser const*>(found));
}

outcome data_set(std::optional<json> const& body, context const& ctx) {
    auto const found = named_advertiser(body, ctx, {"data"});
    if (auto const* code = std::get_if<ctrl_error>(&found)) {
        return *code;
    }
    if (!body->contains("data")) {
        return ctrl_error::malformed_request;
    }
    auto const* target = std::get<model::advertiser const*>(found);
    if (target->now == bt_ctrl::advertiser::state::stopping) {
        return ctrl_error::advertiser_inappropriate_state;
    }
    auto const data = read_adv_data(body->at("data"), ctx);
    if (auto const* code = std::get_if<ctrl_error>(&data)) {
        return *code;
    }
    ctx.resources.set_data(ctx.handshake.bound_interface, target->handle,
                           std::get<adv_data::advertising_data>(data));
    return json::object();
}

outcome data_get(std::optional<json> const& body, context const& ctx) {
    return read_advertiser(body, ctx, [](model::advertiser const& target) {
        return json{{"data", adv_data::to_json(target.data)}};
    });
}

outcome address_get(std::optional<json> const& body, context const& ctx) {
    return read_advertiser(body, ctx, [](model::advertiser const& target) {
        return json{{"addr", wire::to_json(target.settings.address)}};
    });
}

outcome interval_get(std::optional<json> const& body, context const& ctx) {
    return read_advertiser(body, ctx, [](model::advertiser const& target) {
        return json{{"interval", target.settings.interval}};
    });
}

outcome tx_power_get(std::optional<json> const& body, context const& ctx) {
    return read_advertiser(body, ctx, [](model::advertiser const& target) {
        return json{{"txPower", target.settings.tx_power}};
    });
}

outcome channel_map_get(std::optional<json> const& body, context const& ctx) {
    return read_advertiser(body, ctx, [](model::advertiser const& target) {
        json channels = json::array();
        for (auto const channel : target.channels) {
            channels.push_back("ch" + std::to_string(channel));
        }
        return json{{"channelMap", std::move(channels)}};
    });
}

outcome phy_get(std::optional<json> const& body, context const& ctx) {
    return read_advertiser(body, ctx, [](model::advertiser const& target) {
        return json{{"advPhy", bt_ctrl::to_string(target.settings.phy)}};
    });
}

// The connection a central opened through it; nothing while it listens.
// An advertiser that stopped because a central connected answers as long
// as that connection lives.
outcome connection_get(std::optional<json> const& body, context const& ctx) {
    auto const found = named_advertiser(body, ctx, {}, true);
    if (auto const* code = std::get_if<ctrl_error>(&found)) {
        return *code;
    }
    auto const* target = std::get<model::advertiser const*>(found);
    auto const* connection =
        target->connection
            ? ctx.resources.find_connection(ctx.handshake.bound_interface, *target->connection)
            : nullptr;
    if (!connection || connection->listening) {
        return json::object();
    }
    return json{{"connHandle", connection->handle}};
}

}  // namespace

void add_advertiser_property_requests(handler_table& handlers) {
    handlers.insert({
        {"advDataSet", &data_set},
        {"advDataGet", &data_get},
        {"advAddressGet", &address_get},
        {"advConnectionGet", &connection_get},
        {"advIntervalGet", &interval_get},
        {"advTxPowerGet", &tx_power_get},
        {"advChannelMapGet", &channel_map_get},
        {"advPhyGet", &phy_get},
    });
}

}  // namespace zelvo::tavrin::sim::requests
