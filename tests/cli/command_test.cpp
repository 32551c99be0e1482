// The `tavrin` command and the client over real TCP, against a simulator in
// another process.
#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <asio.hpp>

#include "endpoint.hpp"
#include "process.hpp"
#include "tavrin/adapters/asio.hpp"
#include "tavrin/bt_ctrl.hpp"

namespace zelvo::tavrin {
namespace {

using test::run_process;

std::string const command = TAVRIN_COMMAND;

TEST(Endpoint, ParsesAndRefusesAddresses) {
    EXPECT_EQ(cli::endpoint::parse("127.0.0.1:7410").to_string(), "127.0.0.1:7410");
    EXPECT_EQ(cli::endpoint::parse("[::1]:80").to_string(), "[::1]:80");
    EXPECT_EQ(cli::endpoint::parse("10.0.0.1:0").port, 0);
    for (auto const bad : {"127.0.0.1", "127.0.0.1:", "127.0.0.1:x", "127.0.0.1:65536",
                           "127.0.0.1:80x", "nohost:80", ":80"}) {
        EXPECT_THROW(cli::endpoint::parse(bad), std::invalid_argument) << bad;
    }
}

TEST(Command, InfoTalksToASimulatorInAnotherProcess) {
    auto const port = std::to_string(test::free_port());
    test::running_process sim({command, "sim", "--listen", "127.0.0.1:" + port});
    ASSERT_TRUE(test::wait_for_listener(static_cast<unsigned short>(std::stoi(port))));

    auto const info = run_process({command, "info", "--ctrl", "127.0.0.1:" + port});

    EXPECT_EQ(info.exit_code, 0) << info.err;
    for (auto const expected : {"controller    version 1.0.0, API 1.0.0", "hci0  public ",
                                "max MTU               517 bytes", "bound         hci0",
                                "address       public ", "state         enabled"}) {
        EXPECT_NE(info.out.find(expected), std::string::npos) << expected << "\n" << info.out;
    }
}

// Each failure is told once, on standard error, with exit code 1.
TEST(Command, InfoFailsWithOneClearMessage) {
    auto const port = std::to_string(test::free_port());
    std::string const config = TAVRIN_SOURCE_DIR "/sim/example-config.json";
    struct {
        std::vector<std::string> args;
        std::string message;
    } const cases[] = {
        {{"--ctrl", "127.0.0.1:" + port, "--time-limit", "1"},
         "no controller answered at 127.0.0.1:" + port + " within 1 s"},
        {{"--interface", "hci9"}, "the controller has no interface \"hci9\""},
        {{"--config", config, "--interface", "hci1"},
         "the controller reports interface \"hci1\" as disabled"},
    };
    for (auto const& [args, message] : cases) {
        std::vector<std::string> line{command, "info"};
        line.insert(line.end(), args.begin(), args.end());
        auto const info = run_process(line);
        EXPECT_EQ(info.exit_code, 1) << message;
        EXPECT_EQ(info.err, "tavrin: " + message + "\n");
    }

    for (auto const& bad : {std::vector<std::string>{"--ctrl", "localhost"},
                            {"--time-limit", "0"},
                            {"--ctrl", "127.0.0.1:1", "--config", config}}) {
        std::vector<std::string> line{command, "info"};
        line.insert(line.end(), bad.begin(), bad.end());
        EXPECT_NE(run_process(line).exit_code, 0) << bad[0];
    }
}

TEST(Command, DemoRunsAgainstTheEmbeddedSimulator) {
    auto const demo = run_process({command, "demo"});
    EXPECT_EQ(demo.exit_code, 0) << demo.err;
    for (auto const expected :
         {"* state: rebooting", "change state to connected", "bound         hci0",
          "* state: enabled", "restarts interface hci0", "* state: disabled", "stopped cleanly"}) {
        EXPECT_NE(demo.out.find(expected), std::string::npos) << expected << "\n" << demo.out;
    }
}

// The client rebuilds everything by itself when its controller dies and
// comes back: no application code takes part.
TEST(Command, ClientRecoversFromAControllerRestart) {
    auto const port = test::free_port();
    auto const listen = "127.0.0.1:" + std::to_string(port);
    auto sim = std::make_unique<test::running_process>(
        std::vector<std::string>{command, "sim", "--listen", listen});
    ASSERT_TRUE(test::wait_for_listener(port));

    asio::io_context io;
    auto const loop = adapters::asio_loop::create(io);
    auto const client = create_bt_ctrl(loop, std::nullopt, utils::ip_address("127.0.0.1"), port);
    std::vector<bt_ctrl::state> states;
    utils::scoped_link watch = client->notify_on_state_change([&](bt_ctrl::state state) {
        states.push_back(state);
        io.stop();
    });
    // Drops the context: the controller chooses the interface.
    client->enable([](auto const&, auto const&) {});

    auto const run_until = [&](bt_ctrl::state wanted) {
        auto const give_up = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (client->get_state() != wanted && std::chrono::steady_clock::now() < give_up) {
            io.restart();
            io.run_for(std::chrono::milliseconds(200));
        }
        return client->get_state() == wanted;
    };
    ASSERT_TRUE(run_until(bt_ctrl::state::enabled));
    EXPECT_TRUE(client->get_address());

    sim->stop();
    ASSERT_TRUE(run_until(bt_ctrl::state::rebooting));
    EXPECT_FALSE(client->get_address());
    sim = std::make_unique<test::running_process>(
        std::vector<std::string>{command, "sim", "--listen", listen});
    ASSERT_TRUE(run_until(bt_ctrl::state::enabled));

    EXPECT_EQ(states,
              (std::vector<bt_ctrl::state>{bt_ctrl::state::rebooting, bt_ctrl::state::enabled,
                                           bt_ctrl::state::rebooting, bt_ctrl::state::enabled}));
    EXPECT_TRUE(client->get_address());
}

}  // namespace
}  // namespace zelvo::tavrin
