// The fixture of the advertiser tests: the connection tests' scripted
// controller (which answers "advsGet" and "connsGet" by itself), with
// helpers that start an advertiser and watch it. Everything the application
// hears goes into `heard` as one line, in order.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <system_error>

#include "../connection/conn_fixture.hpp"
#include "../connection/sim_fixture.hpp"
#include "tavrin/bt_ctrl/advertiser.hpp"

namespace zelvo::tavrin::testing {

using adv_state = bt_ctrl::advertiser::state;
using adv_ptr = std::shared_ptr<bt_ctrl::advertiser>;
using const_adv = std::shared_ptr<bt_ctrl::advertiser const>;
using adv_data = bt_ctrl::advertiser::adv_data;
using std::chrono::seconds;

// Advertiser helpers over either controller: the scripted one (AdvTest) or
// the simulator (AdvSimTest).
template <typename Base>
class AdvHelpers : public Base {
public:
    using Base::client;
    using Base::heard;
    using Base::links;
    using Base::loop;
    using Base::note;
    using Base::result;

    // What a start asks for; a test changes the fields it is about.
    struct settings {
        bt_ctrl::address addr;
        bt_ctrl::phy phy = bt_ctrl::phy::unknown;
        std::set<unsigned char> channels;
        std::optional<signed char> tx_power;
        unsigned short interval = 160;
        adv_data data;
        std::optional<adv_data> scan_data;
        std::shared_ptr<bt_ctrl::reservation const> adv_reservation;
        bt_ctrl::connection* connection = nullptr;
        std::shared_ptr<bt_ctrl::reservation const> conn_reservation;
    };

    // Notes each state of `adv` in `heard` as "<name> <state>".
    void watch_adv(const_adv const& adv, std::string const& name) {
        links.push_back(adv->notify_on_state_change([this, name](adv_state now) {
            note(heard, name + " " + bt_ctrl::advertiser::to_string(now));
        }));
    }

    // A completion of start that notes "<what>: <adv>s <conn>s <result>",
    // with "-" for a connection time that isn't there.
    auto on_start(std::string const& what) {
        return [this, what](seconds const& adv_time, std::optional<seconds> const& conn_time,
                            std::error_code const& ec) {
            note(heard, what + ": " + std::to_string(adv_time.count()) + "s " +
                            (conn_time ? std::to_string(conn_time->count()) + "s " : "- ") +
                            result(ec));
        };
    }

    utils::link start_adv(bt_ctrl::advertiser& adv, settings const& s, std::string const& what) {
        return adv.start(s.addr, s.phy, s.channels, s.tx_power, s.interval, s.data, s.scan_data,
                         s.adv_reservation, s.connection, s.conn_reservation, on_start(what));
    }

    // Answers the last "advStart" and runs the loop dry.
    void answer_start(unsigned short handle, std::string const& status, int seconds,
                      json const& more = json::object()) {
        json body{{"advHandle", handle}, {"status", status}, {"advGuaranteedTime", seconds}};
        body.update(more);
        this->reply("advStart", body);
        loop->run();
    }

    // An application advertiser, watched as `name`, started under `handle`
    // (the reply "starting", then "advStarted"); `mark` is then past its
    // requests.
    adv_ptr started(unsigned short handle, std::string const& name = "adv") {
        auto adv = client->create_advertiser();
        watch_adv(adv, name);
        start_adv(*adv, {}, name + " start");
        loop->run();
        answer_start(handle, "starting", 10);
        this->event("advStarted", {{"advHandle", handle}});
        this->mark = this->got.size();
        return adv;
    }

    // The advertisers the client announces as new, in order.
    void collect_new_advs() {
        links.push_back(client->notify_on_new_advertiser([this](const_adv const& adv) {
            new_advs.push_back(adv);
            note(heard, "new adv " + bt_ctrl::advertiser::to_string(adv->get_state()));
        }));
    }

    std::vector<const_adv> new_advs;
};

using AdvTest = AdvHelpers<ConnTest>;
using AdvSimTest = AdvHelpers<SimFlowTest>;

}  // namespace zelvo::tavrin::testing
