// Radio slots and reservations: the counts and queues a client reads when it
// synchronises, reservations made, replaced and removed with the
// controller's refusals, free counts pushed to every client of the
// interface, and reservations that outlive their client's sessions.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sim_client.hpp"

namespace zelvo::tavrin::sim::testing {
namespace {

std::string const alice(32, 'A'), bob(32, 'B');
std::string const free_2_1 = R"({"advertiser":1,"connection":2})";

json reserve_body(char const* type = "connection") {
    return {{"type", type}};
}

// hci0 of the example config has two connection slots and one advertiser
// slot; hci1 is disabled.
TEST_F(SimTest, TheSyncReadsAnswerFromTheInterfacesSlots) {
    struct row {
        char const* what;
        std::string interface;  // "" leaves the session unbound
        json body;
        strings expected;  // freeResvsGet, resvsGet, advsGet, connsGet
    };
    for (auto const& r : std::vector<row>{
             {"bound",
              "hci0",
              json::object(),
              {free_2_1, "{}", R"({"advertisers":{},"maxAdvertisers":1})",
               R"({"connections":{},"maxConnections":2})"}},
             {"interface down", "hci1", json::object(), strings(4, "app 41")},
             {"unbound", "", json::object(), strings(4, "app 37")},
             {"keys in the body", "hci0", {{"x", 1}}, strings(4, "app 5")},
         }) {
        SCOPED_TRACE(r.what);
        auto c = connect();
        if (!r.interface.empty()) {
            c->bind(r.interface);
        }
        strings got;
        for (char const* name : {"freeResvsGet", "resvsGet", "advsGet", "connsGet"}) {
            got.push_back(c->ask(name, r.body));
        }
        EXPECT_EQ(got, r.expected);
    }
}

TEST(SimSlots, AnInterfaceWithoutAFeatureRefusesItsQueueAndItsReservations) {
    auto const loop = adapters::test_loop::create();
    controller ctl(loop, config::from_json(json::parse(R"({"interfaces": [{"name": "hci0",
        "addr": {"type": "public", "mac": "02:00:00:00:00:01"},
        "caps": {"conn": false, "adv": false}, "slots": {"connections": 3, "advertisers": 0}}]})")));
    auto const listening = loop->listen(utils::ip_address("127.0.0.1"), 7101, ctl.accept_handler());
    client c(loop, 7101);
    c.bind();
    EXPECT_EQ((strings{c.ask("freeResvsGet"), c.ask("advsGet"), c.ask("connsGet"),
                       c.ask("resvCreate", reserve_body()),
                       c.ask("resvCreate", reserve_body("advertiser"))}),
              (strings{R"({"advertiser":0,"connection":3})", "app 2", "app 2", "app 2", "app 2"}));
}

// Each row runs on a fresh controller, so that ids start at 1.
TEST_F(SimTest, ReservationsAreMadeReplacedAndRemovedWithTheControllersRefusals) {
    json const peer = {{"type", "public"}, {"mac", "02:00:00:00:00:10"}};
    struct step {
        char const* name;
        json body;
        std::string expected;
    };
    struct row {
        char const* what;
        std::vector<step> steps;
    };
    auto const create = [](json body) { return step{"resvCreate", std::move(body), ""}; };
    for (
        auto const& r : std::vector<row>{
            {"create and list",
             {create({{"type", "connection"},
                      {"addr", peer},
                      {"context", {{"customData", "left door"}}}}),
              create(reserve_body("advertiser")),
              {"resvsGet", json::object(),
               R"({"1":{"addr":{"mac":"02:00:00:00:00:10","type":"public"},"context":{"customData":"left door"},"type":"connection"},"2":{"type":"advertiser"}})"},
              {"freeResvsGet", json::object(), R"({"advertiser":0,"connection":1})"}}},
            {"no free slot",
             {create(reserve_body()),
              create(reserve_body()),
              {"resvCreate", reserve_body(), "app 13"},
              create(reserve_body("advertiser")),
              {"resvCreate", reserve_body("advertiser"), "app 13"}}},
            {"bad claims",
             {{"resvCreate", reserve_body("scanner"), "app 15"},
              {"resvCreate", {{"type", "connection"}, {"addr", {{"type", "pub"}}}}, "app 28"},
              {"resvCreate",
               {{"type", "connection"}, {"addr", {{"type", "public"}, {"mac", "02:00"}}}},
               "app 27"},
              {"resvCreate",
               {{"type", "connection"},
                {"addr", {{"type", "public"}, {"mac", "00:00:00:00:00:00"}}}},
               "app 27"},
              {"resvCreate",
               {{"type", "connection"}, {"context", {{"customData", std::string(1025, 'x')}}}},
               "app 13"},
              {"resvCreate", json::object(), "app 5"},
              {"resvCreate", {{"type", "connection"}, {"color", 1}}, "app 5"},
              {"resvCreate", {{"type", "connection"}, {"context", {{"customData", 7}}}}, "app 5"},
              {"resvsGet", json::object(), "{}"}}},
            {"replace",
             {create(reserve_body()),
              {"resvRecreate", {{"resvId", 1}, {"type", "advertiser"}}, R"({"resvId":2})"},
              {"resvsGet", json::object(), R"({"2":{"type":"advertiser"}})"},
              {"resvRecreate", {{"resvId", 1}, {"type", "connection"}}, "app 14"},
              create(reserve_body()),
              // the advertiser slot is taken by 2 itself: replacing it fits
              {"resvRecreate", {{"resvId", 2}, {"type", "advertiser"}}, R"({"resvId":4})"},
              {"resvRecreate", {{"resvId", 3}, {"type", "advertiser"}}, "app 13"},
              {"resvsGet", json::object(),
               R"({"3":{"type":"connection"},"4":{"type":"advertiser"}})"},
              {"resvRecreate", {{"resvId", 3}}, "app 5"}}},
            {"remove",
             {create(reserve_body()),
              {"resvDestroy", {{"resvId", 1}}, "{}"},
              {"resvDestroy", {{"resvId", 1}}, "app 14"},
              {"resvDestroy", {{"resvId", 70000}}, "app 5"},
              {"resvDestroy", {{"resvId", "1"}}, "app 5"},
              {"freeResvsGet", json::object(), free_2_1}}},
        }) {
        SCOPED_TRACE(r.what);
        restart();
        auto c = connect();
        c->bind("hci0", alice);
        for (auto const& s : r.steps) {
            auto const got = c->ask(s.name, s.body);
            if (!s.expected.empty()) {
                EXPECT_EQ(got, s.expected) << s.name << " " << s.body.dump();
            } else {
                EXPECT_EQ(json::parse(got).count("resvId"), 1u) << got;
            }
        }
    }
}

TEST_F(SimTest, FreeCountsReachEveryClientOfTheInterfaceOnlyWhenTheyChange) {
    auto a = connect(), b = connect(), elsewhere = connect();
    a->bind("hci0", alice);
    b->bind("hci0", bob);
    ctl->set_interface_status("hci1", bt_ctrl::state::enabled);
    elsewhere->bind("hci1");
    EXPECT_EQ(a->ask("resvCreate", reserve_body()), R"({"resvId":1})");
    EXPECT_EQ(a->ask("resvRecreate", {{"resvId", 1}, {"type", "connection"}}), R"({"resvId":2})");
    EXPECT_EQ(a->ask("resvCreate", {{"type", "scanner"}}), "app 15");
    EXPECT_EQ(b->ask("resvDestroy", {{"resvId", 2}}), "app 14");  // not B's
    EXPECT_EQ(a->ask("resvDestroy", {{"resvId", 2}}), "{}");
    strings const changes{"freeResvsChanged {\"advertiser\":1,\"connection\":1}",
                          "freeResvsChanged " + free_2_1};
    EXPECT_EQ(a->take_heard(), changes);
    EXPECT_EQ(b->take_heard(), changes);
    EXPECT_EQ(elsewhere->take_heard(), strings{});
}

// A client ID's reservations wait for its next session; those of a client
// without one end with its session.
TEST_F(SimTest, AReservationOutlivesItsClientsSessionsOnlyWithAClientId) {
    auto a = connect(), anonymous = connect(), watcher = connect();
    a->bind("hci0", alice);
    anonymous->bind("hci0");
    watcher->bind("hci0", bob);
    a->ask("resvCreate", {{"type", "connection"}, {"context", {{"customData", "kept"}}}});
    anonymous->ask("resvCreate", reserve_body("advertiser"));
    EXPECT_EQ(anonymous->ask("resvsGet"), R"({"2":{"type":"advertiser"}})");
    EXPECT_EQ(watcher->ask("resvsGet"), "{}");
    watcher->take_heard();
    a->link->close();
    anonymous->link->close();
    loop->run();
    EXPECT_EQ(watcher->take_heard(),
              strings{R"(freeResvsChanged {"advertiser":1,"connection":1})"});
    auto again = connect();
    again->bind("hci0", alice);
    EXPECT_EQ(again->ask("resvsGet"),
              R"({"1":{"context":{"customData":"kept"},"type":"connection"}})");
    EXPECT_EQ(again->ask("resvDestroy", {{"resvId", 1}}), "{}");
}

}  // namespace
}  // namespace zelvo::tavrin::sim::testing
