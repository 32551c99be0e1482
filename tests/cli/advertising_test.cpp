// The command's advertising over real TCP: `tavrin advertise` against
// `tavrin sim` in another process, plain and connectable with a central of
// the simulator's configuration connecting; the demo's peripheral step;
// the checks of the options.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "command_process.hpp"

namespace zelvo::tavrin::testing {
namespace {

std::string const command = TAVRIN_COMMAND;
std::string const central = "02:54:56:00:02:07-public";

// The example configuration with a central that connects one second after
// a connectable set goes on air, with the keys `extra` adds.
std::string config_with_central(std::string const& extra = "") {
    std::ifstream example(std::string(TAVRIN_SOURCE_DIR) + "/sim/example-config.json");
    std::string text((std::istreambuf_iterator<char>(example)), {});
    auto const end = text.rfind('}');
    text.insert(end, R"(, "centrals": [{"addr": {"type": "public", "mac": "02:54:56:00:02:07"},
                                          "connectAfter": 1)" +
                         extra + "}]");
    auto const path =
        ::testing::TempDir() + "tavrin-centrals-" + std::to_string(getpid()) + ".json";
    std::ofstream(path) << text;
    return path;
}

TEST(CommandAdvertising, AdvertiseStartsAndStopsOnInterrupt) {
    auto const port = free_port();
    sim_process sim(command, port, {});
    ASSERT_TRUE(sim.listening);
    command_process advertising(
        command, {"advertise", "--name", "tavrin", "--uuid", "180F", "--uuid", "0x181a",
                  "--interval", "400", "--ctrl", ctrl(port)});
    ASSERT_TRUE(advertising.wait_for("advertiser started")) << advertising.output();
    EXPECT_EQ(advertising.interrupt(), 0);
    expect_in_order(advertising.output(),
                    {"advertising   flags 06, services 180F 181A, name \"tavrin\", interval 400 "
                     "(250 ms)",
                     "advertiser pending", "guaranteed    ", "advertiser started", "stopping",
                     "advertiser stopping", "advertiser stopped (reason: userRequested)"});
}

// The central connects through the set: the advertiser stops, the
// connection that listen gave opens as incoming; an interrupt closes it.
TEST(CommandAdvertising, AConnectableSetGivesTheCentralsConnection) {
    auto const config = config_with_central();
    auto const port = free_port();
    sim_process sim(command, port, {"--config", config});
    ASSERT_TRUE(sim.listening) << sim.output();
    command_process advertising(
        command, {"advertise", "--connectable", "--name", "t", "--ctrl", ctrl(port)});
    ASSERT_TRUE(advertising.wait_for("central       " + central)) << advertising.output();
    EXPECT_EQ(advertising.interrupt(), 0);
    expect_in_order(advertising.output(),
                    {"connectable", "advertiser started", "connection state opened (incoming",
                     "central       " + central, "stopping",
                     "connection state closed (reason: userRequested)"});
    expect_in_order(advertising.output(), {"advertiser stopped (reason: connectionOpened)"});
    std::remove(config.c_str());
}

// The central's script runs on its connection, and the simulator prints
// each step: here the database is empty, so each is skipped.
TEST(CommandAdvertising, TheSimulatorPrintsWhatAScriptedCentralDoes) {
    auto const config = config_with_central(
        R"(, "gatt": [{"after": 1, "read": "2a19"}, {"after": 2, "subscribe": "2a19"}])");
    auto const port = free_port();
    sim_process sim(command, port, {"--config", config});
    ASSERT_TRUE(sim.listening) << sim.output();
    command_process advertising(command, {"advertise", "--connectable", "--ctrl", ctrl(port)});
    std::string const level = "00002a19-0000-1000-8000-00805f9b34fb";
    ASSERT_TRUE(sim.wait_for("subscribe " + level)) << sim.output();
    EXPECT_EQ(advertising.interrupt(), 0);
    expect_in_order(sim.output(), {"tavrin sim: peer hci0 connection 1: read " + level +
                                       ": no such attribute (step skipped)",
                                   "tavrin sim: peer hci0 connection 1: subscribe " + level +
                                       ": no such attribute (step skipped)"});
    std::remove(config.c_str());
}

// The demo's peripheral step: its database at the controller, advertised;
// the central's connection that listen gave, and what the central and the
// server each see of a read, a write, a subscription and a notification.
TEST(CommandAdvertising, TheDemoServesTheCentralThatListenGave) {
    command_process demo(command, {"demo"});
    ASSERT_EQ(demo.wait_end(), 0) << demo.output();
    expect_in_order(
        demo.output(),
        {"released      the connection slot",
         "* get_gatts(): add_service()",
         "  service 180f [1]",
         "    characteristic 2a19 [3] read notify, value 64",
         "      descriptor 2902 [4] read write",
         "* create_advertiser()",
         "services 180F, name \"tavrin demo\"",
         "  advertiser started",
         "* the central connects (simulated)",
         "  connection: state opened (incoming",
         "  advertiser stopped (reason: connectionOpened)",
         "  connection: incoming from 02:54:56:00:02:01-public",
         "* the central reads the battery level",
         "  read          2a19 [3]: 64",
         "  central sees success 64",
         "* the central writes 74617672696E \"tavrin\"",
         "  write         7a0e1001-5c2b-4f6e-9d3a-1b2c3d4e5f60 [5]: 74617672696E \"tavrin\"",
         "  central sees success",
         "* the central subscribes",
         "  subscribe     2a19 [3]: notifications",
         "  central sees success",
         "* the battery level drops",
         "  notify        2a19 [3]: 63",
         "  central sees a notification of [3]: 63",
         "* the central disconnects (simulated)",
         "  connection: state closed",
         "restarts interface hci0",
         "stopped cleanly"});
}

TEST(CommandAdvertising, OptionsAreChecked) {
    struct {
        std::vector<std::string> args;
        std::string said;
    } const cases[] = {
        {{"advertise", "--uuid", "18"}, "\"18\" is not a 16-bit UUID"},
        {{"advertise", "--uuid", "0000180F-0000-1000-8000-00805F9B34FB"}, "is not a 16-bit UUID"},
        {{"advertise", "--interval", "19"}, "--interval"},
        {{"advertise", "--name", std::string(30, 'n')},
         "more than the 31 of an advertising packet"},
    };
    for (auto const& c : cases) {
        command_process run(command, c.args);
        EXPECT_NE(run.wait_end(), 0);
        EXPECT_NE(run.output().find(c.said), std::string::npos) << run.output();
    }
}

}  // namespace
}  // namespace zelvo::tavrin::testing
