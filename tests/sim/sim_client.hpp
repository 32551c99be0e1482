// A raw bus client of the simulator over the test loop's in-memory network,
// and a fixture with a controller of the example config listening there.
// Outcomes are text, so that tests compare whole exchanges: the reply's JSON
// text, "app N" for a controller code, "exchange N" for a fault of the
// exchange, "not json" for a reply tagged JSON that does not parse. Events
// are text too: "ifStatusChanged" bodies in `events`, the others as
// "name body" in `heard`. `arrivals` has every reply and event in the order
// they came: "reply OUTCOME" or the event's name.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "quorl/quorl.hpp"
#include "stravik/part_payload.hpp"
#include "tavrin/adapters/test_loop.hpp"
#include "tavrin/sim/config.hpp"
#include "tavrin/sim/controller.hpp"

namespace zelvo::tavrin::sim::testing {

using json = nlohmann::json;
using strings = std::vector<std::string>;
using namespace std::chrono_literals;

inline std::string outcome(quorl::resp_ctx const& reply) {
    if (reply.first_error) {
        return "exchange " + std::to_string(reply.first_error.code());
    }
    if (reply.second_error) {
        return "app " + std::to_string(reply.second_error.code());
    }
    try {
        return stravik_part_payload::from_bytes<json>(reply.payload).dump();
    } catch (json::exception const&) {
        return "not json";
    }
}

class client {
public:
    client(std::shared_ptr<adapters::test_loop> const& loop, unsigned short port) : loop(loop) {
        link->set_receive_handler([this](std::vector<unsigned char> const& bytes) {
            bus.receive(bytes, false, 524288, 524288);
        });
        link->set_state_handler(
            [this](auto now) { closed = now == utils::connection::state::closed; });
        bus.set_event_handler("ifStatusChanged", [this](auto const& event) {
            events.push_back(stravik_part_payload::from_bytes<json>(event->payload).dump());
        });
        for (char const* name : {"freeResvsChanged",
                                 "advsChanged",
                                 "connsChanged",
                                 "connMtu",
                                 "connPhy",
                                 "connParams",
                                 "connPending",
                                 "connOpening",
                                 "connOpened",
                                 "connClosing",
                                 "connClosed",
                                 "advPending",
                                 "advStarting",
                                 "advStarted",
                                 "advStopping",
                                 "advStopped",
                                 "advDataChanged",
                                 "gattsDbUpdated",
                                 "gattsCharValueRead",
                                 "gattsDescValueRead",
                                 "gattsCharValueWrite",
                                 "gattsDescValueWrite"}) {
            bus.set_event_handler(name, [this, name](auto const& event) {
                std::string body;
                try {
                    body = stravik_part_payload::from_bytes<json>(event->payload).dump();
                } catch (json::exception const&) {
                    body = "not json";
                }
                heard.push_back(std::string(name) + " " + body);
                arrivals.push_back(name);
            });
        }
        link->connect(utils::ip_address("127.0.0.1"), port);
        loop->run();
    }

    // Sends without turning the loop; the outcome lands in `replies`.
    void send(std::string const& name, json const& body = json::object(),
              std::chrono::seconds timeout = 0s) {
        send_payload(name, quorl_utils::payload(body), timeout);
    }
    void send_payload(std::string const& name, quorl_utils::payload const& body,
                      std::chrono::seconds timeout = 0s) {
        sent.push_back(bus.send(
            {name, body},
            [this](auto const& reply) {
                replies.push_back(outcome(*reply));
                arrivals.push_back("reply " + replies.back());
            },
            true, timeout));
    }
    // Sends, runs the loop dry and returns the outcome.
    std::string ask(std::string const& name, json const& body = json::object()) {
        replies.clear();
        send(name, body);
        loop->run();
        return replies.empty() ? "no reply" : replies.front();
    }
    // Handshake on the named interface, or on the default one for "", with
    // a client ID if one is given.
    std::string bind(std::string const& name = "", std::string const& client_id = "") {
        ask("hdshkStart", client_id.empty() ? json::object() : json{{"clientID", client_id}});
        return ask("hdshkFinish", name.empty() ? json() : json{{"if", name}});
    }
    // The events other than "ifStatusChanged" heard since the last call, as
    // "name body".
    strings take_heard() {
        strings taken;
        taken.swap(heard);
        return taken;
    }

    // Requests still waiting get their outcome after the bus has gone, on a
    // later turn: by then nobody must hear it.
    ~client() {
        for (auto& request : sent) {
            request.release();
        }
    }

    std::shared_ptr<adapters::test_loop> loop;
    std::shared_ptr<utils::tcp_connection> link = loop->create_tcp_connection();
    std::vector<quorl_utils::link> sent;
    quorl bus{loop, [this](std::vector<unsigned char> const& bytes) { return link->send(bytes); }};
    strings replies, events, heard, arrivals;
    bool closed = false;
};

class SimTest : public ::testing::Test {
protected:
    void SetUp() override { ctl->keep_request_log(1 << 20); }
    std::unique_ptr<client> connect() { return std::make_unique<client>(loop, port); }
    // A new controller of the example config in the old one's place.
    void restart() {
        listening.release();
        ctl = std::make_unique<controller>(loop, config::load(TAVRIN_SIM_EXAMPLE_CONFIG));
        ctl->keep_request_log(1 << 20);
        listening = loop->listen(utils::ip_address("127.0.0.1"), port, ctl->accept_handler());
    }

    static constexpr unsigned short port = 7100;
    std::shared_ptr<adapters::test_loop> loop = adapters::test_loop::create();
    std::unique_ptr<controller> ctl =
        std::make_unique<controller>(loop, config::load(TAVRIN_SIM_EXAMPLE_CONFIG));
    utils::link listening =
        loop->listen(utils::ip_address("127.0.0.1"), port, ctl->accept_handler());
};

}  // namespace zelvo::tavrin::sim::testing
