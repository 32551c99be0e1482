// Peers' GATT operations on a connection: a virtual central reads, writes
// and subscribes, every session of the interface hears the event, and the
// client's answers, refusals, timeouts and the connection's end reach the
// peer; values pushed to a subscribed peer; scripted centrals and their
// config keys.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "sim_client.hpp"
#include "tavrin/misc/hex.hpp"
#include "tavrin/utils/mac_address.hpp"

namespace zelvo::tavrin::sim::testing {
namespace {

using bytes = std::vector<unsigned char>;

std::string hex(bytes const& data) {
    return misc::to_hex_string(data, "", true);
}

bt_ctrl::address const central_address{bt_ctrl::addr_type::random_address,
                                       utils::mac_address("C2:54:56:00:02:01")};

json char_add(unsigned parent, std::string const& uuid, strings const& properties) {
    return {{"parentHandle", parent},
            {"uuid", uuid},
            {"properties", properties},
            {"permissions", {"read", "write"}}};
}
json desc_add(unsigned parent, std::string const& uuid) {
    return {{"parentHandle", parent}, {"uuid", uuid}, {"permissions", {"read", "write"}}};
}
json answer(unsigned handle, std::string const& status, std::string const& data = "") {
    json body = {{"connHandle", 1}, {"handle", handle}, {"status", status}};
    if (!data.empty()) {
        body["data"] = data;
    }
    return body;
}
json read_answer(unsigned handle, std::string const& status, std::string const& data) {
    return {{"connHandle", 1}, {"handle", handle}, {"status", status}, {"data", data}};
}
json notify(unsigned handle, std::string const& data, bool indication) {
    return {{"connHandle", 1}, {"handle", handle}, {"data", data}, {"responseNeeded", indication}};
}

// hci0 with 1 an enabled service holding 2 (2a19: read, write, notify,
// indicate) with its CCCD 3 and a description 4, and 7 (2a1a: read only, no
// CCCD); 5 a disabled service holding 6 (2a19). Connection 1 is open to a
// central with an MTU of 23.
class SimPeerGatt : public SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        ctl->set_log_handler([this](std::string const& line) { lines.push_back(line); });
        c = connect();
        c->bind("hci0");
        for (auto const& [name, body] : std::vector<std::pair<char const*, json>>{
                 {"gattsServiceAdd", {{"uuid", "180f"}, {"enabled", true}}},
                 {"gattsCharAdd", char_add(1, "2a19", {"read", "write", "notify", "indicate"})},
                 {"gattsDescAdd", desc_add(2, "2902")},
                 {"gattsDescAdd", desc_add(2, "2901")},
                 {"gattsServiceAdd", {{"uuid", "1811"}, {"enabled", false}}},
                 {"gattsCharAdd", char_add(5, "2a19", {"read", "notify"})},
                 {"gattsCharAdd", char_add(1, "2a1a", {"read"})},
             }) {
            ASSERT_NE(c->ask(name, body).substr(0, 4), "app ") << name << " " << body.dump();
        }
        c->ask("advStart", {{"cfg", {{"interval", 160}, {"connectable", true}}}});
        central who{central_address, std::nullopt, bt_ctrl::phy::m1, 23};
        who.gatt = script;
        ASSERT_EQ(ctl->simulation()->central_connect("hci0", 1, who), central_result::connected);
        loop->run();
        c->take_heard();
        lines.clear();
        outcomes.clear();
    }
    att_handler record() {
        return [this](att_outcome const& seen) {
            outcomes.push_back(seen.status + (seen.data.empty() ? "" : " " + hex(seen.data)));
        };
    }

    std::vector<gatt_step> script;
    std::unique_ptr<client> c;
    strings outcomes, lines;
};

struct exchange {
    char const* what;
    std::function<bool(controller&, att_handler)> start;
    std::string event;
    char const* request;
    json body;
    std::string outcome;
};

