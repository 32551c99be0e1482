// Advertisers: their refusals, their events and queue, listening connections
// and the virtual centrals that connect through them.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sim_client.hpp"
#include "tavrin/utils/mac_address.hpp"

namespace zelvo::tavrin::sim::testing {
namespace {

json const plain = {{"cfg", {{"interval", 160}, {"connectable", false}}}};
json const connectable = {{"cfg", {{"interval", 160}, {"connectable", true}}}};

central const nearby{{bt_ctrl::addr_type::random_address, utils::mac_address("C2:54:56:00:02:01")},
                     std::nullopt,
                     bt_ctrl::phy::m2,
                     185};

// Advertising data of one AD structure that takes `size` bytes on air.
json data_of(std::size_t size) {
    return {{"primary", {{{"type", 255}, {"value", std::string(2 * (size - 2), 'A')}}}}};
}

json with(json body, json const& extra) {
    body.update(extra, true);
    return body;
}

class SimAdvertisers : public SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        c = connect();
        c->bind("hci0");
    }
    simulated_radio& radio() { return *ctl->simulation(); }
    // Sends and runs the loop dry; what arrived, replies and events alike.
    strings exchange(std::string const& name, json const& body) {
        c->arrivals.clear();
        c->send(name, body);
        loop->run();
        return c->arrivals;
    }

    std::unique_ptr<client> c;
};

TEST_F(SimAdvertisers, AStartIsRefusedWithTheControllersCodeAndChangesNothing) {
    ASSERT_TRUE(ctl->set_interface_status("hci1", bt_ctrl::state::enabled));
    auto legacy = connect();
    legacy->bind("hci1");
    c->ask("resvCreate", {{"type", "connection"}});  // resvId 1
    c->ask("resvCreate", {{"type", "advertiser"}});  // resvId 2
    loop->run();
    c->take_heard();
    struct row {
        char const* what;
        bool on_legacy;
        json body;
        std::string expected;
    };
    for (auto const& r : std::vector<row>{
             {"channel 36", false, with(plain, {{"cfg", {{"channelMap", {"ch37", "ch36"}}}}}),
              "app 33"},
             {"channels not a list", false, with(plain, {{"cfg", {{"channelMap", "ch37"}}}}),
              "app 5"},
             {"no cfg", false, {{"data", json::object()}}, "app 5"},
             {"unknown cfg key", false, with(plain, {{"cfg", {{"name", "x"}}}}), "app 5"},
             {"interval below an extended set's", false, with(plain, {{"cfg", {{"interval", 19}}}}),
              "app 5"},
             {"interval above the longest", false, with(plain, {{"cfg", {{"interval", 30001}}}}),
              "app 5"},
             {"interval below a legacy set's", true, with(plain, {{"cfg", {{"interval", 99}}}}),
              "app 5"},
             {"PHY not offered", true, with(plain, {{"cfg", {{"advPhy", "2m"}}}}), "app 8"},
             {"PHY no word", false, with(plain, {{"cfg", {{"advPhy", "m2"}}}}), "app 8"},
             {"power beyond a byte", false, with(plain, {{"cfg", {{"txPower", 128}}}}), "app 5"},
             {"address type", false,
              with(plain, {{"cfg", {{"addr", {{"type", "odd"}, {"mac", "02:00:00:00:00:01"}}}}}}),
              "app 28"},
             {"data beyond a legacy set", true, with(plain, {{"data", data_of(32)}}), "app 34"},
             {"scan response beyond a legacy set", true,
              with(plain, {{"data", {{"scanRsp", data_of(32)["primary"]}}}}), "app 34"},
             {"data beyond an extended set", false, with(plain, {{"data", data_of(252)}}),
              "app 34"},
             {"odd hex digits", false,
              with(plain, {{"data", {{"primary", {{{"type", 1}, {"value", "ABC"}}}}}}}), "app 5"},
             {"not hex", false,
              with(plain, {{"data", {{"primary", {{{"type", 1}, {"value", "ZZ"}}}}}}}), "app 5"},
             {"type beyond a byte", false,
              with(plain, {{"data", {{"primary", {{{"type", 256}}}}}}}), "app 5"},
             {"unknown data key", false, with(plain, {{"data", {{"extra", json::array()}}}}),
              "app 5"},
             {"one reservation of two", false, with(connectable, {{"advResvId", 2}}), "app 36"},
             {"connection reservation without a connection", false,
              with(plain, {{"connResvId", 1}}), "app 36"},
             {"a connection's reservation", false, with(plain, {{"advResvId", 1}}), "app 15"},
             {"an unknown reservation", false, with(plain, {{"advResvId", 9}}), "app 14"},
             {"swapped reservations", false,
              with(connectable, {{"advResvId", 1}, {"connResvId", 2}}), "app 15"},
         }) {
        SCOPED_TRACE(r.what);
        EXPECT_EQ((r.on_legacy ? legacy : c)->ask("advStart", r.body), r.expected);
    }
    EXPECT_EQ(legacy->ask("advStart", with(plain, {{"data", data_of(31)}})).substr(0, 13),
              R"({"advGuarante)");
    EXPECT_EQ(c->ask("advsGet"), R"({"advertisers":{},"maxAdvertisers":1})");
    EXPECT_EQ(c->take_heard(), strings{});

    for (char const* name : {"advStop", "advStatusGet", "advDataGet", "advPhyGet"}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(c->ask(name, {{"advHandle", 7}}), "app 35");
        EXPECT_EQ(c->ask(name, {{"advHandle", "7"}}), "app 5");
    }
    // A fault refuses one that would pass, with no effect.
    ctl->fail_request("advStart", ctrl_error::driver_failure, controller::repeat::once);
    EXPECT_EQ(c->ask("advStart", with(plain, {{"advResvId", 2}})), "app 22");
    EXPECT_EQ(c->ask("advsGet"), R"({"advertisers":{},"maxAdvertisers":1})");
}

