// The `tavrin` command and the client over real TCP, against a simulator in
// another process.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>
#include <asio.hpp>

#include "command_process.hpp"
#include "quorl/server.hpp"
#include "tavrin/adapters/asio.hpp"
#include "tavrin/bt_ctrl.hpp"

namespace zelvo::tavrin {
namespace {

using testing::free_port;

std::string const command = TAVRIN_COMMAND;

struct finished_run {
    int exit_code;
    std::string out, err;
};

// Runs the command with `args`, split as the shell splits them, to its end,
// with output files of this process's own: test programs may run side by side.
// A run that does not end by itself is killed after 20 s.
finished_run run(std::string const& args) {
    auto const out = ::testing::TempDir() + "tavrin-" + std::to_string(getpid());
    auto const err = out + "-err";
    int const status = std::system(
        ("timeout -s KILL 20 " + command + " " + args + " >" + out + " 2>" + err).c_str());
    auto const slurp = [](std::string const& path) {
        std::ifstream file(path);
        std::string const text(std::istreambuf_iterator<char>(file), {});
        std::remove(path.c_str());
        return text;
    };
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, slurp(out), slurp(err)};
}

// A controller written by hand, on a thread of its own, for what `tavrin sim`
// never does: it answers each "hdshkStart" with `reply` as JSON text, never
// for "", or with none closes the link before any reply. With `then_sim`, it does so once and
// then passes each later connection on to a `tavrin sim`.
class fake_controller {
public:
    explicit fake_controller(std::optional<std::string> reply, bool then_sim = false)
        : reply(std::move(reply)) {
        if (then_sim) {
            sim.emplace(command, sim_port, std::vector<std::string>{});
        }
        listener =
            adapters::asio_listener::create(loop, utils::ip_address("127.0.0.1"), 0,
                                            [this](auto const& accepted) { serve(accepted); });
        port = listener->port();
        running = std::thread([this] { io.run(); });
    }
    fake_controller(fake_controller const&) = delete;
    fake_controller& operator=(fake_controller const&) = delete;
    ~fake_controller() {
        guard.reset();
        io.stop();
        running.join();
    }

    unsigned short port = 0;
    std::atomic<int> accepted{0};
    bool sim_listening() const { return sim && sim->listening; }

private:
    void serve(std::shared_ptr<utils::connection> const& connection) {
        connections.push_back(connection);
        if (++accepted > 1 && sim) {
            return pass_on(*connection);
        }
        auto server = std::make_shared<quorl_server>(
            loop, [end = connection.get()](auto const& bytes) { return end->send(bytes); });
        connection->set_receive_handler([server = server.get()](auto const& bytes) {
            server->receive(bytes, false, 1 << 20, 1 << 20);
        });
        server->set_fallback_handler(
            [this, end = connection.get()](auto const& request, auto const& responder) {
                if (request->name != "hdshkStart") {
                    return;
                }
                if (!reply) {
                    return end->close();
                }
                if (reply->empty()) {
                    // Kept, since one let go answers with an error.
                    unanswered.push_back(
                        std::make_shared<std::decay_t<decltype(responder)>>(responder));
                    return;
                }
                responder.reply(
                    quorl_utils::payload(std::vector<unsigned char>(reply->begin(), reply->end()),
                                         stravik_part_payload::format::json));
            });
        servers.push_back(server);
    }

    // Both ways; bytes for the simulator wait until it is connected.
    void pass_on(utils::connection& client) {
        auto const upstream = loop->create_tcp_connection();
        auto const waiting = std::make_shared<std::vector<unsigned char>>();
        auto const flush = [up = upstream.get(), waiting] {
            if (up->send(*waiting)) {
                waiting->clear();
            }
        };
        client.set_receive_handler([waiting, flush](auto const& bytes) {
            waiting->insert(waiting->end(), bytes.begin(), bytes.end());
            flush();
        });
        upstream->set_receive_handler([&client](auto const& bytes) { client.send(bytes); });
        upstream->set_state_handler([flush](auto now) {
            if (now == utils::connection::state::connected) {
                flush();
            }
        });
        upstream->connect(utils::ip_address("127.0.0.1"), sim_port);
        connections.push_back(upstream);
    }

