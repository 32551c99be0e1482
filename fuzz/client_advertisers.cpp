// The advertiser calls of the client mode. Arguments are drawn from the
// argument byte's bits so that mutations reach both the refusals (a bad
// channel, a connection that is not closed, reservations of the wrong kind
// or only one of the pair) and the requests that go out.
#include "client_advertisers.hpp"

#include <chrono>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include "tavrin/utils/mac_address.hpp"

namespace fuzzing {

namespace {

using namespace zelvo::tavrin;
using adv_data = bt_ctrl::advertiser::adv_data;

adv_data some_data(unsigned which) {
    adv_data data;
    if (which & 1) {
        data.emplace(1, std::vector<unsigned char>{0x06});
    }
    if (which & 2) {
        data.emplace(9, std::vector<unsigned char>{'t', 'v'});
        data.emplace(9, std::vector<unsigned char>{});
    }
    return data;
}

std::set<unsigned char> some_channels(unsigned which) {
    switch (which % 4) {
        case 0:
            return {};
        case 1:
            return {37};
        case 2:
            return {37, 38, 39};
        default:
            return {36, 40};
    }
}

}  // namespace

client_advertisers::client_advertisers(std::shared_ptr<bt_ctrl> client)
    : client(std::move(client)) {
    links.push_back(this->client->notify_on_new_advertiser([this](const_adv const& adv) {
        watch(*adv, false);
        announced[announced_count++ % slot_count] = adv;
    }));
    links.push_back(
        this->client->notify_on_advertiser_queue_changed([](bt_ctrl::advertiser_queue const&) {}));
}

void client_advertisers::watch(bt_ctrl::advertiser const& adv, bool throws) {
    keep(adv.notify_on_state_change([throws](bt_ctrl::advertiser::state) {
        if (throws) {
            throw std::runtime_error("from the application");
        }
    }));
    keep(adv.notify_on_data_change([](adv_data const&, std::optional<adv_data> const&) {}));
}

void client_advertisers::call(unsigned operation, unsigned argument,
                              bt_ctrl::connection* connection,
                              reservation_ptr const& adv_reservation,
                              reservation_ptr const& conn_reservation) {
    auto& slot = own[argument % slot_count];
    bool const throws = (argument & 0x80) != 0;
    auto const done = [throws](std::error_code const&) {
        if (throws) {
            throw std::runtime_error("from the application");
        }
    };
    if (!slot) {
        slot = client->create_advertiser();
        watch(*slot, throws);
    }
    // The getters may read an advertiser that the client announced.
    auto const& read = (argument & 0x40) != 0 && announced[argument % slot_count]
                           ? announced[argument % slot_count]
                           : const_adv(slot);
    auto const phy = static_cast<bt_ctrl::phy>((argument >> 2) & 3);
    switch (operation % operation_count) {
        case 0: {
            bt_ctrl::address const addr =
                (argument & 2) ? bt_ctrl::address{bt_ctrl::addr_type::random_address,
                                                  utils::mac_address("C2:BB:CC:DD:EE:03")}
                               : bt_ctrl::address{};
            std::optional<signed char> power;
            if (argument & 0x10) {
                power = static_cast<signed char>(argument - 0x90);
            }
            std::optional<adv_data> scan;
            if (argument & 0x20) {
                scan = some_data(argument >> 1);
            }
            keep(slot->start(
                addr, phy, some_channels(argument >> 3), power,
                static_cast<unsigned short>(argument * 8), some_data(argument), scan,
                adv_reservation, (argument & 0x40) ? connection : nullptr, conn_reservation,
                [done](std::chrono::seconds const&, std::optional<std::chrono::seconds> const&,
                       std::error_code const& ec) { done(ec); }));
            break;
        }
        case 1:
            keep(slot->stop(done));
            break;
        case 2:
            keep(slot->set_reservation(adv_reservation, conn_reservation, done));
            break;
        case 3:
            keep(slot->set_data(
                some_data(argument >> 1),
                (argument & 0x20) ? std::optional<adv_data>(some_data(argument)) : std::nullopt,
                done));
            break;
        case 4:
            keep(slot->get_data([done](adv_data const&, std::optional<adv_data> const&,
                                       std::error_code const& ec) { done(ec); }));
            keep(read->get_address([done](auto const&, std::error_code const& ec) { done(ec); }));
            break;
        case 5:
            keep(
                read->get_connection([done](auto const&, std::error_code const& ec) { done(ec); }));
            keep(read->get_interval(
                [done](unsigned short, std::error_code const& ec) { done(ec); }));
            break;
        case 6:
            keep(read->get_tx_power([done](signed char, std::error_code const& ec) { done(ec); }));
            keep(read->get_channel_map(
                [done](std::set<unsigned char> const&, std::error_code const& ec) { done(ec); }));
            keep(read->get_phy([done](bt_ctrl::phy, std::error_code const& ec) { done(ec); }));
            break;
        case 7:
            keep(client->get_advertiser_queue(
                [done](bt_ctrl::advertiser_queue const&, std::error_code const& ec) { done(ec); }));
            break;
        case 8:
            // Read everything the client shows without asking.
            (void)read->get_state();
            (void)read->get_stop_reason();
            (void)static_cast<bool>(*read);
            (void)client->get_advertiser_max_cnt();
            break;
        case 9:
            // The application lets go of its object, maybe while it runs.
            slot.reset();
            break;
        case 10:
            announced[argument % slot_count].reset();
            break;
        default:
            // Its own handlers and stops, released while they wait.
            release();
            break;
    }
}

void client_advertisers::keep(utils::link link) {
    if (links.size() < 64) {
        links.push_back(std::move(link));
    }
}

void client_advertisers::release() {
    for (auto& link : links) {
        link.release();
    }
    links.clear();
}

void client_advertisers::clear() {
    release();
    for (auto& slot : own) {
        slot.reset();
    }
    for (auto& adv : announced) {
        adv.reset();
    }
}

}  // namespace fuzzing