TEST_F(SimPeerGatt, EveryOperationReachesEverySessionAndItsAnswerThePeer) {
    auto other = connect();
    other->bind("hci0");
    std::vector<exchange> const cases = {
        {"characteristic read",
         [](controller& ctl, att_handler done) { return ctl.peer_read("hci0", 1, 2, 0, done); },
         R"(gattsCharValueRead {"connHandle":1,"handle":2,"offset":0})",
         "gattsCharValueReadResponse", read_answer(2, "success", "0aff"), "success 0AFF"},
        {"refused read: its data stay with the client",
         [](controller& ctl, att_handler done) { return ctl.peer_read("hci0", 1, 2, 0, done); },
         R"(gattsCharValueRead {"connHandle":1,"handle":2,"offset":0})",
         "gattsCharValueReadResponse", read_answer(2, "readNotPermitted", "01"),
         "readNotPermitted"},
        {"descriptor read at an offset",
         [](controller& ctl, att_handler done) { return ctl.peer_read("hci0", 1, 4, 2, done); },
         R"(gattsDescValueRead {"connHandle":1,"handle":4,"offset":2})",
         "gattsDescValueReadResponse", read_answer(4, "success", "41"), "success 41"},
        {"characteristic write",
         [](controller& ctl, att_handler done) {
             return ctl.peer_write("hci0", 1, 2, {1, 2}, 0, true, done);
         },
         R"(gattsCharValueWrite {"connHandle":1,"data":"0102","handle":2,"offset":0,"responseNeeded":true})",
         "gattsCharValueWriteResponse", answer(2, "writeNotPermitted"), "writeNotPermitted"},
        {"descriptor write",
         [](controller& ctl, att_handler done) {
             return ctl.peer_write("hci0", 1, 4, {0xab}, 1, true, done);
         },
         R"(gattsDescValueWrite {"connHandle":1,"data":"AB","handle":4,"offset":1})",
         "gattsDescValueWriteResponse", answer(4, "success"), "success"},
    };
    for (auto const& step : cases) {
        SCOPED_TRACE(step.what);
        outcomes.clear();
        ASSERT_TRUE(step.start(*ctl, record()));
        loop->run();
        EXPECT_EQ(c->take_heard(), strings{step.event});
        EXPECT_EQ(other->take_heard(), strings{step.event});
        EXPECT_TRUE(outcomes.empty());
        EXPECT_EQ(other->ask(step.request, step.body), "{}");
        EXPECT_EQ(outcomes, strings{step.outcome});
    }
    EXPECT_EQ(lines.front(), "peer hci0 connection 1: read 2 offset 0");
    EXPECT_EQ(lines[1], "peer hci0 connection 1: read 2 offset 0: success 0AFF");
}

TEST_F(SimPeerGatt, AWriteCommandCompletesAtOnceAndAnAnswerToNothingIsDropped) {
    ASSERT_TRUE(ctl->peer_write("hci0", 1, 2, {7}, 0, false, record()));
    loop->run();
    EXPECT_EQ(outcomes, strings{"success"});
    EXPECT_EQ(
        c->take_heard(),
        strings{
            R"(gattsCharValueWrite {"connHandle":1,"data":"07","handle":2,"offset":0,"responseNeeded":false})"});
    EXPECT_EQ(c->ask("gattsCharValueWriteResponse", answer(2, "success")), "{}");
    EXPECT_EQ(outcomes, strings{"success"});
    EXPECT_EQ(lines.back(),
              "peer hci0 connection 1: dropped the client's write answer for 2: no write of it is "
              "pending");
}

