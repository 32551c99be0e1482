// The fixture of the client's tests: a client on the virtual-time loop, a
// simulated controller listening for it (or none, or a hand-written one), and
// records of everything the client tells the application: log lines (and
// the virtual times of connects), state changes and completions in the order
// heard, and the texts of contained exceptions.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "quorl/server.hpp"
#include "tavrin/adapters/test_loop.hpp"
#include "tavrin/bt_ctrl/create_bt_ctrl.hpp"
#include "tavrin/bt_ctrl/handshake_ctx.hpp"
#include "tavrin/sim/config.hpp"
#include "tavrin/sim/controller.hpp"
#include "tavrin/sim/simulated_radio.hpp"

namespace zelvo::tavrin::testing {

using namespace std::chrono_literals;
using ::testing::Contains;
using ::testing::HasSubstr;
using json = nlohmann::json;
using strings = std::vector<std::string>;
using times = std::vector<long>;
using state = bt_ctrl::state;
using context_ptr = std::shared_ptr<bt_ctrl::handshake_ctx>;
using client_id = std::optional<std::array<unsigned char, 16>>;

// The built-in controller's "hci0", and "hci1" with a random address and
// capabilities unlike hci0's in every field that can differ.
inline sim::config two_interfaces(std::string const& default_name = "hci0") {
    return sim::config::from_json(json::parse(R"({"defaultInterface": ")" + default_name + R"(",
        "interfaces": [{"name": "hci0", "addr": {"type": "public", "mac": "02:54:56:00:00:01"}},
            {"name": "hci1", "addr": {"type": "random", "mac": "C2:54:56:00:00:02"},
             "part": "second radio", "caps": {"maxTxPower": -7, "maxMtuSize": 247, "scan": false,
                "gattCli": false, "connDuplicateMac": false, "gattClientDescWriteWithOffset": false,
                "scanPhys": [], "advPhys": ["1m"], "connPhys": ["2m", "coded"],
                "addrTypes": ["random"], "gattClientCharValueMaxLen": 100,
                "gattClientDescValueMaxLen": 101, "gattServerDescValueMaxLen": 102,
                "gattServerCharValueMaxLen": 103}}]})"));
}

class ClientTest : public ::testing::Test {
protected:
    static constexpr unsigned short port = 7300;

    // A handler of an enable, a reset or a finish that notes in `heard`
    // "<what>: ok" or "<what>: <error message>", with a finish's name in
    // brackets after `what`; an enable's context goes to `*kept` if given.
    auto on(std::string const& what, context_ptr* kept = nullptr) {
        return [this, what, kept](auto const&... heard_args) { hear(what, kept, heard_args...); };
    }
    void hear(std::string const& what, context_ptr*, std::error_code const& ec) {
        note(heard, what + ": " + (ec ? ec.message() : "ok"));
    }
    void hear(std::string const& what, context_ptr*, std::string const& name,
              std::error_code const& ec) {
        hear(what + "(" + name + ")", nullptr, ec);
    }
    void hear(std::string const& what, context_ptr* kept, context_ptr const& context,
              std::error_code const& ec) {
        if (kept) {
            *kept = context;
        }
        hear(what, nullptr, ec);
    }

    // Adds `entry` to `records`, as every handler of the fixture does. Then,
    // as an application might, drops the client if `entry` contains
    // `drop_at` (once), or throws if it contains `throw_at`.
    void note(strings& records, std::string const& entry) {
        records.push_back(entry);
        auto const has = [&entry](std::string const& part) {
            return !part.empty() && entry.find(part) != std::string::npos;
        };
        if (has(drop_at)) {
            drop_at.clear();
            client.reset();
        }
        if (has(throw_at)) {
            throw std::runtime_error("from the application");
        }
    }

    // enable(), finishing on `name`, or on the controller's choice for "".
    void start(std::string const& name = "") {
        client->enable([this, name](context_ptr const& context, std::error_code const& ec) {
            on("enable")(context, ec);
            if (client && context) {
                context->finish(name, on("finish"));
            }
        });
    }

    // A simulated controller listening at the client's address, on a radio
    // made from `settings` unless one is given.
    sim::controller& serve(sim::config const& settings = sim::config::builtin(),
                           std::shared_ptr<sim::radio> radio = nullptr) {
        ctl = std::make_unique<sim::controller>(
            loop, radio ? radio : std::make_shared<sim::simulated_radio>(settings),
            settings.versions);
        ctl->keep_request_log(1 << 20);
        listening = loop->listen(host, port, ctl->accept_handler());
        return *ctl;
    }

    // A controller written by hand, for what the simulator never says: each
    // accepted connection gets a bus server that `setup` fills with handlers.
    void serve_raw(std::function<void(quorl_server&, utils::connection&)> const& setup) {
        listening = loop->listen(host, port, [this, setup](auto const& accepted) {
            // The server goes before the connection it writes to.
            raw_server = std::make_unique<quorl_server>(
                loop, [end = accepted.get()](auto const& bytes) { return end->send(bytes); });
            raw_end = accepted;
            accepted->set_receive_handler([this](std::vector<unsigned char> const& bytes) {
                raw_server->receive(bytes, false, 524288, 524288);
            });
            setup(*raw_server, *accepted);
        });
    }

    // A new controller and client.
    void fresh(client_id const& id = std::nullopt,
               sim::config const& settings = sim::config::builtin()) {
        drop_at = throw_at = "";
        client.reset();
        loop->run();
        serve(settings);
        make_client(id);
    }

    // A new client, with the records of earlier ones gone.
    void make_client(client_id const& id = std::nullopt, std::string const& log_name = "") {
        heard.clear();
        lines.clear();
        connects.clear();
        failures.clear();
        client = create_bt_ctrl(loop, id, host, port);
        auto const born = loop->now();
        log_link = client->set_log_handler(
            [this, born](bt_ctrl::log_level level, std::string const& text) {
                static char const* const names[] = {"error", "warning", "info", "debug"};
                note(lines, names[static_cast<int>(level)] + (": " + text));
                if (text.find("change state to connecting") != std::string::npos) {
                    connects.push_back(static_cast<long>((loop->now() - born).count()));
                }
            },
            log_name);
        // A state is told once the client is in it, not before.
        client->notify_on_state_change([this, self = client.get()](state now) {
            note(heard, bt_ctrl::to_string(now) + (self->get_state() == now ? "" : " (early)"));
        });
        // Only from inside a catch block, where the application can look at
        // the exception.
        client->set_exception_handler([this](std::string const& text) {
            failures.push_back(std::current_exception() ? text : "outside a catch: " + text);
        });
    }

    // The requests the controller got, each as its name and JSON body.
    strings requests() const {
        strings found;
        for (auto const& request : ctl->requests()) {
            found.push_back(request.name + " " + (request.body ? request.body->dump() : "-"));
        }
        return found;
    }

    std::shared_ptr<adapters::test_loop> loop = adapters::test_loop::create();
    utils::ip_address const host{"127.0.0.1"};
    // The records outlive the client, which reports into them as it dies.
    // Log lines are "<level>: <text>"; connects are the times, counted from
    // the client's making, when it started connecting.
    strings lines;
    times connects;
    strings heard;
    strings failures;
    std::string drop_at, throw_at;
    std::unique_ptr<sim::controller> ctl;
    std::shared_ptr<utils::connection> raw_end;
    std::unique_ptr<quorl_server> raw_server;
    utils::link listening;
    std::shared_ptr<bt_ctrl> client;
    utils::link log_link;
};

}  // namespace zelvo::tavrin::testing
