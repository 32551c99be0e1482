// The fixture of the end-to-end tests: the library against the simulator on
// the virtual-time loop. Nothing is scripted: the simulator answers, refuses
// and reports as it does for any client, its radio's peers accept after their
// delay, and the tests move time with the loop to reach each step.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "conn_fixture.hpp"
#include "tavrin/bt_ctrl/reservation.hpp"
#include "tavrin/sim/config.hpp"
#include "tavrin/sim/simulated_radio.hpp"

namespace zelvo::tavrin::testing {

using kind = bt_ctrl::reservation::type;
using reservation_ptr = std::shared_ptr<bt_ctrl::reservation const>;

class SimFlowTest : public ConnTest {
protected:
    // The built-in config's peer, which accepts after a second on 2M.
    static bt_ctrl::address nearby() { return peer("02:54:56:00:01:01"); }

    // The built-in config with `connections` slots on hci0.
    static sim::config with_slots(unsigned connections) {
        auto settings = sim::config::builtin();
        settings.interfaces[0].slots.connections = connections;
        return settings;
    }

    // A client enabled on a simulator made from `settings`, the loop run dry
    // and the records cleared.
    void up(sim::config const& settings = sim::config::builtin(),
            client_id const& id = std::nullopt) {
        fresh(id, settings);
        start();
        loop->run();
        ASSERT_EQ(client->get_state(), state::enabled);
        heard.clear();
        ctl->clear_requests();
    }

    sim::simulated_radio& radio() const { return *ctl->simulation(); }

    // An application connection to `target`, watched as `name`, with the
    // time that passes for the peer to accept.
    conn_ptr opened(std::string const& name = "app", bt_ctrl::address const& target = nearby()) {
        auto conn = client->create_connection();
        watch(conn, name);
        links.push_back(
            conn->connect(target, bt_ctrl::phy::unknown, nullptr, on_open(name + " connect")));
        loop->advance(1s);
        EXPECT_EQ(conn->get_state(), conn_state::opened) << name;
        return conn;
    }

    // A reservation the simulator granted, noted as "reserve: ok".
    reservation_ptr reserve(kind type, bt_ctrl::address const& target = {}) {
        reservation_ptr made;
        client->add_reservation(
            type, target, "",
            [this, &made](reservation_ptr const& got_one, std::error_code const& ec) {
                made = got_one;
                note(heard, "reserve: " + result(ec));
            });
        loop->run();
        EXPECT_TRUE(made);
        return made;
    }

    // The queue as `of` reads it from the controller now: "<state> <place>"
    // per connection, in order.
    strings queue_of(bt_ctrl& of) {
        strings found{"unread"};
        links.push_back(of.get_connection_queue(
            [&found](bt_ctrl::connection_queue const& queue, std::error_code const& ec) {
                found = describe(queue);
                if (ec) {
                    found = {result(ec)};
                }
            }));
        loop->run();
        return found;
    }
    static strings describe(bt_ctrl::connection_queue const& queue) {
        strings found;
        for (auto const& [conn, place] : queue) {
            found.push_back((conn ? to_string(conn->get_state()) : std::string("null")) + " " +
                            std::to_string(place));
        }
        std::sort(found.begin(), found.end());
        return found;
    }

    // The names of the requests the simulator got since the last clear.
    strings request_names() const {
        strings found;
        for (auto const& request : ctl->requests()) {
            found.push_back(request.name);
        }
        return found;
    }

    // A second client on the same simulator, enabled, announcing new
    // connections into `seen`.
    std::shared_ptr<bt_ctrl> second_client(std::vector<const_conn>& seen) {
        auto other = create_bt_ctrl(loop, std::nullopt, host, port);
        other->enable([](context_ptr const& context, std::error_code const&) {
            if (context) {
                context->finish("", [](std::string const&, std::error_code const&) {});
            }
        });
        links.push_back(other->notify_on_new_connection(
            [&seen](const_conn const& conn) { seen.push_back(conn); }));
        loop->run();
        EXPECT_EQ(other->get_state(), state::enabled);
        return other;
    }
};

}  // namespace zelvo::tavrin::testing