TEST_F(SimPeerGatt, SubscriptionsDecideWhatReachesThePeer) {
    auto const subscribe = [&](bool indications, std::string const& status) {
        EXPECT_TRUE(ctl->peer_subscribe("hci0", 1, 2, indications, record()));
        loop->run();
        EXPECT_EQ(c->take_heard(),
                  strings{std::string(R"(gattsDescValueWrite {"connHandle":1,"data":")") +
                          (indications ? "0200" : "0100") + R"(","handle":3,"offset":0})"});
        EXPECT_EQ(c->ask("gattsDescValueWriteResponse", answer(3, status)), "{}");
    };
    auto const push = [&] {
        return strings{c->ask("gattsCharValueSetNotify", notify(2, "0102", false)),
                       c->ask("gattsCharValueSetNotify", notify(2, "0304", true))};
    };
    EXPECT_EQ(push(), (strings{"app 44", "app 44"}));
    subscribe(false, "success");
    EXPECT_EQ(push(), (strings{"{}", "app 44"}));
    subscribe(true, "success");
    EXPECT_EQ(push(), (strings{"app 44", "{}"}));
    // A configuration the client refuses changes nothing.
    subscribe(false, "cccdImproperlyConfigured");
    EXPECT_EQ(push(), (strings{"app 44", "{}"}));
    EXPECT_EQ(outcomes, (strings{"success", "success", "cccdImproperlyConfigured"}));

    auto const values = ctl->peer_values("hci0", 1);
    ASSERT_EQ(values.size(), 3u);
    EXPECT_EQ((std::vector<bool>{values[0].indication, values[1].indication, values[2].indication}),
              (std::vector<bool>{false, true, true}));
    EXPECT_EQ(values[0].handle, 2u);
    EXPECT_EQ(hex(values[0].data) + hex(values[1].data), "01020304");
    EXPECT_EQ(lines.back(), "peer hci0 connection 1: indication 2 0304 (confirmed)");
    // Writing the configuration by hand turns it off.
    ASSERT_TRUE(ctl->peer_write("hci0", 1, 3, {0, 0}, 0, true, nullptr));
    EXPECT_EQ(c->ask("gattsDescValueWriteResponse", answer(3, "success")), "{}");
    EXPECT_EQ(push(), (strings{"app 44", "app 44"}));
}

TEST_F(SimPeerGatt, AnAnswerCompletesTheOldestOperationOfItsKindOnItsAttribute) {
    strings seen;
    auto const tagged = [&seen](std::string tag) {
        return [&seen, tag](att_outcome const& outcome) {
            seen.push_back(tag + " " + outcome.status + " " + hex(outcome.data));
        };
    };
    ASSERT_TRUE(ctl->peer_read("hci0", 1, 2, 0, tagged("first")));
    ASSERT_TRUE(ctl->peer_read("hci0", 1, 4, 0, tagged("descriptor")));
    ASSERT_TRUE(ctl->peer_write("hci0", 1, 2, {5}, 0, true, tagged("write")));
    ASSERT_TRUE(ctl->peer_read("hci0", 1, 2, 0, tagged("second")));
    EXPECT_EQ(c->ask("gattsCharValueWriteResponse", answer(2, "success")), "{}");
    EXPECT_EQ(c->ask("gattsCharValueReadResponse", read_answer(2, "success", "01")), "{}");
    EXPECT_EQ(c->ask("gattsCharValueReadResponse", read_answer(2, "success", "02")), "{}");
    EXPECT_EQ(seen, (strings{"write success ", "first success 01", "second success 02"}));
}

TEST_F(SimPeerGatt, ThePeerKeepsTheLastValues) {
    ASSERT_TRUE(ctl->peer_subscribe("hci0", 1, 2, false, nullptr));
    c->ask("gattsDescValueWriteResponse", answer(3, "success"));
    for (unsigned i = 0; i <= max_peer_values; ++i) {
        ASSERT_EQ(c->ask("gattsCharValueSetNotify",
                         notify(2, hex({static_cast<unsigned char>(i)}), false)),
                  "{}");
    }
    auto const values = ctl->peer_values("hci0", 1);
    ASSERT_EQ(values.size(), max_peer_values);
    EXPECT_EQ(hex(values.front().data), "01");
    EXPECT_EQ(hex(values.back().data), hex({static_cast<unsigned char>(max_peer_values)}));
}

TEST_F(SimPeerGatt, AnUnansweredOperationTimesOut) {
    ASSERT_TRUE(ctl->peer_read("hci0", 1, 2, 0, record()));
    loop->advance(29s);
    ASSERT_TRUE(ctl->peer_write("hci0", 1, 2, {1}, 0, true, record()));
    EXPECT_TRUE(outcomes.empty());
    loop->advance(1s);
    EXPECT_EQ(outcomes, strings{"timeout"});
    // Too late: the read is no longer pending.
    EXPECT_EQ(c->ask("gattsCharValueReadResponse", read_answer(2, "success", "01")), "{}");
    EXPECT_EQ(outcomes, strings{"timeout"});
    loop->advance(29s);
    EXPECT_EQ(outcomes, (strings{"timeout", "timeout"}));
}

