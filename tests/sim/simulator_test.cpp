// The simulator: the controller as its clients see it (handshake, interface
// requests, events, refusals, sessions coming and going, and the faults it is
// told to inject), and the errors of bad config files.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "sim_client.hpp"

namespace zelvo::tavrin::sim::testing {
namespace {

using repeat = controller::repeat;

// The example config as announced: hci1 gives some capabilities and has
// the rest.
TEST_F(SimTest, AHandshakeOffersEveryInterfaceAsConfiguredAndBindsTheDefault) {
    auto c = connect();
    auto const start = json::parse(c->ask("hdshkStart"));
    EXPECT_EQ(start.at("version"), "2.4.0");
    EXPECT_EQ(start.at("apiVersion"), "1.3.0");
    EXPECT_EQ(start.at("ifs").size(), 2u);
    auto const& hci1 = start.at("ifs").at("hci1");
    EXPECT_EQ(hci1.at("addr"), (json{{"type", "random"}, {"mac", "C2:54:56:00:00:02"}}));
    EXPECT_EQ(std::make_tuple(hci1.at("vendor"), hci1.at("part")),
              std::make_tuple("tavrin", "virtual LE radio, legacy"));
    auto const& caps = hci1.at("caps");
    EXPECT_EQ(caps.size(), 30u);  // every key, the PHY lists included
    EXPECT_EQ(std::make_tuple(caps.at("maxTxPower"), caps.at("maxMtuSize"), caps.at("extAdv"),
                              caps.at("adv"), caps.at("advPhys"), caps.at("addrTypes"),
                              caps.at("gattServerCharValueMaxLen")),
              std::make_tuple(json(4), json(247), json(false), json(true), json{"1m"},
                              json{"random"}, json(512)));
    EXPECT_EQ(c->ask("hdshkFinish", nullptr), R"({"if":"hci0"})");
    EXPECT_EQ(c->ask("ifStatusGet"), R"({"status":"enabled"})");
    EXPECT_EQ(c->ask("ifAddrGet"), R"({"addr":{"mac":"02:54:56:00:00:01","type":"public"}})");
}

TEST_F(SimTest, RequestsOutOfTurnOrOfTheWrongShapeAreRefusedWithTheirCodes) {
    struct step {
        char const* name;
        json body;
        std::string expected;
    };
    auto const start = step{"hdshkStart", json::object(), ""};  // reply not compared
    auto const finish = step{"hdshkFinish", nullptr, R"({"if":"hci0"})"};
    auto const unbound = step{"ifStatusGet", json::object(), "app 37"};
    struct row {
        char const* what;
        std::vector<step> steps;
    };
    for (auto const& r : std::vector<row>{
             {"finish first", {{"hdshkFinish", nullptr, "app 37"}}},
             {"status unbound", {unbound}},
             {"address unbound", {start, {"ifAddrGet", json::object(), "app 37"}}},
             {"finish twice", {start, finish, {"hdshkFinish", nullptr, "app 37"}}},
             {"restart unbinds", {start, finish, start, unbound}},
             {"unknown interface", {start, {"hdshkFinish", {{"if", "hci7"}}, "app 6"}, finish}},
             {"unserved name", {{"scanStart", json::object(), "app 2"}}},
             {"short clientID", {{"hdshkStart", {{"clientID", "0A1B"}}, "app 5"}}},
             {"lower-case clientID",
              {{"hdshkStart", {{"clientID", std::string(32, 'a')}}, "app 5"}}},
             {"extra start key", {{"hdshkStart", {{"client", 1}}, "app 5"}}},
             {"start array", {{"hdshkStart", json::array(), "app 5"}}},
             {"finish number", {start, {"hdshkFinish", {{"if", 3}}, "app 5"}}},
             {"status with keys", {start, finish, {"ifStatusGet", {{"x", 1}}, "app 5"}}},
         }) {
        SCOPED_TRACE(r.what);
        auto c = connect();
        for (auto const& s : r.steps) {
            auto const got = c->ask(s.name, s.body);
            if (!s.expected.empty()) {
                EXPECT_EQ(got, s.expected) << s.name;
            }
        }
    }
}

// Every request is logged with its session and its JSON body, if any.
TEST_F(SimTest, ABodyThatIsNotJsonIsMalformedAndEveryRequestIsLogged) {
    auto c = connect();
    using stravik_part_payload::format;
    c->send_payload("hdshkStart", {{'{', '"'}, format::json});
    c->send_payload("hdshkStart", {{1, 2}, format::raw});
    c->send("hdshkStart");
    loop->run();
    ASSERT_EQ(c->replies.size(), 3u);
    EXPECT_EQ(strings(c->replies.begin(), c->replies.begin() + 2), (strings{"app 5", "app 5"}));
    strings logged;
    for (auto const& r : ctl->requests()) {
        logged.push_back(std::to_string(r.session) + " " + r.name + " " +
                         (r.body ? r.body->dump() : "-"));
    }
    EXPECT_EQ(logged, (strings{"1 hdshkStart -", "1 hdshkStart -", "1 hdshkStart {}"}));
}

TEST_F(SimTest, AStatusChangeReachesOnlyTheSessionsBoundToThatInterface) {
    auto first = connect(), second = connect(), third = connect(), unbound = connect();
    first->bind("hci0");
    second->bind("hci1");
    third->bind("hci1");
    unbound->ask("hdshkStart");
    EXPECT_EQ(second->ask("ifStatusGet"), R"({"status":"disabled"})");  // as configured

    EXPECT_TRUE(ctl->set_interface_status("hci1", bt_ctrl::state::enabled));
    EXPECT_TRUE(ctl->set_interface_status("hci1", bt_ctrl::state::enabled));  // no change
    EXPECT_TRUE(ctl->set_interface_status("hci1", bt_ctrl::state::rebooting));
    EXPECT_FALSE(ctl->set_interface_status("hci9", bt_ctrl::state::disabled));
    loop->run();
    strings const changes{R"({"status":"enabled"})", R"({"status":"rebooting"})"};
    EXPECT_EQ(std::make_tuple(first->events, second->events, third->events, unbound->events),
              std::make_tuple(strings{}, changes, changes, strings{}));
    EXPECT_EQ(second->ask("ifStatusGet"), R"({"status":"rebooting"})");
    EXPECT_EQ(first->ask("ifStatusGet"), R"({"status":"enabled"})");
}

// A status observer may destroy the controller inside the change; the
// session still hears the event, then its connection closes, and nothing
// more is accepted.
TEST_F(SimTest, DestroyingTheControllerClosesItsConnectionsAndStopsAccepting) {
    auto c = connect();
    c->bind();
    auto const observing =
        ctl->radio().on_status_change([this](auto const&, auto) { ctl.reset(); });
    EXPECT_TRUE(ctl->set_interface_status("hci0", bt_ctrl::state::disabled));
    loop->run();
    EXPECT_EQ(c->events, strings{R"({"status":"disabled"})"});
    EXPECT_TRUE(c->closed);
    EXPECT_TRUE(connect()->closed);
}

// A refused request takes no effect: a refused finish leaves the session
// unbound.
TEST_F(SimTest, InjectedRefusalsAndBrokenRepliesLastAsLongAsTheyWereAskedTo) {
    struct rule {
        char const* name;
        int code;  // 0: malform the reply instead
        repeat how;
    };
    struct row {
        std::vector<rule> rules;
        bool clear;
        strings expected;  // hdshkFinish, two ifStatusGet, ifAddrGet
    };
    std::string const bound = R"({"if":"hci0"})", up = R"({"status":"enabled"})";
    std::string const addr = R"({"addr":{"mac":"02:54:56:00:00:01","type":"public"}})";
    auto const once = repeat::once, always = repeat::always;
    for (auto const& r : std::vector<row>{
             {{{"ifStatusGet", 22, once}}, false, {bound, "app 22", up, addr}},
             {{{"ifStatusGet", 7, always}}, false, {bound, "app 7", "app 7", addr}},
             {{{"ifStatusGet", 7, always}, {"ifStatusGet", 17, once}},
              false,
              {bound, "app 17", up, addr}},
             {{{"ifStatusGet", 0, once}}, false, {bound, "not json", up, addr}},
             {{{"ifAddrGet", 4, always}, {"ifAddrGet", 0, always}},
              false,
              {bound, up, up, "not json"}},
             {{{"ifStatusGet", 4, always}, {"ifAddrGet", 0, always}}, true, {bound, up, up, addr}},
             {{{"hdshkFinish", 4, once}}, false, {"app 4", "app 37", "app 37", "app 37"}},
         }) {
        auto c = connect();
        c->ask("hdshkStart");
        for (auto const& [name, code, how] : r.rules) {
            code != 0 ? ctl->fail_request(name, ctrl_error(code), how)
                      : ctl->malform_reply(name, how);
        }
        if (r.clear) {
            ctl->clear_failures();
        }
        strings got{c->ask("hdshkFinish", nullptr)};
        for (char const* name : {"ifStatusGet", "ifStatusGet", "ifAddrGet"}) {
            got.push_back(c->ask(name));
        }
        EXPECT_EQ(got, r.expected);
        ctl->clear_failures();
    }
}

TEST_F(SimTest, DelayedRepliesComeAfterTheDelayInOrder) {
    auto c = connect();
    c->ask("hdshkStart");
    c->replies.clear();
    ctl->delay_replies(5s);
    c->send("hdshkFinish", nullptr);
    c->send("ifStatusGet");
    loop->advance(4999ms);
    EXPECT_TRUE(c->replies.empty());
    EXPECT_EQ(ctl->sessions()[0].bound_interface, "hci0");  // handled at once
    loop->advance(1ms);
    EXPECT_EQ(c->replies, (strings{R"({"if":"hci0"})", R"({"status":"enabled"})"}));
    // An event made after a delayed reply waits behind it, as on one stream:
    // a client must never see a stale status after a newer event.
    c->replies.clear();
    c->send("ifStatusGet");
    loop->run();
    ctl->set_interface_status("hci0", bt_ctrl::state::disabled);
    loop->run();
    EXPECT_TRUE(c->events.empty());
    loop->advance(5s);
    EXPECT_EQ(c->replies, strings{R"({"status":"enabled"})"});
    EXPECT_EQ(c->events, strings{R"({"status":"disabled"})"});
    // A delayed reply dies with its session, timer and all.
    c->send("ifStatusGet");
    loop->run();
    auto const running = loop->running_timers();  // the delay's and the client's timeout
    c->link->close();
    loop->run();
    EXPECT_EQ(loop->running_timers(), running - 1);
}

TEST_F(SimTest, HeldRequestsTimeOutAtTheClientAndAreDroppedWhenAnsweringResumes) {
    auto c = connect();
    ctl->stop_answering(true);
    c->send("hdshkStart", json::object(), 3s);
    c->send("hdshkStart", json::object(), 60s);
    loop->advance(3s);
    EXPECT_EQ(c->replies, strings{"exchange 2"});
    ctl->stop_answering(false);
    loop->run();
    EXPECT_EQ(c->replies, (strings{"exchange 2", "exchange 5"}));
    EXPECT_EQ(ctl->sessions()[0].client_id, "");  // held requests had no effect
    EXPECT_EQ(c->bind(), R"({"if":"hci0"})");
}

TEST_F(SimTest, RefusedAndDroppedConnectionsCloseAndLeaveNoSession) {
    ctl->refuse_connections(2);
    auto first = connect(), second = connect(), third = connect();
    EXPECT_EQ(std::make_tuple(first->closed, second->closed, third->closed),
              std::make_tuple(true, true, false));
    EXPECT_EQ(ctl->session_count(), 1u);

    auto fourth = connect();
    EXPECT_FALSE(ctl->drop_client(999));
    EXPECT_TRUE(ctl->drop_client(ctl->sessions()[0].id));
    loop->run();
    EXPECT_EQ(std::make_tuple(third->closed, fourth->closed), std::make_tuple(true, false));
    EXPECT_EQ(ctl->session_count(), 1u);
}

// Each error names the file, then what is wrong and where.
TEST(SimConfig, ABadConfigIsRefusedNamingTheFileAndTheKey) {
    std::string const path = ::testing::TempDir() + "sim_config_test.json";
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
            {R"({"interfaces": [{"name": "hci0", "addr": 5}]})",
             R"(interfaces[0].addr: expected an object with "type" and "mac")"},
            {R"({"interface": []})", "interface: unknown key"},
            {with(R"(, "colour": 1)"), "interfaces[0].colour: unknown key"},
            {with(R"(, "caps": {"maxMTU": 23})"), "interfaces[0].caps.maxMTU: unknown key"},
            {with(R"(, "caps": {"maxMtuSize": 70000})"),
             "interfaces[0].caps.maxMtuSize: expected an integer from 0 to 65535"},
            {with(R"(, "caps": {"maxTxPower": -129})"),
             "interfaces[0].caps.maxTxPower: expected an integer from -128 to 127"},
            {with(R"(, "caps": {"scan": 1})"), "interfaces[0].caps.scan: expected true or false"},
            {with(R"(, "caps": {"advPhys": ["1m", "3m"]})"),
             R"(interfaces[0].caps.advPhys[1]: expected one of "1m", "2m", "coded")"},
            {with(R"(, "slots": 3)"), "interfaces[0].slots: expected an object"},
            {with(R"(, "slots": {"radios": 1})"), "interfaces[0].slots.radios: unknown key"},
            {with(R"(, "slots": {"connections": 65})"),
             "interfaces[0].slots.connections: expected an integer from 0 to 64"},
            {with(R"(, "slots": {"guaranteedTime": -1})"),
             "interfaces[0].slots.guaranteedTime: expected an integer from 0 to 86400"},
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
            {"{\"interfaces\": [", "not valid JSON: [json.exception.parse_error"},
            {"", "cannot be opened"},  // no file
        }) {
        std::remove(path.c_str());
        if (!r.document.empty()) {
            std::ofstream(path) << r.document;
        }
        std::string error = "no error";
        try {
            config::load(path);
        } catch (std::runtime_error const& failure) {
            error = failure.what();
        }
        auto const expected = "simulator config " + path + ": " + r.error;
        EXPECT_EQ(error.substr(0, expected.size()), expected) << r.document;
    }
    std::remove(path.c_str());
}

}  // namespace
}  // namespace zelvo::tavrin::sim::testing
