// Configs: the shipped example, the errors of bad ones, and what a config
// makes the controller announce.
#include "tavrin/sim/config.hpp"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <tuple>

#include "sim_client.hpp"

namespace zelvo::tavrin::sim::testing {
namespace {

std::string error_of(std::function<void()> const& action) {
    try {
        action();
    } catch (std::runtime_error const& error) {
        return error.what();
    }
    return "no error";
}

TEST(SimConfig, TheExampleFileLoadsAndIsAnnouncedWithMissingCapsAtFullCapability) {
    auto const settings = config::load(TAVRIN_SIM_EXAMPLE_CONFIG);
    EXPECT_EQ(settings.default_interface, "hci0");
    ASSERT_EQ(settings.interfaces.size(), 2u);
    auto const loop = adapters::test_loop::create();
    controller ctl(loop, settings);
    auto const listening = loop->listen(utils::ip_address("127.0.0.1"), 7200, ctl.accept_handler());
    client c(loop, 7200);
    auto const start = json::parse(c.ask("hdshkStart"));
    EXPECT_EQ(start.at("version"), "2.4.0");
    EXPECT_EQ(start.at("apiVersion"), "1.3.0");
    auto const& hci1 = start.at("ifs").at("hci1");
    EXPECT_EQ(hci1.at("addr"), (json{{"type", "random"}, {"mac", "C2:54:56:00:00:02"}}));
    EXPECT_EQ(hci1.at("part"), "virtual LE radio, legacy");
    auto const& caps = hci1.at("caps");
    EXPECT_EQ(std::make_tuple(caps.at("maxTxPower"), caps.at("maxMtuSize"), caps.at("extAdv"),
                              caps.at("adv"), caps.at("advPhys"), caps.at("addrTypes"),
                              caps.at("gattServerCharValueMaxLen")),
              std::make_tuple(json(4), json(247), json(false), json(true), json::array({"1m"}),
                              json::array({"random"}), json(512)));
    EXPECT_EQ(c.ask("hdshkFinish", {{"if", "hci1"}}), R"({"if":"hci1"})");
    EXPECT_EQ(c.ask("ifStatusGet"), R"({"status":"disabled"})");
}

TEST(SimConfig, ABadConfigIsRefusedNamingTheKey) {
    std::string const addr = R"("addr": {"type": "public", "mac": "02:00:00:00:00:01"})";
    auto const with = [&addr](std::string const& extra) {
        return R"({"interfaces": [{"name": "hci0", )" + addr + extra + "}]}";
    };
    struct row {
        std::string document, error;
    };
    for (
        auto const& r : std::vector<row>{
            {"[]", "(document): expected an object"},
            {R"({"version": "1.0.0"})", "interfaces: expected an array of interfaces"},
            {R"({"interfaces": []})", "interfaces: expected at least one interface"},
            {R"({"interfaces": [{"name": "hci0"}]})", "interfaces[0].addr: missing"},
            {R"({"interface": []})", "interface: unknown key"},
            {with(R"(, "caps": {"maxMTU": 23})"), "interfaces[0].caps.maxMTU: unknown key"},
            {with(R"(, "caps": {"maxMtuSize": 70000})"),
             "interfaces[0].caps.maxMtuSize: expected an integer from 0 to 65535"},
            {with(R"(, "caps": {"maxTxPower": -129})"),
             "interfaces[0].caps.maxTxPower: expected an integer from -128 to 127"},
            {with(R"(, "caps": {"scan": 1})"), "interfaces[0].caps.scan: expected true or false"},
            {with(R"(, "caps": {"advPhys": ["1m", "3m"]})"),
             R"(interfaces[0].caps.advPhys[1]: expected one of "1m", "2m", "coded")"},
            {with(R"(, "status": "off")"),
             R"(interfaces[0].status: expected one of "enabled", "disabled", "rebooting")"},
            {R"({"interfaces": [{"name": "hci0", "addr": {"type": "public", "mac": "02:00"}}]})",
             "interfaces[0].addr.mac: invalid length of mac address: 02:00"},
            {R"({"interfaces": [{"name": "a", "addr": {"type": "public", "mac": "000000000000"}}]})",
             "interfaces[0].addr: not a valid address: 00:00:00:00:00:00-public"},
            {R"({"defaultInterface": "hci1", "interfaces": [{"name": "hci0", )" + addr + "}]}",
             R"(defaultInterface: no interface named "hci1")"},
            {R"({"interfaces": [{"name": "x", )" + addr + R"(}, {"name": "x", )" + addr + "}]}",
             R"(interfaces[1].name: a second interface named "x")"},
        }) {
        EXPECT_EQ(error_of([&r] { config::from_json(json::parse(r.document)); }), r.error)
            << r.document;
    }
}

TEST(SimConfig, LoadingNamesTheFile) {
    std::string const path = ::testing::TempDir() + "sim_config_test.json";
    std::ofstream(path) << R"({"interfaces": [{"name": "hci0", "addr": 5}]})";
    EXPECT_EQ(error_of([&path] { config::load(path); }),
              "simulator config " + path +
                  R"(: interfaces[0].addr: expected an object with "type" and "mac")");
    std::ofstream(path) << "{\"interfaces\": [";
    EXPECT_EQ(
        error_of([&path] {
            config::load(path);
        }).rfind("simulator config " + path + ": not valid JSON: [json.exception.parse_error", 0),
        0u);
    std::remove(path.c_str());
    EXPECT_EQ(error_of([&path] { config::load(path); }),
              "simulator config " + path + ": cannot be opened");
}

}  // namespace
}  // namespace zelvo::tavrin::sim::testing
