// The fixture of the connection tests: a client enabled on the scripted
// controller, which also answers "advsGet" and "connsGet" by itself. Each event
// runs the loop dry, so every interleaving of replies, events and the
// application's calls can be staged step by step.
//
// Everything the application hears goes into `heard` as one line, in order:
// the client's states, each watched connection's states ("<name> <state>"),
// and completions.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <system_error>
#include <vector>

#include "../client/scripted_fixture.hpp"
#include "tavrin/bt_ctrl/connection.hpp"
#include "tavrin/bt_ctrl/interface.hpp"
#include "tavrin/error.hpp"

namespace zelvo::tavrin::testing {

using conn_state = bt_ctrl::connection::state;
using conn_ptr = std::shared_ptr<bt_ctrl::connection>;
using const_conn = std::shared_ptr<bt_ctrl::connection const>;

// The scripted controller, with connection defaults.
class ConnTest : public ScriptedTest {
public:
    ConnTest() { interface_caps = caps(); }

    // An interface that offers everything, with "1m" and "2m" for
    // connections and public addresses only; `changes` overrides keys.
    static json caps(json const& changes = json::object()) {
        auto result = ScriptedTest::caps(
            {{"maxMtuSize", 247}, {"connLatencyChange", false}, {"connPhys", {"1m", "2m"}}});
        result.update(changes);
        return result;
    }

    void serve_script() override {
        ScriptedTest::serve_script();
        // A test may have scripted its own.
        answers.emplace("advsGet", with({{"maxAdvertisers", 4}, {"advertisers", json::object()}}));
        answers.emplace("connsGet", with({{"maxConnections", 4}, {"connections", json::object()}}));
    }

    // Sends an event and runs the loop dry.
    void event(std::string const& name, json const& body) {
        ScriptedTest::event(name, body);
        loop->run();
    }

    static bt_ctrl::address peer(std::string const& mac = "AA:BB:CC:DD:EE:01",
                                 bt_ctrl::addr_type type = bt_ctrl::addr_type::public_address) {
        return {type, utils::mac_address(mac)};
    }

    // Notes each state of `conn` in `heard` as "<name> <state>".
    void watch(const_conn const& conn, std::string const& name) {
        links.push_back(conn->notify_on_state_change(
            [this, name](conn_state now) { note(heard, name + " " + to_string(now)); }));
    }

    // A completion of connect that notes "<what>: <seconds>s <result>".
    auto on_open(std::string const& what) {
        return [this, what](std::chrono::seconds const& time, std::error_code const& ec) {
            note(heard, what + ": " + std::to_string(time.count()) + "s " + result(ec));
        };
    }
    // A completion with a result only, noting "<what>: <result>".
    auto on_done(std::string const& what) {
        return [this, what](std::error_code const& ec) { note(heard, what + ": " + result(ec)); };
    }
    // "ok", or "<category> <message>".
    static std::string result(std::error_code const& ec) {
        return ec ? std::string(ec.category().name()) + " " + ec.message() : "ok";
    }

    // Answers the last "connOpen" with `handle`, `status` and that guaranteed
    // time, and runs the loop dry.
    void answer_open(unsigned short handle, std::string const& status, int seconds) {
        reply("connOpen",
              {{"connHandle", handle}, {"status", status}, {"guaranteedTime", seconds}});
        loop->run();
    }

    // An application connection opened as `name` under `handle`: connect,
    // the reply "opening", then "connOpened" with MTU `mtu`; `mark` is then
    // past its requests.
    conn_ptr open(unsigned short handle, std::string const& name = "app", unsigned short mtu = 23) {
        auto conn = client->create_connection();
        watch(conn, name);
        conn->connect(peer(), bt_ctrl::phy::unknown, nullptr, on_open(name + " connect"));
        loop->run();
        answer_open(handle, "opening", 5);
        event("connOpened", {{"connHandle", handle},
                             {"connPhy", "1m"},
                             {"connMtu", mtu},
                             {"connDirection", "outgoing"}});
        mark = got.size();
        return conn;
    }

    // The queue as the controller lists it now, asked for and delivered.
    bt_ctrl::connection_queue queue_now() {
        bt_ctrl::connection_queue found;
        client->get_connection_queue([&found](bt_ctrl::connection_queue const& queue,
                                              std::error_code const&) { found = queue; });
        loop->run();
        return found;
    }

    // The objects that the client announces as new, in order.
    void collect_new() {
        links.push_back(client->notify_on_new_connection([this](const_conn const& conn) {
            announced.push_back(conn);
            note(heard,
                 "new " + std::to_string(announced.size()) + " " + to_string(conn->get_state()));
        }));
    }

    static std::string to_string(conn_state value) { return bt_ctrl::connection::to_string(value); }

    std::vector<utils::link> links;
    std::vector<const_conn> announced;
};

}  // namespace zelvo::tavrin::testing