TEST_F(SimPeerGatt, TheConnectionsEndEndsItsOperations) {
    std::vector<std::pair<char const*, std::function<void()>>> const endings = {
        {"closed by the client",
         [&] {
             c->ask("connClose", {{"connHandle", 1}});
         }},
        {"closed by the peer",
         [&] { ASSERT_TRUE(ctl->simulation()->peer_disconnect(central_address)); }},
        {"the interface goes down",
         [&] { ASSERT_TRUE(ctl->set_interface_status("hci0", bt_ctrl::state::disabled)); }},
    };
    for (auto const& [what, end] : endings) {
        SCOPED_TRACE(what);
        restart();
        SetUp();
        ASSERT_TRUE(ctl->peer_subscribe("hci0", 1, 2, false, nullptr));
        c->ask("gattsDescValueWriteResponse", answer(3, "success"));
        c->ask("gattsCharValueSetNotify", notify(2, "01", false));
        ASSERT_TRUE(ctl->peer_write("hci0", 1, 2, {1}, 0, true, record()));
        ASSERT_TRUE(ctl->peer_read("hci0", 1, 4, 0, record()));
        end();
        loop->run();
        EXPECT_EQ(outcomes, (strings{"disconnected", "disconnected"}));
        EXPECT_FALSE(ctl->peer_read("hci0", 1, 2, 0, record()));
        EXPECT_TRUE(ctl->peer_values("hci0", 1).empty());
        loop->advance(60s);
        EXPECT_EQ(outcomes.size(), 2u);
    }
}

TEST_F(SimPeerGatt, TheControllerRefusesBadAnswers) {
    // Connection 2 listens through a new advertiser: not open.
    c->ask("advStart", {{"cfg", {{"interval", 160}, {"connectable", true}}}});
    std::string const longest(2 * 512, 'A');
    struct refusal {
        char const* request;
        json body;
        std::string reply;
    };
    std::vector<refusal> const cases = {
        {"gattsCharValueReadResponse",
         {{"connHandle", 1}, {"handle", 2}, {"status", "success"}},
         "app 5"},
        {"gattsCharValueReadResponse", read_answer(2, "fine", ""), "app 5"},
        {"gattsCharValueReadResponse", read_answer(2, "success", "0g"), "app 5"},
        {"gattsCharValueReadResponse", read_answer(2, "success", "123"), "app 5"},
        {"gattsCharValueWriteResponse", answer(2, "success", "01"), "app 5"},
        {"gattsCharValueSetNotify",
         {{"connHandle", 1}, {"handle", 2}, {"data", "01"}, {"responseNeeded", 1}},
         "app 5"},
        {"gattsCharValueWriteResponse",
         {{"connHandle", 9}, {"handle", 2}, {"status", "success"}},
         "app 18"},
        {"gattsCharValueWriteResponse",
         {{"connHandle", 2}, {"handle", 2}, {"status", "success"}},
         "app 43"},
        {"gattsCharValueWriteResponse", answer(99, "success"), "app 31"},
        {"gattsCharValueWriteResponse", answer(3, "success"), "app 46"},
        {"gattsDescValueWriteResponse", answer(2, "success"), "app 46"},
        {"gattsCharValueReadResponse", read_answer(2, "success", longest + "AA"), "app 19"},
        {"gattsDescValueReadResponse", read_answer(3, "success", longest + "AA"), "app 19"},
        {"gattsCharValueSetNotify", notify(2, longest + "AA", false), "app 19"},
        // An MTU of 23: a read response takes 22 bytes, a notification 20.
        {"gattsCharValueReadResponse", read_answer(2, "success", std::string(46, 'A')), "app 20"},
        {"gattsCharValueReadResponse", read_answer(2, "success", std::string(44, 'A')), "{}"},
        {"gattsCharValueSetNotify", notify(2, std::string(42, 'A'), false), "app 20"},
        {"gattsCharValueSetNotify", notify(7, "01", false), "app 45"},
        {"gattsCharValueSetNotify", notify(2, std::string(40, 'A'), false), "app 44"},
    };
    for (auto const& each : cases) {
        SCOPED_TRACE(std::string(each.request) + " " + each.body.dump());
        EXPECT_EQ(c->ask(each.request, each.body), each.reply);
    }
}

