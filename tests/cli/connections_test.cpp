// The command's connection features over real TCP: the demo's connection
// step against the simulator it embeds and against `tavrin sim` in another
// process, `tavrin connect` closing on interrupt, and `tavrin watch` telling
// of another client's connection as it happens.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <asio.hpp>

#include "command_process.hpp"

namespace zelvo::tavrin::testing {
namespace {

std::string const command = TAVRIN_COMMAND;
std::string const peer = "02:54:56:00:01:01-public";

// The demo connects, shows each change as the controller reports it, closes
// and frees its slot; what only a simulated peer does needs the simulator in
// the same process.
TEST(CommandConnections, TheDemoWalksThroughAConnection) {
    auto const port = free_port();
    sim_process sim(command, port, {});
    ASSERT_TRUE(sim.listening);
    std::vector<std::string> const opening = {
        "* add_reservation(connection, " + peer + ")",
        "reserved      a connection slot for " + peer,
        "  connection: state pending",
        "connect(): accepted, guaranteed for 0 s",
        "  connection: state opening",
        "  connection: state opened (outgoing, MTU 247)",
        "  signal: quality 80, strength -60 dBm",
        "  PHY: 2m",
        "* set_phy(1m)",
        "  connection: PHY 1m",
        "* set_params(12, 24, 0, 400)",
        "  connection: parameters interval 12-24 (15-30 ms), latency 0, timeout 400 (4000 ms)"};
    std::vector<std::string> const closing = {"* close()", "  connection: state closing",
                                              "  connection: state closed (reason: userRequested)",
                                              "released      the connection slot"};

    command_process embedded(command, {"demo"});
    ASSERT_EQ(embedded.wait_end(), 0) << embedded.output();
    auto out = embedded.output();
    expect_in_order(out, opening);
    expect_in_order(out, {"* the peer asks for an MTU of 185", "  connection: MTU 185",
                          "  signal: quality 45, strength -82 dBm"});
    expect_in_order(out, closing);
    expect_in_order(
        out, {"released      the connection slot", "restarts interface hci0", "stopped cleanly"});

    command_process remote(command, {"demo", "--ctrl", ctrl(port)});
    ASSERT_EQ(remote.wait_end(), 0) << remote.output();
    out = remote.output();
    expect_in_order(out, opening);
    expect_in_order(out, {"the peer's own changes need the simulator in this process: skipped"});
    expect_in_order(out, closing);
    EXPECT_EQ(out.find("MTU 185"), std::string::npos);
}

// connect prints what the controller says and every change; an interrupt
// closes the connection, and the run ends well once it is closed. To a peer
// nobody sees, the connection waits, and an interrupt ends the wait.
TEST(CommandConnections, ConnectOpensAndClosesOnInterrupt) {
    auto const port = free_port();
    sim_process sim(command, port, {});
    ASSERT_TRUE(sim.listening);
    struct {
        std::string address;
        std::string waits_for;
        std::vector<std::string> shown;
        std::vector<std::string> after_interrupt;
    } const cases[] = {
        {peer,
         "signal        quality 80",
         {"connecting to " + peer, "state pending", "state opened (outgoing, MTU 247)"},
         {"closing", "state closing", "state closed (reason: userRequested)"}},
        {"02:54:56:00:09:09-random",
         "state pending",
         {"connecting to 02:54:56:00:09:09-random", "state pending"},
         {"closing", "state closed"}},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.address);
        command_process connecting(command, {"connect", c.address, "--ctrl", ctrl(port)});
        ASSERT_TRUE(connecting.wait_for(c.waits_for)) << connecting.output();
        EXPECT_EQ(connecting.interrupt(), 0);
        auto const out = connecting.output();
        expect_in_order(out, c.shown);
        expect_in_order(out, c.after_interrupt);
        if (c.address != peer) {
            EXPECT_EQ(out.find("state opened"), std::string::npos);
        }
    }
    command_process opened(command, {"connect", peer, "--ctrl", ctrl(port)});
    ASSERT_TRUE(opened.wait_for("signal        ")) << opened.output();
    for (auto const* line : {"address       ", "PHY           2m", "parameters    interval 24-40",
                             "signal        quality 80"}) {
        EXPECT_TRUE(opened.wait_for(line)) << line << "\n" << opened.output();
    }
    EXPECT_EQ(opened.interrupt(), 0);
}

// watch tells of another client's connection from its first state to its
// last, each line with the time of day.
TEST(CommandConnections, WatchTellsOfAnotherClientsConnection) {
    auto const port = free_port();
    sim_process sim(command, port, {});
    ASSERT_TRUE(sim.listening);
    command_process watching(command, {"watch", "--ctrl", ctrl(port)});
    ASSERT_TRUE(watching.wait_for("client state enabled")) << watching.output();
    {
        command_process connecting(command, {"connect", peer, "--ctrl", ctrl(port)});
        ASSERT_TRUE(connecting.wait_for("state opened")) << connecting.output();
        ASSERT_TRUE(watching.wait_for("connection #1 state opened")) << watching.output();
        EXPECT_EQ(connecting.interrupt(), 0);
    }
    ASSERT_TRUE(watching.wait_for("connection #1 state closed (reason: userRequested)"))
        << watching.output();
    EXPECT_EQ(watching.interrupt(), 0);
    auto const out = watching.output();
    expect_in_order(out, {"free reservations ", "new connection #1, state pending",
                          "connection #1 state opened", "connection #1 state closed"});
    // hh:mm:ss.mmm before each line of the watch.
    auto const at = out.find("new connection #1");
    ASSERT_GE(at, 13u);
    EXPECT_EQ(out[at - 1], ' ');
    EXPECT_EQ(out[at - 5], '.');
    EXPECT_EQ(out[at - 8], ':');
    EXPECT_EQ(out[at - 11], ':');
}

TEST(CommandConnections, AddressesAreChecked) {
    struct {
        std::vector<std::string> args;
        std::string said;
    } const cases[] = {
        {{"connect"}, "ADDRESS is required"},
        {{"connect", "02:54:56"}, "bad address \"02:54:56\""},
        {{"connect", "02:54:56:00:01:01-weird"}, "bad address type \"weird\""},
        {{"demo", "--peer", "zz:54:56:00:01:01"}, "bad address \"zz:54:56:00:01:01\""},
    };
    for (auto const& c : cases) {
        command_process run(command, c.args);
        EXPECT_NE(run.wait_end(), 0);
        EXPECT_NE(run.output().find(c.said), std::string::npos) << run.output();
    }
}

}  // namespace
}  // namespace zelvo::tavrin::testing
