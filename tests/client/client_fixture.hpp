// The fixture of the client's tests: a client on the virtual-time loop, a
// simulated controller listening for it (or none, or a hand-written one), and
// records of everything the client tells the application: log lines with
// their virtual time, state changes and the texts of contained exceptions.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <exception>
#include <functional>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "quorl/server.hpp"
#include "tavrin/adapters/test_loop.hpp"
#include "tavrin/bt_ctrl/capabilities.hpp"
#include "tavrin/bt_ctrl/create_bt_ctrl.hpp"
#include "tavrin/bt_ctrl/handshake_ctx.hpp"
#include "tavrin/error.hpp"
#include "tavrin/sim/config.hpp"
#include "tavrin/sim/controller.hpp"
#include "tavrin/sim/radio.hpp"
#include "tavrin/sim/simulated_radio.hpp"
#include "tavrin/utils/mac_address.hpp"

namespace zelvo::tavrin::testing {

using namespace std::chrono_literals;
using json = nlohmann::json;
using strings = std::vector<std::string>;
using state = bt_ctrl::state;
using states = std::vector<state>;
using context_ptr = std::shared_ptr<bt_ctrl::handshake_ctx>;
using client_id = std::optional<std::array<unsigned char, 16>>;

inline std::error_code code(error::bt_ctrl value) {
    return make_error_code(value);
}

// What one completion handler heard, and how often.
struct outcome {
    int calls = 0;
    std::error_code ec;
    std::string name;     // of a finish
    context_ptr context;  // of an enable, kept only when asked to
};

// The built-in controller with a second interface "hci1": a random address
// and capabilities unlike hci0's in every field that can differ.
inline sim::config two_interfaces(std::string const& default_name = "hci0") {
    auto settings = sim::config::builtin();
    auto second = settings.interfaces[0];
    second.description.name = "hci1";
    second.description.address = {bt_ctrl::addr_type::random_address,
                                  utils::mac_address("C2:54:56:00:00:02")};
    second.description.part = "second radio";
    auto& caps = second.description.caps;
    caps.maxTxPower = -7;
    caps.maxMtuSize = 247;
    caps.scan = caps.gattCli = caps.connDuplicateMac = caps.gattClientDescWriteWithOffset = false;
    caps.scanPhys.clear();
    caps.advPhys = {bt_ctrl::phy::m1};
    caps.connPhys = {bt_ctrl::phy::m2, bt_ctrl::phy::coded};
    caps.addrTypes = {bt_ctrl::addr_type::random_address};
    caps.gattClientCharValueMaxLen = 100;
    caps.gattClientDescValueMaxLen = 101;
    caps.gattServerDescValueMaxLen = 102;
    caps.gattServerCharValueMaxLen = 103;
    settings.interfaces.push_back(second);
    settings.default_interface = default_name;
    return settings;
}

class ClientTest : public ::testing::Test {
protected:
    static constexpr unsigned short port = 7300;

    struct line {
        long ms;
        bt_ctrl::log_level level;
        std::string text;
    };

    // A simulated controller listening at the client's address.
    sim::controller& serve(std::shared_ptr<sim::radio> radio, sim::version_info versions = {}) {
        ctl = std::make_unique<sim::controller>(loop, std::move(radio), std::move(versions));
        listening = loop->listen(host, port, ctl->accept_handler());
        return *ctl;
    }
    sim::controller& serve(sim::config const& settings = sim::config::builtin()) {
        return serve(std::make_shared<sim::simulated_radio>(settings), settings.versions);
    }

    // A new controller and client, with the records of earlier ones gone.
    void fresh(client_id const& id = std::nullopt,
               sim::config const& settings = sim::config::builtin()) {
        client.reset();
        loop->run();
        seen.clear();
        lines.clear();
        failures.clear();
        serve(settings);
        make_client(id);
    }