TEST_F(SimPeerGatt, ThePeerIsRefusedAtOnce) {
    struct refusal {
        char const* what;
        std::function<bool()> start;
    };
    std::vector<refusal> const cases = {
        {"no such connection", [&] { return ctl->peer_read("hci0", 9, 2, 0, nullptr); }},
        {"no such interface", [&] { return ctl->peer_read("hci1", 1, 2, 0, nullptr); }},
        {"a service", [&] { return ctl->peer_read("hci0", 1, 1, 0, nullptr); }},
        {"a disabled service's", [&] { return ctl->peer_read("hci0", 1, 6, 0, nullptr); }},
        {"no such attribute", [&] { return ctl->peer_write("hci0", 1, 99, {}, 0, true, nullptr); }},
        {"a descriptor without response",
         [&] { return ctl->peer_write("hci0", 1, 4, {1}, 0, false, nullptr); }},
        {"over the MTU",
         [&] { return ctl->peer_write("hci0", 1, 2, bytes(21), 0, true, nullptr); }},
        {"no CCCD", [&] { return ctl->peer_subscribe("hci0", 1, 7, false, nullptr); }},
        {"a descriptor to subscribe",
         [&] { return ctl->peer_subscribe("hci0", 1, 3, false, nullptr); }},
    };
    for (auto const& each : cases) {
        EXPECT_FALSE(each.start()) << each.what;
    }
    loop->run();
    EXPECT_TRUE(c->take_heard().empty());
    EXPECT_TRUE(ctl->peer_write("hci0", 1, 2, bytes(20), 0, true, nullptr));
    for (std::size_t i = 1; i < max_pending_operations; ++i) {
        EXPECT_TRUE(ctl->peer_read("hci0", 1, 2, 0, nullptr));
    }
    EXPECT_FALSE(ctl->peer_read("hci0", 1, 2, 0, nullptr));
    // A command waits for nothing, so it is not bounded by them.
    EXPECT_TRUE(ctl->peer_write("hci0", 1, 2, {1}, 0, false, nullptr));
}

TEST_F(SimPeerGatt, AttributesAreFoundByType) {
    EXPECT_EQ(ctl->find_attributes("hci0", gatt::uuid("2a19")), (std::vector<unsigned>{2, 6}));
    EXPECT_EQ(ctl->find_attributes("hci0", gatt::uuid("00002902")), std::vector<unsigned>{3});
    EXPECT_TRUE(ctl->find_attributes("hci0", gatt::uuid("180f")).empty());
    EXPECT_TRUE(ctl->find_attributes("hci1", gatt::uuid("2a19")).empty());
}

class SimScriptedCentral : public SimPeerGatt {
protected:
    void SetUp() override {
        auto const step = [](int after, gatt_step::action what, char const* uuid) {
            gatt_step made;
            made.after = std::chrono::seconds(after);
            made.what = what;
            made.type = gatt::uuid(uuid);
            return made;
        };
        script = {
            step(1, gatt_step::action::read, "2a19"), step(2, gatt_step::action::subscribe, "2a19"),
            step(3, gatt_step::action::write, "2a19"), step(4, gatt_step::action::read, "abcd")};
        script[2].data = {1, 2};
        script[2].with_response = false;
        SimPeerGatt::SetUp();
    }
};

TEST_F(SimScriptedCentral, RunsItsStepsOnTheFirstAttributeOfEachType) {
    loop->advance(1s);
    EXPECT_EQ(c->take_heard(),
              strings{R"(gattsCharValueRead {"connHandle":1,"handle":2,"offset":0})"});
    c->ask("gattsCharValueReadResponse", read_answer(2, "success", "64"));
    loop->advance(1s);
    c->ask("gattsDescValueWriteResponse", answer(3, "success"));
    c->ask("gattsCharValueSetNotify", notify(2, "63", false));
    loop->advance(2s);
    std::string const uuid = "0000abcd-0000-1000-8000-00805f9b34fb";
    EXPECT_EQ(lines,
              (strings{
                  "peer hci0 connection 1: read 2 offset 0",
                  "peer hci0 connection 1: read 2 offset 0: success 64",
                  "peer hci0 connection 1: write 3 offset 0 0100",
                  "peer hci0 connection 1: write 3 offset 0 0100: success",
                  "peer hci0 connection 1: notification 2 63",
                  "peer hci0 connection 1: write command 2 offset 0 0102",
                  "peer hci0 connection 1: write command 2 offset 0 0102: success",
                  "peer hci0 connection 1: read " + uuid + ": no such attribute (step skipped)",
              }));
}

