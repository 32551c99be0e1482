// `tavrin serve` over real TCP: the example file served to the example's
// scripted central of `tavrin sim` in another process, as both sides tell
// it; and a bad file refused before anything runs.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "command_process.hpp"

namespace zelvo::tavrin::testing {
namespace {

std::string const command = TAVRIN_COMMAND;
std::string const example = TAVRIN_SOURCE_DIR "/examples/gatt-battery.json";
// A central that connects a second after the set goes on air, reads the
// battery level, subscribes to the greeting, writes it, reads it back, and
// reads its description.
std::string const centrals = TAVRIN_SOURCE_DIR "/examples/sim-battery-central.json";
std::string const greeting = "7a0e1001-5c2b-4f6e-9d3a-1b2c3d4e5f60";

std::string temp_file(std::string const& name, std::string const& text) {
    auto const path = ::testing::TempDir() + "tavrin-" + name + "-" + std::to_string(getpid());
    std::ofstream(path) << text;
    return path;
}

TEST(CommandServe, TheExampleIsServedToAScriptedCentral) {
    auto const port = free_port();
    sim_process sim(command, port, {"--config", centrals});
    ASSERT_TRUE(sim.listening) << sim.output();
    command_process serve(command,
                          {"serve", "--gatt", example, "--name", "tavrin", "--ctrl", ctrl(port)});
    ASSERT_TRUE(serve.wait_for("read          2901")) << serve.output();
    EXPECT_EQ(serve.interrupt(), 0) << serve.output();

    // The database as built, advertised, then each peer operation.
    auto const out = serve.output();
    expect_in_order(out, {"building      2 service(s)", "service 180f [1]",
                          "characteristic 2a19 [3] read notify, value 64",
                          "descriptor 2902 [4] read write", "characteristic " + greeting,
                          "descriptor 2901 [7] read, value 6772656574696E67 \"greeting\"",
                          "listening     flags 06, services 180F, name \"tavrin\"",
                          "connection state opened (incoming"});
    expect_in_order(
        out, {"read          2a19 [3]: 64", "subscribe     " + greeting + " [5]: notifications",
              "write         " + greeting + " [5]: 776F726C64 \"world\"",
              "notify        " + greeting + " [5]: 776F726C64 \"world\"",
              "read          " + greeting + " [5]: 776F726C64 \"world\"",
              "read          2901 [7]: 6772656574696E67 \"greeting\"", "stopping",
              "connection state closed (reason: userRequested)", "removing      2 service(s)",
              "disabling"});
    EXPECT_NE(out.find("central       02:54:56:00:02:07-public"), std::string::npos) << out;

    // What the central saw: the value read, the subscription and the write
    // answered, the notification of the value it wrote, the value stored.
    auto const seen = sim.output();
    for (auto const text :
         {"read 3 offset 0: success 64", "write 6 offset 0 0100: success",
          "write 5 offset 0 776F726C64: success", "notification 5 776F726C64",
          "read 5 offset 0: success 776F726C64", "read 7 offset 0: success 6772656574696E67"}) {
        EXPECT_NE(seen.find(text), std::string::npos) << text << "\n" << seen;
    }
}

// The run ends with exit code 1 and one line naming the file, the entry and
// the fault, before any controller is asked.
TEST(CommandServe, ABadFileIsRefusedWithOneLine) {
    auto const bad = temp_file("bad-gatt.json", R"({"services": [{"uuid": "180F",
        "characteristics": [{"uuid": "2A19", "properties": ["read", "notify"]}]}]})");
    struct {
        std::string file;
        std::string line;
    } const cases[] = {
        {bad, "tavrin: " + bad +
                  ": services[0].characteristics[0].descriptors: notify or indicate needs a 2902 "
                  "descriptor, by which peers subscribe\n"},
        {bad + ".missing", "tavrin: " + bad + ".missing: cannot be opened\n"},
    };
    for (auto const& c : cases) {
        command_process run(command, {"serve", "--gatt", c.file, "--ctrl", "127.0.0.1:1"});
        EXPECT_EQ(run.wait_end(), 1);
        EXPECT_EQ(run.output(), c.line);
    }
    std::remove(bad.c_str());
}

}  // namespace
}  // namespace zelvo::tavrin::testing