TEST_F(SimAdvertisers, AStartIsAnsweredBeforeItsEventsAndAStopEndsIt) {
    auto other = connect();
    other->bind("hci0");
    auto const body = with(
        plain,
        {{"cfg", {{"txPower", 20}, {"advPhy", "coded"}}},
         {"data", {{"primary", {{{"type", 9}, {"value", "6162"}}}}, {"scanRsp", json::array()}}}});
    EXPECT_EQ(exchange("advStart", body),
              (strings{R"(reply {"advGuaranteedTime":30,"advHandle":1,"status":"starting"})",
                       "advStarting", "advsChanged", "freeResvsChanged", "advStarted"}));
    EXPECT_EQ(
        other->take_heard(),
        (strings{
            R"(advStarting {"addr":{"mac":"02:54:56:00:00:01","type":"public"},"advHandle":1})",
            R"(advsChanged {"advertisers":{"1":{"piq":0}},"maxAdvertisers":1})",
            R"(freeResvsChanged {"advertiser":0,"connection":2})",
            R"(advStarted {"addr":{"mac":"02:54:56:00:00:01","type":"public"},"advHandle":1})"}));
    strings answers;
    for (char const* name :
         {"advStatusGet", "advDataGet", "advAddressGet", "advIntervalGet", "advTxPowerGet",
          "advChannelMapGet", "advPhyGet", "advConnectionGet"}) {
        answers.push_back(c->ask(name, {{"advHandle", 1}}));
    }
    EXPECT_EQ(answers,
              (strings{R"({"status":"started"})",
                       R"({"data":{"primary":[{"type":9,"value":"6162"}],"scanRsp":[]}})",
                       R"({"addr":{"mac":"02:54:56:00:00:01","type":"public"}})",
                       R"({"interval":160})", R"({"txPower":10})",
                       R"({"channelMap":["ch37","ch38","ch39"]})", R"({"advPhy":"coded"})", "{}"}));
    auto const scanned = radio().central_scan("hci0", 1);
    ASSERT_TRUE(scanned);
    EXPECT_EQ(scanned->data, (std::vector<unsigned char>{3, 9, 'a', 'b'}));
    EXPECT_TRUE(scanned->scan_response.empty());
    EXPECT_FALSE(scanned->connectable);
    EXPECT_EQ(radio().central_connect("hci0", 1, nearby), central_result::not_connectable);

    EXPECT_EQ(
        exchange("advStop", {{"advHandle", 1}}),
        (strings{"reply {}", "advStopping", "advStopped", "advsChanged", "freeResvsChanged"}));
    EXPECT_EQ(other->take_heard()[1], R"(advStopped {"advHandle":1,"reason":"userRequested"})");
    EXPECT_EQ(c->ask("advStop", {{"advHandle", 1}}), "app 35");
    EXPECT_FALSE(radio().central_scan("hci0", 1));
}