TEST(SimConfigScripts, CentralsGattKeys) {
    auto const load = [](json const& steps) {
        return config::from_json(
            {{"interfaces",
              {{{"name", "hci0"}, {"addr", {{"type", "public"}, {"mac", "02:00:00:00:00:01"}}}}}},
             {"centrals",
              {{{"addr", {{"type", "public"}, {"mac", "02:00:00:00:00:02"}}}, {"gatt", steps}}}}});
    };
    auto const good = load(json::parse(R"([{"read": "2a19"},
        {"after": 2, "write": "6e400002-b5a3-f393-e0a9-e50e24dcca9e", "data": "0aFF", "withResponse": false},
        {"after": 3, "subscribe": "00002a19", "indications": true}])"));
    auto const& steps = good.centrals.at(0).gatt;
    ASSERT_EQ(steps.size(), 3u);
    EXPECT_EQ(steps[0].after, 0s);
    EXPECT_EQ(steps[0].what, gatt_step::action::read);
    EXPECT_EQ(steps[0].type, gatt::uuid("2a19"));
    EXPECT_EQ(steps[1].what, gatt_step::action::write);
    EXPECT_EQ(hex(steps[1].data), "0AFF");
    EXPECT_FALSE(steps[1].with_response);
    EXPECT_EQ(steps[2].after, 3s);
    EXPECT_TRUE(steps[2].indications);
    EXPECT_TRUE(steps[0].with_response);
    EXPECT_FALSE(steps[0].indications);

    struct bad {
        char const* steps;
        char const* error;
    };
    std::vector<bad> const cases = {
        {R"({"read": "2a19"})", "centrals[0].gatt: expected an array of steps"},
        {R"([{"after": 1}])", "centrals[0].gatt[0]: expected one of read, write and subscribe"},
        {R"([{"read": "2a19", "write": "2a19"}])",
         "centrals[0].gatt[0].write: a step does one of read, write and subscribe"},
        {R"([{"read": "2a1"}])", "centrals[0].gatt[0].read: expected a UUID"},
        {R"([{"read": "2a19", "data": "01"}])", "centrals[0].gatt[0].data: only for write"},
        {R"([{"write": "2a19", "indications": true}])",
         "centrals[0].gatt[0].indications: only for subscribe"},
        {R"([{"write": "2a19", "data": "0"}])", "centrals[0].gatt[0].data: expected whole bytes"},
        {R"([{"write": "2a19", "withResponse": 1}])",
         "centrals[0].gatt[0].withResponse: expected true or false"},
        {R"([{"read": "2a19", "after": 86401}])", "centrals[0].gatt[0].after: expected an integer"},
        {R"([{"read": "2a19", "then": 1}])", "centrals[0].gatt[0].then: unknown key"},
    };
    for (auto const& each : cases) {
        try {
            load(json::parse(each.steps));
            ADD_FAILURE() << each.steps << " was taken";
        } catch (std::runtime_error const& error) {
            EXPECT_EQ(std::string(error.what()).rfind(each.error, 0), 0u)
                << each.steps << ": " << error.what();
        }
    }
    json many = json::array();
    for (unsigned i = 0; i <= gatt_step::max_steps; ++i) {
        many.push_back({{"read", "2a19"}});
    }
    EXPECT_THROW(load(many), std::runtime_error);
    many.erase(many.begin());
    EXPECT_EQ(load(many).centrals.at(0).gatt.size(), gatt_step::max_steps);
}

}  // namespace
}  // namespace zelvo::tavrin::sim::testing
