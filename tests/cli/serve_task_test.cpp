// The serving task of `tavrin serve` in this process, with the simulator
// on the same loop, so that the test can drive the central and the
// controller: the task listens again after each connection, builds the
// database anew after a restart, answers or refuses each peer operation by
// its rules, and stops cleanly on interrupt.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <asio.hpp>

#include "command_process.hpp"
#include "embedded_sim.hpp"
#include "gatt_file.hpp"
#include "task.hpp"
#include "tavrin/adapters/asio.hpp"
#include "tavrin/bt_ctrl.hpp"
#include "tavrin/sim/simulated_radio.hpp"

namespace zelvo::tavrin::cli {
namespace {

using adv_event = sim::radio::advertising_event;
using bytes = std::vector<unsigned char>;

std::size_t count(std::string const& text, std::string const& part) {
    std::size_t found = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++found;
    }
    return found;
}

// A client with the serve task, against a simulator on the same loop.
class ServeTask : public ::testing::Test {
protected:
    ServeTask()
        : loop(adapters::asio_loop::create(io)),
          sim(loop, endpoint::parse("127.0.0.1:0"), std::nullopt),
          radio(*sim.controller().simulation()),
          client(create_bt_ctrl(loop, std::nullopt, sim.address().address, sim.address().port)),
          later(io),
          limit(io) {}

    // Serves `file` until the run ends. `on_air` hears of each set that the
    // task puts on air, with its count from 1.
    void serve(std::string const& file,
               std::function<void(std::string const&, unsigned short, unsigned)> on_air) {
        task_context const context{io,
                                   client,
                                   &sim,
                                   out,
                                   [](std::string const&) {},
                                   [this](int code) {
                                       result = result.value_or(code);
                                       io.stop();
                                   },
                                   [this](std::string const& reason) {
                                       ADD_FAILURE() << reason;
                                       result = result.value_or(1);
                                       io.stop();
                                   }};
        job = make_serve_task(context, parse_gatt_file(file), adv_options{"t", {}, 160, true});
        auto const states = client->notify_on_state_change([this](bt_ctrl::state now) {
            now == bt_ctrl::state::enabled ? job->on_enabled() : job->on_state(now);
        });
        auto const sets = radio.on_advertising_change(
            [this, on_air](std::string const& interface, unsigned short set, adv_event what) {
                if (what == adv_event::started) {
                    on_air(interface, set, ++started);
                }
            });
        limit.expires_after(std::chrono::seconds(20));
        limit.async_wait([this](asio::error_code const& ec) {
            if (!ec) {
                ADD_FAILURE() << "no end within 20 s";
                io.stop();
            }
        });
        client->enable(
            [](std::shared_ptr<bt_ctrl::handshake_ctx> const&, std::error_code const&) {});
        io.run();
    }

    // Runs `step` a little later, out of the notification at hand.
    void after(std::function<void()> step) {
        later.expires_after(std::chrono::milliseconds(50));
        later.async_wait([step](asio::error_code const& ec) {
            if (!ec) {
                step();
            }
        });
    }

    // The central connects through the set, and `then` runs with its
    // connection's handle once it is open.
    void connect(std::string const& interface, unsigned short set,
                 std::function<void(unsigned short)> then) {
        links = radio.on_link_change(
            [this, then](std::string const&, unsigned short link, sim::radio::link_event what) {
                if (what == sim::radio::link_event::opened) {
                    after([then, link] { then(link); });
                }
            });
        after([this, interface, set] {
            sim::central who;
            who.address = central;
            ASSERT_EQ(radio.central_connect(interface, set, who), sim::central_result::connected);
        });
    }

    bt_ctrl::address const central{bt_ctrl::addr_type::public_address,
                                   utils::mac_address("02:54:56:00:02:09")};
    asio::io_context io;
    std::shared_ptr<adapters::asio_loop> loop;
    embedded_sim sim;
    sim::simulated_radio& radio;
    std::shared_ptr<bt_ctrl> client;
    asio::steady_timer later;
    asio::steady_timer limit;
    utils::scoped_link links;
    std::unique_ptr<task> job;
    std::ostringstream out;
    std::optional<int> result;
    unsigned started = 0;
};

TEST_F(ServeTask, ListensAgainAfterEachCentralAndRebuildsAfterARestart) {
    // One step per set that goes on air: a central connects and leaves,
    // again; then the interface restarts; then an interrupt.
    serve(R"({"services": [{"uuid": "180F", "characteristics": [
              {"uuid": "2A19", "properties": ["read"], "hex": "64"}]}]})",
          [this](std::string const& interface, unsigned short set, unsigned count) {
              if (count <= 2) {
                  return connect(interface, set,
                                 [this](unsigned short) { radio.peer_disconnect(central); });
              }
              if (count == 3) {
                  return after([this, interface] {
                      sim.controller().set_interface_status(interface, bt_ctrl::state::rebooting);
                      sim.controller().set_interface_status(interface, bt_ctrl::state::enabled);
                  });
              }
              after([this] { job->on_interrupt(); });
          });

    auto const text = out.str();
    EXPECT_EQ(result, 0) << text;
    EXPECT_EQ(started, 4u) << text;
    EXPECT_EQ(count(text, "listening     "), 4u) << text;
    EXPECT_EQ(count(text, "connection state opened"), 2u) << text;
    EXPECT_EQ(count(text, "connection state closed (reason: unknown)"), 2u) << text;
    EXPECT_EQ(count(text, "building      1 service(s)"), 2u) << text;
    // The controller's handles go on after a restart: the second database
    // has new ones, and the task serves and removes those.
    testing::expect_in_order(text, {"service 180f [1]", "controller    rebooting",
                                    "service 180f [3]", "removing      1 service(s)"});
    EXPECT_EQ(sim.controller().find_attributes("hci0", gatt::uuid("2a19")).size(), 0u);
}