    std::optional<std::string> reply;
    unsigned short sim_port = free_port();
    std::optional<testing::sim_process> sim;
    asio::io_context io;
    asio::executor_work_guard<asio::io_context::executor_type> guard = asio::make_work_guard(io);
    std::shared_ptr<adapters::asio_loop> loop = adapters::asio_loop::create(io);
    std::shared_ptr<adapters::asio_listener> listener;
    // The servers go before the connections they write to.
    std::vector<std::shared_ptr<utils::connection>> connections;
    std::vector<std::shared_ptr<quorl_server>> servers;
    std::vector<std::shared_ptr<void>> unanswered;
    std::thread running;
};

// A refused connect, a link lost during the handshake and a malformed reply
// each end the run with what happened, in our words; a lost link is tried
// again within the time limit.
TEST(Command, AFailedRunNamesItsLastCause) {
    auto const closed_port = free_port();
    std::string const answered = "tavrin: no controller answered at 127.0.0.1:";
    std::string const malformed = "tavrin: the controller's handshake reply was malformed: ";
    auto const closing = std::make_unique<fake_controller>(std::nullopt);
    auto const answering_later = std::make_unique<fake_controller>(std::nullopt, true);
    ASSERT_TRUE(answering_later->sim_listening());
    auto const not_json = std::make_unique<fake_controller>("{\"version\": ");
    auto const silent = std::make_unique<fake_controller>("");
    struct {
        unsigned short port;
        std::string limit;
        int exit_code;
        std::string err;
        char const* out;  // somewhere in standard output
    } const cases[] = {
        {closed_port, "2", 1,
         answered + std::to_string(closed_port) +
             " within 2 s (last attempt: connection refused)\n",
         ""},
        {closing->port, "3", 1,
         answered + std::to_string(closing->port) +
             " within 3 s (last attempt: closed during the handshake)\n",
         ""},
        {answering_later->port, "15", 0, "", "bound         hci0"},
        {silent->port, "2", 1,
         answered + std::to_string(silent->port) +
             " within 2 s (last attempt: no handshake reply)\n",
         ""},
        {not_json->port, "10", 1, malformed + "it is not JSON nested at most 64 levels deep\n", ""},
    };
    for (auto const& [port, limit, exit_code, err, out] : cases) {
        auto const args =
            "info --ctrl 127.0.0.1:" + std::to_string(port) + " --time-limit " + limit;
        auto const result = run(args);
        EXPECT_EQ(result.exit_code, exit_code) << args;
        EXPECT_EQ(result.err, err) << args;
        EXPECT_NE(result.out.find(out), std::string::npos) << args << "\n" << result.out;
    }
    // Each lost link was tried again.
    EXPECT_GE(closing->accepted, 2);
    EXPECT_EQ(answering_later->accepted, 2);
}

// info against a simulator in another process, and demo against the one it
// embeds, run to their end. A failure is told once, on standard error, with
// exit code 1.
TEST(Command, EachRunEndsWithItsOutcomeTold) {
    auto const port = free_port();
    testing::sim_process const sim(command, port, {});
    ASSERT_TRUE(sim.listening);
    std::string const config = TAVRIN_SOURCE_DIR "/sim/example-config.json";
    std::string const answered = "tavrin: no controller answered at ";
    struct {
        std::string args;
        int exit_code;
        std::vector<char const*> out;  // each somewhere in standard output
        std::string err;
    } const cases[] = {
        {"info --ctrl 127.0.0.1:" + std::to_string(port),
         0,
         {"controller    version 1.0.0, API 1.0.0", "hci0  public ",
          "max MTU               517 bytes", "bound         hci0", "address       public ",
          "state         enabled"},
         ""},
        {"demo",
         0,
         {"* state: rebooting", "change state to connected", "bound         hci0",
          "* state: enabled", "restarts interface hci0", "* state: disabled", "stopped cleanly"},
         ""},
        {"info --ctrl 127.0.0.1:1 --time-limit 1",
         1,
         {},
         answered + "127.0.0.1:1 within 1 s (last attempt: connection refused)\n"},
        {"info --ctrl [::1]:1 --time-limit 1",
         1,
         {},
         answered + "[::1]:1 within 1 s (last attempt: connection refused)\n"},
        {"info --interface hci9", 1, {}, "tavrin: the controller has no interface \"hci9\"\n"},
        {"info --interface hci1 --config " + config,
         1,
         {},
         "tavrin: the controller reports interface \"hci1\" as disabled\n"},
    };
    for (auto const& [args, exit_code, out, err] : cases) {
        auto const result = run(args);
        EXPECT_EQ(result.exit_code, exit_code) << args;
        EXPECT_EQ(result.err, err) << args;
        for (auto const text : out) {
            EXPECT_NE(result.out.find(text), std::string::npos) << text << "\n" << result.out;
        }
    }
}

// Bad arguments are refused before anything runs, each with what is wrong
// (CLI11's exit codes, above 100); help shows the defaults.
TEST(Command, ArgumentsAreCheckedBeforeAnythingRuns) {
    std::string const config = TAVRIN_SOURCE_DIR "/sim/example-config.json";
    std::string const digits = "\": a port is a number from 0 to 65535, in decimal digits";
    struct {
        std::string args;
        std::string err;  // somewhere in standard error
    } const refused[] = {
        {"bogus",
         "unknown subcommand \"bogus\" (the subcommands are sim, info, demo, watch, connect, "
         "advertise, serve)"},
        {"serve", "--gatt is required"},
        {"", "A subcommand is required"},
        {"info bogus", "not expected: bogus"},
        {"info --time-limit abc", "--time-limit: \"abc\" is not a whole number"},
        {"info --time-limit 1.5", "--time-limit: \"1.5\" is not a whole number"},
        {"info --time-limit=-3", "--time-limit: \"-3\" is not a whole number"},
        {"info --time-limit 0", "--time-limit: Value 0 not in range 1 to 3600"},
        {"sim --max-sessions x", "--max-sessions: \"x\" is not a whole number"},
        {"sim --listen '127.0.0.1: 17451'",
         "--listen: bad port \" 17451\" in \"127.0.0.1: 17451" + digits},
        {"sim --listen 127.0.0.1:+17452",
         "--listen: bad port \"+17452\" in \"127.0.0.1:+17452" + digits},
        {"sim --listen '127.0.0.1:17453 '", "bad port \"17453 \""},
        {"sim --listen 127.0.0.1:99999999999999999999", "bad port \"99999999999999999999\""},
        {"info --ctrl 127.0.0.1:0x10", "--ctrl: bad port \"0x10\" in \"127.0.0.1:0x10" + digits},
        {"info --ctrl 127.0.0.1:65536", "bad port \"65536\""},
        {"info --ctrl 127.0.0.1:0",
         "--ctrl: port 0 in \"127.0.0.1:0\": a controller's port is 1 to 65535"},
        {"info --ctrl localhost", "--ctrl: expected ADDR:PORT, got \"localhost\""},
        {"info --ctrl :80", "--ctrl: bad IP address \"\" in \":80\""},
        {"info --ctrl 127.0.0.1:1 --config " + config, "--ctrl excludes --config"},
    };
    for (auto const& [args, err] : refused) {
        auto const result = run(args);
        EXPECT_GT(result.exit_code, 100) << args;
        EXPECT_NE(result.err.find(err), std::string::npos) << args << "\n" << result.err;
        EXPECT_EQ(result.out, "") << args;
    }
    struct {
        std::string args;
        std::vector<char const*> out;  // each somewhere in standard output
    } const helps[] = {
        {"--help", {"SUBCOMMAND", "sim ", "info ", "demo "}},
        {"info --help", {"--time-limit SECONDS:INT in [1 - 3600]=10", "--ctrl ADDR:PORT"}},
        {"demo --help", {"--time-limit SECONDS:INT in [1 - 3600]=10"}},
        {"sim --help",
         {"--listen ADDR:PORT=127.0.0.1:7410", "--max-sessions COUNT:INT in [1 - 100000]=3"}},
    };
    for (auto const& [args, out] : helps) {
        auto const result = run(args);
        EXPECT_EQ(result.exit_code, 0) << args;
        for (auto const text : out) {
            EXPECT_NE(result.out.find(text), std::string::npos) << text << "\n" << result.out;
        }
    }
}

// The client rebuilds everything by itself when its controller dies and
// comes back: no application code takes part.
TEST(Command, ClientRecoversFromAControllerRestart) {
    auto const port = free_port();
    std::optional<testing::sim_process> sim(std::in_place, command, port,
                                            std::vector<std::string>{});
    ASSERT_TRUE(sim->listening);
    asio::io_context io;
    auto const client = create_bt_ctrl(adapters::asio_loop::create(io), std::nullopt,
                                       utils::ip_address("127.0.0.1"), port);
    std::vector<std::string> seen;  // each state, and whether the address is known then
    utils::scoped_link watch = client->notify_on_state_change([&](bt_ctrl::state now) {
        seen.push_back(bt_ctrl::to_string(now) + (client->get_address() ? " at an address" : ""));
        io.stop();
    });
    client->enable([](auto const&, auto const&) {});  // the controller chooses the interface
    // Runs until `count` states have been seen, for 20 s at most.
    auto const run_until = [&](std::size_t count) {
        auto const give_up = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (seen.size() < count && std::chrono::steady_clock::now() < give_up) {
            io.restart();
            io.run_for(std::chrono::milliseconds(200));
        }
    };
    run_until(2);
    sim.reset();
    run_until(3);
    sim.emplace(command, port, std::vector<std::string>{});
    run_until(4);
    EXPECT_EQ(seen, (std::vector<std::string>{"rebooting", "enabled at an address", "rebooting",
                                              "enabled at an address"}));
}

}  // namespace
}  // namespace zelvo::tavrin