    bt_ctrl& make_client(client_id const& id = std::nullopt, std::string const& log_name = "") {
        client = create_bt_ctrl(loop, id, host, port);
        log_link = client->set_log_handler(
            [this](bt_ctrl::log_level level, std::string const& text) {
                lines.push_back({static_cast<long>(loop->now().count()), level, text});
            },
            log_name);
        client->notify_on_state_change([this](state now) { seen.push_back(now); });
        // Only from inside a catch block, where the application can look at
        // the exception.
        client->set_exception_handler([this](std::string const& text) {
            failures.push_back(std::current_exception() ? text : "outside a catch: " + text);
        });
        return *client;
    }

    // enable(), recording into `out`; the context is kept only if `keep`.
    utils::link enable(outcome& out, bool keep = false) {
        return client->enable([&out, keep](context_ptr const& context, std::error_code const& ec) {
            ++out.calls;
            out.ec = ec;
            if (keep) {
                out.context = context;
            }
        });
    }

    static std::function<void(std::string const&, std::error_code const&)> recorder(outcome& out) {
        return [&out](std::string const& name, std::error_code const& ec) {
            ++out.calls;
            out.name = name;
            out.ec = ec;
        };
    }

    strings request_names() const {
        strings names;
        for (auto const& request : ctl->requests()) {
            names.push_back(request.name);
        }
        return names;
    }

    // The body of the last request of that name, or "none".
    std::string last_body(std::string const& name) const {
        std::string found = "none";
        for (auto const& request : ctl->requests()) {
            if (request.name == name) {
                found = request.body ? request.body->dump() : "not json";
            }
        }
        return found;
    }

    // The log lines that contain `part`.
    std::vector<line> matching(std::string const& part) const {
        std::vector<line> found;
        std::copy_if(lines.begin(), lines.end(), std::back_inserter(found),
                     [&](line const& entry) { return entry.text.find(part) != std::string::npos; });
        return found;
    }
    strings texts(std::string const& part) const {
        strings found;
        for (auto const& entry : matching(part)) {
            found.push_back(entry.text);
        }
        return found;
    }
    // When the client started connecting, counted from the first time.
    std::vector<long> connect_times() const {
        auto const found = matching("change state to connecting");
        std::vector<long> times;
        for (auto const& entry : found) {
            times.push_back(entry.ms - found.front().ms);
        }
        return times;
    }

    std::shared_ptr<adapters::test_loop> loop = adapters::test_loop::create();
    utils::ip_address const host{"127.0.0.1"};
    // The records outlive the client, which reports into them as it dies.
    std::vector<line> lines;
    states seen;
    strings failures;
    std::unique_ptr<sim::controller> ctl;
    utils::link listening;
    std::shared_ptr<bt_ctrl> client;
    utils::link log_link;
};

// A controller written by hand, for what the simulator never says: each
// accepted connection gets a bus server that `setup` fills with handlers.
// It must outlive the connections it accepts.
class raw_controller {
public:
    using setup_type = std::function<void(quorl_server&, utils::connection&)>;

    raw_controller(std::shared_ptr<adapters::test_loop> const& loop, utils::ip_address const& host,
                   unsigned short port, setup_type setup)
        : setup(std::move(setup)) {
        // The loop keeps the handler: a strong reference back would be a cycle.
        std::weak_ptr<adapters::test_loop> const weak_loop = loop;
        listening = loop->listen(host, port, [this, weak_loop](auto const& accepted) {
            end = accepted;
            std::weak_ptr<utils::connection> const weak = accepted;
            server = std::make_unique<quorl_server>(weak_loop.lock(), [weak](auto const& bytes) {
                auto const target = weak.lock();
                return target && target->send(bytes);
            });
            accepted->set_receive_handler([this](std::vector<unsigned char> const& bytes) {
                server->receive(bytes, false, 524288, 524288);
            });
            this->setup(*server, *accepted);
        });
    }

    ~raw_controller() { listening.release(); }

private:
    setup_type setup;
    utils::link listening;
    std::shared_ptr<utils::connection> end;
    std::unique_ptr<quorl_server> server;
};

}  // namespace zelvo::tavrin::testing
