// The fixture of the connection tests: a client enabled on a controller that
// the test plays. The controller answers the handshake, the interface status,
// "advsGet" and "connsGet" by itself; every request is recorded in order with its
// responder, and the others are answered as the test scripts them, at once
// or later by hand. Events are sent when the test says, so every interleaving
// of replies, events and the application's calls can be staged.
//
// Everything the application hears goes into `heard` as one line, in order:
// the client's states, each watched connection's states ("<name> <state>"),
// and completions.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "../client/client_fixture.hpp"
#include "quorl/server.hpp"
#include "tavrin/bt_ctrl/connection.hpp"
#include "tavrin/bt_ctrl/interface.hpp"
#include "tavrin/error.hpp"
#include "values/capability_keys.hpp"

namespace zelvo::tavrin::testing {

using conn_state = bt_ctrl::connection::state;
using conn_ptr = std::shared_ptr<bt_ctrl::connection>;
using const_conn = std::shared_ptr<bt_ctrl::connection const>;

// Public, so that the cases of a table can stage what they need.
class ConnTest : public ClientTest {
public:
    using ClientTest::client;
    using ClientTest::heard;
    using ClientTest::loop;
    using responder = quorl_server::responder;
    using answer = std::function<void(json const& body, responder const&)>;

    struct received {
        std::string name;
        json body;
        std::optional<responder> reply;
    };

    static answer with(json const& body) {
        return [body](json const&, responder const& r) { r.reply(quorl_utils::payload(body)); };
    }
    static answer refused(int code) {
        return [code](json const&, responder const& r) { r.fail(code); };
    }

    // An interface that offers everything, with "1m" and "2m" for
    // connections and public addresses only; `changes` overrides keys.
    static json caps(json const& changes = json::object()) {
        auto result = json{{"maxTxPower", 10}, {"maxMtuSize", 247}, {"addrTypes", {"public"}}};
        for (auto const& flag : impl::capability_keys::flags) {
            result[flag.key] = true;
        }
        result["connLatencyChange"] = false;
        for (auto const& length : impl::capability_keys::value_lengths) {
            result[length.key] = 512;
        }
        for (auto const& list : impl::capability_keys::phy_lists) {
            result[list.key] = {"1m"};
        }
        result["connPhys"] = {"1m", "2m"};
        result.update(changes);
        return result;
    }

    void serve_script() {
        serve_raw([this](quorl_server& server, utils::connection&) {
            ++accepted;
            server.set_fallback_handler([this](auto const& request, responder const& r) {
                auto const& bytes = request->payload;
                auto const body = bytes.empty() ? json() : json::parse(bytes.begin(), bytes.end());
                got.push_back({request->name, body, r});
                auto const found = answers.find(request->name);
                if (found != answers.end()) {
                    found->second(body, r);
                }
            });
        });
        answers["hdshkStart"] = [this](json const&, responder const& r) {
            r.reply(quorl_utils::payload(
                json{{"version", "1.0.0"},
                     {"apiVersion", "1.0.0"},
                     {"ifs",
                      {{"hci0",
                        {{"addr", {{"type", "public"}, {"mac", "02:54:56:00:00:01"}}},
                         {"vendor", "test"},
                         {"part", "scripted"},
                         {"caps", interface_caps}}}}}}));
        };
        answers["hdshkFinish"] = with({{"if", "hci0"}});
        answers["ifStatusGet"] = with({{"status", "enabled"}});
        // A test may have scripted its own.
        answers.emplace("advsGet", with({{"maxAdvertisers", 4}, {"advertisers", json::object()}}));
        answers.emplace("connsGet", with({{"maxConnections", 4}, {"connections", json::object()}}));
    }

    // A client enabled on the scripted controller, with the loop run dry.
    void start_scripted() {
        serve_script();
        make_client();
        start("hci0");
        loop->run();
        mark = got.size();
    }

    // "<name> <body>" of each request since `mark`.
    strings sent() const {
        strings found;
        for (auto i = mark; i < got.size(); ++i) {
            found.push_back(got[i].name + " " + got[i].body.dump());
        }
        return found;
    }

    // The last request of that name.
    received const& last(std::string const& name) const {
        for (auto i = got.size(); i-- > 0;) {
            if (got[i].name == name) {
                return got[i];
            }
        }
        ADD_FAILURE() << "no request " << name;
        static received const none{};
        return none;
    }

    void reply(std::string const& name, json const& body) {
        ASSERT_TRUE(last(name).reply);
        last(name).reply->reply(quorl_utils::payload(body));
    }
    void fail(std::string const& name, int code) {
        ASSERT_TRUE(last(name).reply);
        last(name).reply->fail(code);
    }

    // Sends an event and runs the loop dry.
    void event(std::string const& name, json const& body) {
        ASSERT_TRUE(raw_server);
        raw_server->send_event(name, quorl_utils::payload(body));
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

    // An application connection opened as `name` under `handle`: connect,
    // the reply "opening", then "connOpened" with MTU `mtu`.
    conn_ptr open(unsigned short handle, std::string const& name = "app", unsigned short mtu = 23) {
        auto conn = client->create_connection();
        watch(conn, name);
        conn->connect(peer(), bt_ctrl::phy::unknown, nullptr, on_open(name + " connect"));
        loop->run();
        reply("connOpen", {{"connHandle", handle}, {"status", "opening"}, {"guaranteedTime", 5}});
        loop->run();
        event("connOpened", {{"connHandle", handle},
                             {"connPhy", "1m"},
                             {"connMtu", mtu},
                             {"connDirection", "outgoing"}});
        return conn;
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

    json interface_caps = caps();
    std::map<std::string, answer> answers;
    std::vector<received> got;
    std::size_t mark = 0;
    int accepted = 0;
    std::vector<utils::link> links;
    std::vector<const_conn> announced;
};

}  // namespace zelvo::tavrin::testing