// Each operation of a peer, in order, with what the peer sees of it and
// what the server says.
TEST_F(ServeTask, EachPeerOperationIsAnsweredByTheRules) {
    struct operation {
        enum kinds { read, write, write_command } kind;
        char const* uuid;
        unsigned offset;
        bytes data;  // a write's
        std::string status;
        bytes seen;        // a read's data
        std::string line;  // the server's
    };
    auto const read = [](char const* uuid, unsigned offset, std::string status, bytes seen,
                         std::string line) {
        return operation{operation::read, uuid, offset, {}, status, seen, line};
    };
    auto const write = [](char const* uuid, unsigned offset, bytes data, std::string status,
                          std::string line, operation::kinds kind = operation::write) {
        return operation{kind, uuid, offset, data, status, {}, line};
    };
    std::string const refused = "refused (";
    std::vector<operation> const script = {
        read("2a19", 0, "success", {0x64}, "read          2a19 [2]: 64"),
        read("2a19", 1, "success", {}, "read          2a19 [2] from 1: (empty)"),
        read("2a19", 2, "invalidOffset", {}, "2a19 [2] from 2: " + refused + "invalidOffset)"),
        write("2a19", 0, {0x01}, "writeNotPermitted", "2a19 [2]: " + refused + "writeNotPermitted"),
        // A subscription to what the characteristic doesn't offer; a value
        // of the wrong size; then a subscription.
        write("2902", 0, {0x02, 0x00}, "cccdImproperlyConfigured",
              "2902 [3]: " + refused + "cccdImproperlyConfigured"),
        write("2902", 0, {0x01}, "invalidAttributeValueLength",
              "2902 [3]: " + refused + "invalidAttributeValueLength"),
        write("2902", 0, {0x01, 0x00}, "success", "subscribe     2a19 [2]: notifications"),
        read("2902", 0, "success", {0x01, 0x00}, "read          2902 [3]: 0100"),
        write("fff1", 2, {'y', 'z'}, "success",
              "write         fff1 [5]: 7878797A \"xxyz\" (from 2)"),
        write("fff1", 5, {'y'}, "invalidOffset", "fff1 [5]: " + refused + "invalidOffset"),
        write("fff1", 0, {'a', 'b'}, "success", "fff1 [5]: 6162 \"ab\" (no response)",
              operation::write_command),
        read("fff1", 0, "success", {'a', 'b'}, "read          fff1 [5]: 6162 \"ab\""),
        // fff2 starts with 300 bytes.
        write("fff2", 300, bytes(220, 'x'), "invalidAttributeValueLength",
              "dropped       fff2 [6]: a write of 220 bytes at 300 would pass 512 bytes"),
        read("2901", 0, "success", {'l', 'v'}, "read          2901 [4]: 6C76 \"lv\""),
        write("2901", 0, {'z'}, "writeNotPermitted", "2901 [4]: " + refused + "writeNotPermitted"),
    };
    std::function<void(unsigned short, std::size_t)> run = [&](unsigned short link,
                                                               std::size_t at) {
        if (at == script.size()) {
            return job->on_interrupt();
        }
        auto const& op = script[at];
        auto const handles = sim.controller().find_attributes("hci0", gatt::uuid(op.uuid));
        ASSERT_EQ(handles.size(), 1u) << op.uuid;
        auto const next = [&, link, at](sim::att_outcome const& outcome) {
            EXPECT_EQ(outcome.status, script[at].status) << "operation " << at;
            EXPECT_EQ(outcome.data, script[at].seen) << "operation " << at;
            run(link, at + 1);
        };
        bool const taken =
            op.kind == operation::read
                ? sim.controller().peer_read("hci0", link, handles.front(), op.offset, next)
                : sim.controller().peer_write("hci0", link, handles.front(), op.data, op.offset,
                                              op.kind == operation::write, next);
        ASSERT_TRUE(taken) << "operation " << at;
    };
    serve(R"({"services": [{"uuid": "180F", "characteristics": [
              {"uuid": "2A19", "properties": ["read", "notify"], "hex": "64",
               "descriptors": [{"uuid": "2902"}, {"uuid": "2901", "text": "lv"}]},
              {"uuid": "FFF1", "properties": ["read", "write", "writeNoResponse"], "text": "xx"},
              {"uuid": "FFF2", "properties": ["write"], "text": ")" +
              std::string(300, 'x') + R"("}]}]})",
          [&](std::string const& interface, unsigned short set, unsigned) {
              connect(interface, set, [&](unsigned short link) { run(link, 0); });
          });

    auto const text = out.str();
    EXPECT_EQ(result, 0) << text;
    std::vector<std::string> lines;
    for (auto const& op : script) {
        lines.push_back(op.line);
    }
    testing::expect_in_order(text, lines);
    EXPECT_NE(text.find("not checked with sync(): characteristic fff1 has the property "
                        "writeNoResponse"),
              std::string::npos)
        << text;
}

}  // namespace
}  // namespace zelvo::tavrin::cli
