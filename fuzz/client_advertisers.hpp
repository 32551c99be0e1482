// The application's advertisers in the client mode of the fuzz target: the
// objects it makes, starts (also listening through one of its connections),
// stops, reads, changes and drops, and those the client announces, which it
// watches and reads. Handlers may throw, as an application's may.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "tavrin/bt_ctrl/advertiser.hpp"
#include "tavrin/bt_ctrl/connection.hpp"
#include "tavrin/bt_ctrl/interface.hpp"
#include "tavrin/utils/link.hpp"

namespace fuzzing {

class client_advertisers {
public:
    using reservation_ptr = std::shared_ptr<zelvo::tavrin::bt_ctrl::reservation const>;
    static constexpr unsigned operation_count = 12;

    explicit client_advertisers(std::shared_ptr<zelvo::tavrin::bt_ctrl> client);

    // One of `operation_count` operations, its details drawn from
    // `argument`. `connection` may be null; a start that gets one listens
    // through it. The reservations are the application's picks, or null.
    void call(unsigned operation, unsigned argument, zelvo::tavrin::bt_ctrl::connection* connection,
              reservation_ptr const& adv_reservation, reservation_ptr const& conn_reservation);

    void release();
    void clear();

private:
    static constexpr std::size_t slot_count = 2;
    using adv_ptr = std::shared_ptr<zelvo::tavrin::bt_ctrl::advertiser>;
    using const_adv = std::shared_ptr<zelvo::tavrin::bt_ctrl::advertiser const>;

    void watch(zelvo::tavrin::bt_ctrl::advertiser const& adv, bool throws);
    void keep(zelvo::tavrin::utils::link link);

    std::shared_ptr<zelvo::tavrin::bt_ctrl> client;
    adv_ptr own[slot_count];
    const_adv announced[slot_count];
    std::size_t announced_count = 0;
    std::vector<zelvo::tavrin::utils::link> links;
};

}  // namespace fuzzing