// One advertiser slot: a second advertiser waits, and takes the slot when
// the first has had its guaranteed time.
TEST_F(SimAdvertisers, AWaitingAdvertiserRotatesOneOutAfterItsGuaranteedTime) {
    c->ask("advStart", plain);
    loop->run();
    c->take_heard();
    EXPECT_EQ(c->ask("advStart", plain),
              R"({"advGuaranteedTime":30,"advHandle":2,"status":"pending"})");
    controller::limits bounded;
    bounded.max_queue = 1;
    ctl->set_limits(bounded);
    EXPECT_EQ(c->ask("advStart", plain), "app 13");
    EXPECT_EQ(
        c->take_heard(),
        (strings{
            R"(advPending {"addr":{"mac":"02:54:56:00:00:01","type":"public"},"advHandle":2})",
            R"(advsChanged {"advertisers":{"1":{"piq":0},"2":{"piq":1}},"maxAdvertisers":1})"}));
    loop->advance(29s);
    EXPECT_EQ(c->take_heard(), strings{});
    loop->advance(1s);
    loop->run();
    auto const heard = c->take_heard();
    ASSERT_EQ(heard.size(), 5u);
    EXPECT_EQ(heard[0].substr(0, 27), R"(advStopping {"addr":{"mac":)");
    EXPECT_EQ(heard[1], R"(advStopped {"advHandle":1,"reason":"resourceRotation"})");
    EXPECT_EQ(heard[2].substr(0, 27), R"(advStarting {"addr":{"mac":)");
    EXPECT_EQ(heard[3], R"(advsChanged {"advertisers":{"2":{"piq":0}},"maxAdvertisers":1})");
    EXPECT_EQ(heard[4].substr(0, 26), R"(advStarted {"addr":{"mac":)");
    EXPECT_EQ(c->ask("advStatusGet", {{"advHandle", 2}}), R"({"status":"started"})");
}

TEST_F(SimAdvertisers, ACentralConnectsThroughAListeningConnection) {
    EXPECT_EQ(
        exchange("advStart", connectable),
        (strings{
            R"(reply {"advGuaranteedTime":30,"advHandle":1,"connGuaranteedTime":30,"connHandle":1,"status":"starting"})",
            "advStarting", "connOpening", "connsChanged", "advsChanged", "freeResvsChanged",
            "advStarted"}));
    EXPECT_EQ(c->take_heard()[1], R"(connOpening {"connDirection":"incoming","connHandle":1})");
    EXPECT_EQ(c->ask("advConnectionGet", {{"advHandle", 1}}), "{}");
    EXPECT_EQ(c->ask("connStatusGet", {{"connHandle", 1}}), R"({"status":"opening"})");
    EXPECT_TRUE(radio().central_scan("hci0", 1)->connectable);

    EXPECT_EQ(radio().central_connect("hci0", 1, nearby), central_result::connected);
    EXPECT_EQ(radio().central_connect("hci0", 1, nearby), central_result::no_such_set);
    loop->run();
    EXPECT_EQ(
        c->take_heard(),
        (strings{
            R"(connOpened {"connDirection":"incoming","connHandle":1,"connMtu":185,"connPhy":"2m"})",
            R"(connParams {"connHandle":1,"connParams":{"intervalMax":40,"intervalMin":24,"latency":0,"timeout":500}})",
            R"(advStopped {"advHandle":1,"reason":"connectionOpened"})",
            R"(advsChanged {"advertisers":{},"maxAdvertisers":1})",
            R"(freeResvsChanged {"advertiser":1,"connection":1})"}));
    EXPECT_EQ((strings{c->ask("advConnectionGet", {{"advHandle", 1}}),
                       c->ask("advStatusGet", {{"advHandle", 1}}),
                       c->ask("connAddressGet", {{"connHandle", 1}}),
                       c->ask("connDirectionGet", {{"connHandle", 1}})}),
              (strings{R"({"connHandle":1})", "app 35",
                       R"({"addr":{"mac":"C2:54:56:00:02:01","type":"random"}})",
                       R"({"connDirection":"incoming"})"}));

    // The advertiser is forgotten with the connection it gave.
    EXPECT_TRUE(radio().peer_disconnect(nearby.address));
    loop->run();
    EXPECT_EQ(c->take_heard().front(), R"(connClosed {"connHandle":1,"reason":"unknown"})");
    EXPECT_EQ(c->ask("advConnectionGet", {{"advHandle", 1}}), "app 35");
}

