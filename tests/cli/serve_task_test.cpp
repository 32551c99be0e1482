// The serving task of `tavrin serve` in this process, with the simulator
// on the same loop, so that the test can make the central leave and the
// controller restart: the task listens again after each connection, builds
// the database anew after a restart, and stops cleanly on interrupt.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <sstream>
#include <string>

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

std::size_t count(std::string const& text, std::string const& part) {
    std::size_t found = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++found;
    }
    return found;
}

TEST(ServeTask, ListensAgainAfterEachCentralAndRebuildsAfterARestart) {
    asio::io_context io;
    auto const loop = adapters::asio_loop::create(io);
    embedded_sim sim(loop, endpoint::parse("127.0.0.1:0"), std::nullopt);
    auto& radio = *sim.controller().simulation();
    auto const client =
        create_bt_ctrl(loop, std::nullopt, sim.address().address, sim.address().port);
    std::ostringstream out;
    std::optional<int> result;
    task_context const context{io,
                               client,
                               &sim,
                               out,
                               [](std::string const&) {},
                               [&](int code) {
                                   result = result.value_or(code);
                                   io.stop();
                               },
                               [&](std::string const& reason) {
                                   ADD_FAILURE() << reason;
                                   result = result.value_or(1);
                                   io.stop();
                               }};
    auto const file = parse_gatt_file(R"({"services": [{"uuid": "180F", "characteristics": [
        {"uuid": "2A19", "properties": ["read"], "hex": "64"}]}]})");
    auto const job = make_serve_task(context, file, adv_options{"t", {}, 160, true});
    auto const states = client->notify_on_state_change([&](bt_ctrl::state now) {
        now == bt_ctrl::state::enabled ? job->on_enabled() : job->on_state(now);
    });

    // The script, one step per set that goes on air: a central connects and
    // leaves, again; then the interface restarts; then an interrupt.
    bt_ctrl::address const central{bt_ctrl::addr_type::public_address,
                                   utils::mac_address("02:54:56:00:02:09")};
    unsigned sets = 0;
    asio::steady_timer later(io);
    auto const after = [&](std::function<void()> step) {
        later.expires_after(std::chrono::milliseconds(50));
        later.async_wait([step](asio::error_code const& ec) {
            if (!ec) {
                step();
            }
        });
    };
    auto const on_air = radio.on_advertising_change(
        [&](std::string const& interface, unsigned short set, adv_event what) {
            if (what != adv_event::started) {
                return;
            }
            switch (++sets) {
                case 1:
                case 2:
                    return after([&, interface, set] {
                        sim::central who;
                        who.address = central;
                        ASSERT_EQ(radio.central_connect(interface, set, who),
                                  sim::central_result::connected);
                        after([&] { radio.peer_disconnect(central); });
                    });
                case 3:
                    return after([&, interface] {
                        sim.controller().set_interface_status(interface, bt_ctrl::state::rebooting);
                        sim.controller().set_interface_status(interface, bt_ctrl::state::enabled);
                    });
                default:
                    return after([&] { job->on_interrupt(); });
            }
        });
    asio::steady_timer limit(io);
    limit.expires_after(std::chrono::seconds(20));
    limit.async_wait([&](asio::error_code const& ec) {
        if (!ec) {
            ADD_FAILURE() << "no end within 20 s";
            io.stop();
        }
    });
    client->enable([](std::shared_ptr<bt_ctrl::handshake_ctx> const&, std::error_code const&) {});
    io.run();

    auto const text = out.str();
    EXPECT_EQ(result, 0) << text;
    EXPECT_EQ(sets, 4u) << text;
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

}  // namespace
}  // namespace zelvo::tavrin::cli
