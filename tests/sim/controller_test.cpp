// The protocol as a client sees it: handshake, interface requests, events,
// refusals, and sessions coming and going.
#include <gtest/gtest.h>

#include "sim_client.hpp"

namespace zelvo::tavrin::sim::testing {
namespace {

TEST_F(SimTest, AHandshakeOffersEveryInterfaceAndBindsTheDefault) {
    auto c = connect();
    auto const start = json::parse(c->ask("hdshkStart", {{"clientID", std::string(32, 'A')}}));
    EXPECT_EQ(start.at("version"), "1.0.0");
    EXPECT_EQ(start.at("apiVersion"), "1.0.0");
    auto const& hci0 = start.at("ifs").at("hci0");
    EXPECT_EQ(hci0.at("addr"), (json{{"type", "public"}, {"mac", "02:54:56:00:00:01"}}));
    EXPECT_EQ(hci0.at("vendor"), "tavrin");
    EXPECT_EQ(hci0.at("part"), "virtual LE radio");
    auto const& caps = hci0.at("caps");
    EXPECT_EQ(caps.size(), 30u);  // every key, the PHY lists included
    EXPECT_EQ(caps.at("maxMtuSize"), 517);
    EXPECT_EQ(caps.at("scanPhys"), (json{"coded", "1m", "2m"}));
    EXPECT_EQ(caps.at("addrTypes"), (json{"public", "random"}));
    ASSERT_EQ(ctl->sessions().size(), 1u);
    EXPECT_EQ(ctl->sessions()[0].client_id, std::string(32, 'A'));

    EXPECT_EQ(c->ask("hdshkFinish", nullptr), R"({"if":"hci0"})");
    EXPECT_EQ(ctl->sessions()[0].bound_interface, "hci0");
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
    struct row {
        char const* what;
        std::vector<step> steps;
    };
    for (auto const& r : std::vector<row>{
             {"finish first", {{"hdshkFinish", nullptr, "app 37"}}},
             {"status unbound", {{"ifStatusGet", json::object(), "app 37"}}},
             {"address unbound", {start, {"ifAddrGet", json::object(), "app 37"}}},
             {"finish twice", {start, finish, {"hdshkFinish", nullptr, "app 37"}}},
             {"restart unbinds", {start, finish, start, {"ifStatusGet", json::object(), "app 37"}}},
             {"unknown interface", {start, {"hdshkFinish", {{"if", "hci7"}}, "app 6"}, finish}},
             {"second interface", {start, {"hdshkFinish", {{"if", "hci1"}}, R"({"if":"hci1"})"}}},
             {"unserved name", {{"advsGet", json::object(), "app 2"}}},
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

TEST_F(SimTest, ABodyThatIsNotJsonIsMalformedAndEveryRequestIsLogged) {
    auto c = connect();
    std::string const text = "{\"clientID\"";
    using stravik_part_payload::format;
    EXPECT_EQ(c->ask_payload("hdshkStart", {{text.begin(), text.end()}, format::json}), "app 5");
    EXPECT_EQ(c->ask_payload("hdshkStart", {{1, 2}, format::raw}), "app 5");
    c->bind();
    auto const id = ctl->sessions()[0].id;
    strings logged;
    for (auto const& r : ctl->requests()) {
        EXPECT_EQ(r.session, id);
        logged.push_back(r.name + " " + (r.body ? r.body->dump() : "-"));
    }
    EXPECT_EQ(logged,
              (strings{"hdshkStart -", "hdshkStart -", "hdshkStart {}", "hdshkFinish null"}));
    ctl->clear_requests();
    EXPECT_TRUE(ctl->requests().empty());
}

TEST_F(SimTest, AStatusChangeReachesOnlyTheSessionsBoundToThatInterface) {
    auto first = connect(), second = connect(), third = connect(), unbound = connect();
    first->bind("hci0");
    second->bind("hci1");
    third->bind("hci1");
    unbound->ask("hdshkStart");

    EXPECT_TRUE(ctl->set_interface_status("hci1", bt_ctrl::state::disabled));
    EXPECT_TRUE(ctl->set_interface_status("hci1", bt_ctrl::state::disabled));  // no change
    EXPECT_TRUE(ctl->set_interface_status("hci1", bt_ctrl::state::rebooting));
    EXPECT_FALSE(ctl->set_interface_status("hci9", bt_ctrl::state::disabled));
    loop->run();
    strings const expected{R"({"status":"disabled"})", R"({"status":"rebooting"})"};
    EXPECT_EQ(second->events, expected);
    EXPECT_EQ(third->events, expected);
    EXPECT_TRUE(first->events.empty());
    EXPECT_TRUE(unbound->events.empty());
    EXPECT_EQ(second->ask("ifStatusGet"), R"({"status":"rebooting"})");
    EXPECT_EQ(first->ask("ifStatusGet"), R"({"status":"enabled"})");
}

TEST_F(SimTest, SessionsAreSeparateAndEndWithTheirConnections) {
    auto first = connect(), second = connect();
    first->ask("hdshkStart", {{"clientID", std::string(32, '1')}});
    first->ask("hdshkFinish", {{"if", "hci1"}});
    second->bind();
    auto const sessions = ctl->sessions();
    ASSERT_EQ(sessions.size(), 2u);
    EXPECT_EQ(sessions[0].bound_interface + " " + sessions[0].client_id,
              "hci1 " + std::string(32, '1'));
    EXPECT_EQ(sessions[1].bound_interface + " " + sessions[1].client_id, "hci0 ");

    first->link->close();
    loop->run();
    ASSERT_EQ(ctl->session_count(), 1u);
    EXPECT_EQ(ctl->sessions()[0].id, sessions[1].id);
    second.reset();  // destroyed, not closed
    loop->run();
    EXPECT_EQ(ctl->session_count(), 0u);
}

TEST_F(SimTest, DestroyingTheControllerClosesItsConnectionsAndStopsAccepting) {
    auto c = connect();
    c->bind();
    ctl.reset();
    loop->run();
    EXPECT_TRUE(c->closed);
    auto late = connect();
    EXPECT_TRUE(late->closed);
}

TEST_F(SimTest, AStatusObserverMayDestroyTheControllerInsideTheChange) {
    auto c = connect();
    c->bind();
    auto const observing =
        ctl->radio().on_status_change([this](auto const&, auto) { ctl.reset(); });
    EXPECT_TRUE(ctl->set_interface_status("hci0", bt_ctrl::state::disabled));
    loop->run();
    EXPECT_EQ(c->events, strings{R"({"status":"disabled"})"});
    EXPECT_TRUE(c->closed);
}

}  // namespace
}  // namespace zelvo::tavrin::sim::testing