TEST_F(SimAdvertisers, ClosingAListeningConnectionStopsItsAdvertiserAndTheOtherWayRound) {
    struct row {
        std::string request;
        json body;
        strings arrivals;
        int handle;
    };
    for (auto const& r : std::vector<row>{
             {"connClose",
              {{"connHandle", 1}},
              {"reply {}", "connClosing", "advStopping", "advStopped", "advsChanged", "connClosed",
               "connsChanged", "freeResvsChanged"},
              1},
             {"advStop",
              {{"advHandle", 2}},
              {"reply {}", "advStopping", "connClosing", "advStopped", "advsChanged", "connClosed",
               "connsChanged", "freeResvsChanged"},
              2},
         }) {
        SCOPED_TRACE(r.request);
        exchange("advStart", connectable);
        c->take_heard();
        EXPECT_EQ(exchange(r.request, r.body), r.arrivals);
        auto const heard = c->take_heard();
        EXPECT_NE(std::find(heard.begin(), heard.end(),
                            R"(connClosed {"connHandle":)" + std::to_string(r.handle) +
                                R"(,"reason":"userRequested"})"),
                  heard.end());
        EXPECT_EQ(c->ask("connsGet"), R"({"connections":{},"maxConnections":2})");
    }

    // A listening connection goes down with its interface, advertiser first.
    exchange("advStart", connectable);
    c->take_heard();
    ctl->set_interface_status("hci0", bt_ctrl::state::disabled);
    loop->run();
    EXPECT_EQ(c->take_heard(),
              (strings{R"(advStopped {"advHandle":3,"reason":"interfaceUnavailable"})",
                       R"(advsChanged {"advertisers":{},"maxAdvertisers":1})",
                       R"(connClosed {"connHandle":3,"reason":"interfaceUnavailable"})",
                       R"(connsChanged {"connections":{},"maxConnections":2})",
                       R"(freeResvsChanged {"advertiser":1,"connection":2})"}));
}

TEST_F(SimAdvertisers, NewDataGoOnAirAndEveryClientHearsOfThem) {
    auto other = connect();
    other->bind("hci0");
    c->ask("advStart", plain);
    loop->run();
    c->take_heard();
    other->take_heard();
    auto const data = json{{"primary", {{{"type", 1}, {"value", "06"}}, {{"type", 1}}}},
                           {"scanRsp", {{{"type", 9}, {"value", "4142"}}}}};
    EXPECT_EQ(c->ask("advDataSet", {{"advHandle", 1}, {"data", data}}), "{}");
    auto const changed =
        R"(advDataChanged {"advHandle":1,"data":{"primary":[{"type":1,"value":"06"},{"type":1}],"scanRsp":[{"type":9,"value":"4142"}]}})";
    EXPECT_EQ(c->take_heard(), strings{changed});
    EXPECT_EQ(other->take_heard(), strings{changed});
    EXPECT_EQ(
        c->ask("advDataGet", {{"advHandle", 1}}),
        R"({"data":{"primary":[{"type":1,"value":"06"},{"type":1}],"scanRsp":[{"type":9,"value":"4142"}]}})");
    auto const scanned = radio().central_scan("hci0", 1);
    ASSERT_TRUE(scanned);
    EXPECT_EQ(scanned->data, (std::vector<unsigned char>{2, 1, 6, 1, 1}));
    EXPECT_EQ(scanned->scan_response, (std::vector<unsigned char>{3, 9, 'A', 'B'}));

    EXPECT_EQ(c->ask("advDataSet", {{"advHandle", 1}, {"data", data_of(252)}}), "app 34");
    EXPECT_EQ(c->ask("advDataSet", {{"advHandle", 1}}), "app 5");
    EXPECT_EQ(other->take_heard(), strings{});
}

TEST(SimCentrals, AConfigsCentralConnectsOnceAfterItsDelay) {
    auto settings = config::builtin();
    auto waiting = nearby;
    waiting.connect_after = 5s;
    settings.centrals.push_back(waiting);
    auto const loop = adapters::test_loop::create();
    controller ctl(loop, settings);
    auto const listening_link =
        loop->listen(utils::ip_address("127.0.0.1"), 7101, ctl.accept_handler());
    client c(loop, 7101);
    c.bind();
    c.ask("advStart", connectable);
    loop->advance(4s);
    EXPECT_EQ(c.ask("advConnectionGet", {{"advHandle", 1}}), "{}");
    loop->advance(1s);
    loop->run();
    EXPECT_EQ(c.ask("advConnectionGet", {{"advHandle", 1}}), R"({"connHandle":1})");
    c.ask("advStart", connectable);
    loop->advance(60s);
    EXPECT_EQ(c.ask("advStatusGet", {{"advHandle", 2}}), R"({"status":"started"})");

    EXPECT_THROW(
        config::from_json(json::parse(
            R"({"interfaces":[{"name":"a","addr":{"type":"public","mac":"02:00:00:00:00:01"}}],
                         "centrals":[{"addr":{"type":"public","mac":"02:00:00:00:00:02"},"connectAfter":-1}]})")),
        std::runtime_error);
}

}  // namespace
}  // namespace zelvo::tavrin::sim::testing
