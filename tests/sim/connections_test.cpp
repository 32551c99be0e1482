// Connections to the virtual peers of the example config: their course from
// "connOpen" to "connClosed" as every client of the interface hears it, the
// controller's refusals, the queue of those waiting for a slot and the
// rotation that lets them in, connections on reservations, and the property
// requests of an open connection.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sim_client.hpp"

namespace zelvo::tavrin::sim::testing {
namespace {

std::string const alice(32, 'A');
// The example config's peers: one that accepts after a second, one that
// refuses after two, and an address no peer has.
json const accepting = {{"type", "public"}, {"mac", "02:54:56:00:01:01"}};
json const refusing = {{"type", "random"}, {"mac", "C2:54:56:00:01:02"}};
json const absent = {{"type", "public"}, {"mac", "02:54:56:00:09:09"}};

json open_body(json const& address) {
    return {{"addr", address}};
}

std::string state_event(char const* name, int handle) {
    return std::string(name) + R"( {"connDirection":"outgoing","connHandle":)" +
           std::to_string(handle) + "}";
}

std::string closed_event(int handle, char const* reason) {
    return R"(connClosed {"connHandle":)" + std::to_string(handle) + R"(,"reason":")" + reason +
           "\"}";
}

std::string opened_event(int handle) {
    return R"(connOpened {"connDirection":"outgoing","connHandle":)" + std::to_string(handle) +
           R"(,"connMtu":247,"connPhy":"2m"})";
}

std::string params_event(int handle) {
    return R"(connParams {"connHandle":)" + std::to_string(handle) +
           R"(,"connParams":{"intervalMax":40,"intervalMin":24,"latency":0,"timeout":500}})";
}

// "connsChanged" with that map of handles, on hci0's two slots.
std::string conns_changed(std::string const& connections) {
    return R"(connsChanged {"connections":)" + connections + R"(,"maxConnections":2})";
}

// "freeResvsChanged" with hci0's one advertiser and `connections` free.
std::string free_changed(int connections) {
    return R"(freeResvsChanged {"advertiser":1,"connection":)" + std::to_string(connections) + "}";
}

class SimConnections : public SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        a = connect();
        b = connect();
        a->bind("hci0", alice);
        b->bind("hci0");
    }

    std::string ask_about(char const* name, int handle, json extra = json::object()) {
        extra["connHandle"] = handle;
        return a->ask(name, extra);
    }

    // The id of a reservation that `a` creates.
    json reserve(json body) {
        return json::parse(a->ask("resvCreate", std::move(body))).at("resvId");
    }

    // A queue of one connection beyond the slots.
    void queue_one() {
        auto settings = ctl->get_limits();
        settings.max_queue = 1;
        ctl->set_limits(settings);
    }

    std::unique_ptr<client> a, b;
};

TEST_F(SimConnections, AConnectionToAnAcceptingPeerOpensAndClosesAsEveryClientHearsIt) {
    EXPECT_EQ(a->ask("connOpen", open_body(accepting)),
              R"({"connHandle":1,"guaranteedTime":30,"status":"pending"})");
    strings const opening{state_event("connPending", 1), conns_changed(R"({"1":{"piq":0}})"),
                          free_changed(1), state_event("connOpening", 1)};
    EXPECT_EQ(a->take_heard(), opening);
    EXPECT_EQ(b->take_heard(), opening);
    EXPECT_EQ(ask_about("connStatusGet", 1), R"({"status":"opening"})");
    EXPECT_EQ(ask_about("connMtuGet", 1), R"({"connMtu":23})");
    loop->advance(1s);
    strings const opened{opened_event(1), params_event(1)};
    EXPECT_EQ(a->take_heard(), opened);
    EXPECT_EQ(b->take_heard(), opened);
    EXPECT_EQ((strings{ask_about("connStatusGet", 1), ask_about("connMtuGet", 1),
                       ask_about("connDirectionGet", 1)}),
              (strings{R"({"status":"opened"})", R"({"connMtu":247})",
                       R"({"connDirection":"outgoing"})"}));

    // Any client of the interface may close it.
    EXPECT_EQ(b->ask("connClose", {{"connHandle", 1}}), "{}");
    EXPECT_EQ(b->ask("connClose", {{"connHandle", 1}}), "app 18");
    strings const closing{state_event("connClosing", 1), closed_event(1, "userRequested"),
                          conns_changed("{}"), free_changed(2)};
    EXPECT_EQ(a->take_heard(), closing);
    EXPECT_EQ(b->take_heard(), closing);
    EXPECT_EQ(ask_about("connStatusGet", 1), "app 18");
}

TEST_F(SimConnections, ARefusingPeerEndsTheAttemptAndAnAbsentOneIsWaitedForUntilClosed) {
    a->ask("connOpen", open_body(refusing));
    loop->run();
    a->ask("connOpen", open_body(absent));
    EXPECT_EQ(
        a->take_heard(),
        (strings{state_event("connPending", 1), conns_changed(R"({"1":{"piq":0}})"),
                 free_changed(1), state_event("connOpening", 1), state_event("connPending", 2),
                 conns_changed(R"({"1":{"piq":0},"2":{"piq":0}})"), free_changed(0)}));
    loop->advance(100s);
    EXPECT_EQ(a->take_heard(), (strings{closed_event(1, "unknown"),
                                        conns_changed(R"({"2":{"piq":0}})"), free_changed(1)}));
    EXPECT_EQ(ask_about("connStatusGet", 2), R"({"status":"pending"})");
    EXPECT_EQ(ask_about("connClose", 2), "{}");
    EXPECT_EQ(a->take_heard(),
              (strings{state_event("connClosing", 2), closed_event(2, "userRequested"),
                       conns_changed("{}"), free_changed(2)}));
}

// hci1 offers random addresses and 1M only, and no duplicate connections.
TEST_F(SimConnections, ARequestTheControllerCannotServeIsRefusedWithItsCode) {
    ctl->set_interface_status("hci1", bt_ctrl::state::enabled);
    auto const in_use = reserve({{"type", "connection"}});
    a->ask("connOpen", {{"addr", absent}, {"resvId", in_use}});
    auto const for_advertising = reserve({{"type", "advertiser"}});
    auto const for_another = reserve({{"type", "connection"}, {"addr", refusing}});
    struct row {
        char const* what;
        char const* interface;
        json body;
        std::string expected;
    };
    for (auto const& r : std::vector<row>{
             {"no address", "hci0", json::object(), "app 5"},
             {"address not an object", "hci0", {{"addr", 5}}, "app 5"},
             {"unknown key", "hci0", {{"addr", accepting}, {"peer", 1}}, "app 5"},
             {"id not a number", "hci0", {{"addr", accepting}, {"resvId", "1"}}, "app 5"},
             {"address type",
              "hci0",
              {{"addr", {{"type", "pub"}, {"mac", "02:00:00:00:00:01"}}}},
              "app 28"},
             {"MAC", "hci0", {{"addr", {{"type", "public"}, {"mac", "02:00:00"}}}}, "app 27"},
             {"PHY word", "hci0", {{"addr", accepting}, {"connPhy", "3m"}}, "app 8"},
             {"PHY not offered", "hci1", {{"addr", refusing}, {"connPhy", "2m"}}, "app 8"},
             {"address type not offered", "hci1", open_body(accepting), "app 29"},
             {"unknown reservation", "hci0", {{"addr", accepting}, {"resvId", 99}}, "app 14"},
             {"another client's reservation",
              "hci1",
              {{"addr", refusing}, {"resvId", in_use}},
              "app 14"},
             {"advertiser's reservation",
              "hci0",
              {{"addr", accepting}, {"resvId", for_advertising}},
              "app 15"},
             {"reservation for another peer",
              "hci0",
              {{"addr", accepting}, {"resvId", for_another}},
              "app 16"},
             {"reservation in use", "hci0", {{"addr", accepting}, {"resvId", in_use}}, "app 17"},
             {"unbound", "", open_body(accepting), "app 37"},
         }) {
        SCOPED_TRACE(r.what);
        auto c = connect();
        if (std::string(r.interface) == "hci0") {
            c->bind("hci0", alice);
        } else if (*r.interface != '\0') {
            c->bind(r.interface);
        }
        EXPECT_EQ(c->ask("connOpen", r.body), r.expected);
    }
    auto other = connect();
    other->bind("hci1");
    EXPECT_EQ(json::parse(other->ask("connOpen", open_body(refusing))).at("connHandle"), 1);
    EXPECT_EQ(other->ask("connOpen", open_body(refusing)), "app 25");
    ctl->set_interface_status("hci1", bt_ctrl::state::disabled);
    EXPECT_EQ(other->ask("connOpen", open_body(refusing)), "app 41");
}

// Every connection slot is reserved: the first connection is on one
// reservation, the second (to the refusing peer) on the other.
TEST_F(SimConnections, AReservationForAConnectionIsCheckedAsForAnOpen) {
    auto const for_advertising = reserve({{"type", "advertiser"}});
    auto const used = reserve({{"type", "connection"}});
    auto const for_another = reserve({{"type", "connection"}, {"addr", refusing}});
    a->ask("connOpen", {{"addr", absent}, {"resvId", used}});
    EXPECT_EQ(a->ask("connOpen", open_body(accepting)), "app 13");  // no unreserved slot
    a->ask("connOpen", {{"addr", refusing}, {"resvId", for_another}});
    struct row {
        int handle;
        json extra;
        std::string expected;
    };
    for (auto const& r : std::vector<row>{
             {1, {{"resvId", 99}}, "app 14"},
             {1, {{"resvId", for_advertising}}, "app 15"},
             {1, {{"resvId", for_another}}, "app 16"},
             {2, {{"resvId", used}}, "app 17"},
             {1, {{"resvId", -1}}, "app 5"},
             {1, json::object(), "app 13"},  // off its reservation: no free slot
             {1, {{"resvId", used}}, "{}"},  // as it was
         }) {
        EXPECT_EQ(ask_about("connResvSet", r.handle, r.extra), r.expected) << r.extra.dump();
    }
}

TEST_F(SimConnections, RequestsOnAConnectionThatIsNotOpenOrNotThereAreRefused) {
    a->ask("connOpen", open_body(absent));
    for (char const* name :
         {"connAddressGet", "connSignalGet", "connPhyGet", "connParamsGet", "connLatencyGet"}) {
        EXPECT_EQ(ask_about(name, 1), "app 43") << name;
        EXPECT_EQ(ask_about(name, 2), "app 18") << name;
        EXPECT_EQ(a->ask(name, {{"connHandle", "1"}}), "app 5") << name;
    }
    EXPECT_EQ(ask_about("connPhySet", 1, {{"connPhy", "1m"}}), "app 43");
    EXPECT_EQ(ask_about("connPhySet", 1), "app 5");
    EXPECT_EQ(ask_about("connLatencySet", 1, {{"enableLatency", true}}), "app 43");
    EXPECT_EQ(ask_about("connClose", 2), "app 18");
    EXPECT_EQ(ask_about("connResvSet", 2), "app 18");
}

// Two slots, a queue of one: the third connection waits, the fourth is
// refused, and once the first's guaranteed time is over it is rotated out
// for the one waiting.
TEST_F(SimConnections, AConnectionBeyondTheSlotsWaitsItsTurnAndRotatesAnExpiredOneOut) {
    queue_one();
    a->ask("connOpen", open_body(accepting));
    loop->advance(10s);
    a->ask("connOpen", open_body(absent));
    a->take_heard();
    EXPECT_EQ(a->ask("connOpen", open_body(accepting)),
              R"({"connHandle":3,"guaranteedTime":30,"status":"pending"})");
    EXPECT_EQ(a->take_heard(),
              (strings{state_event("connPending", 3),
                       conns_changed(R"({"1":{"piq":0},"2":{"piq":0},"3":{"piq":1}})")}));
    EXPECT_EQ(a->ask("connOpen", open_body(accepting)), "app 13");
    EXPECT_EQ(a->ask("connsGet"),
              R"({"connections":{"1":{"piq":0},"2":{"piq":0},"3":{"piq":1}},"maxConnections":2})");

    loop->advance(19s);  // the first is 29 s old
    EXPECT_EQ(a->take_heard(), strings{});
    loop->advance(1s);
    EXPECT_EQ(a->take_heard(),
              (strings{state_event("connClosing", 1), closed_event(1, "resourceRotation"),
                       conns_changed(R"({"2":{"piq":0},"3":{"piq":0}})"),
                       state_event("connOpening", 3)}));
    // The second expires with nobody waiting: it stays.
    loop->advance(60s);
    EXPECT_EQ(a->take_heard(), (strings{opened_event(3), params_event(3)}));
    EXPECT_EQ(ask_about("connStatusGet", 2), R"({"status":"pending"})");
}

TEST_F(SimConnections, AReservedConnectionUsesItsSlotAndIsNeverRotatedOut) {
    queue_one();
    auto const id = reserve({{"type", "connection"}});
    EXPECT_EQ(a->ask("connOpen", {{"addr", accepting}, {"resvId", id}}),
              R"({"connHandle":1,"guaranteedTime":0,"status":"pending"})");
    a->ask("connOpen", open_body(absent));
    EXPECT_EQ(a->ask("freeResvsGet"), R"({"advertiser":1,"connection":0})");
    // With every slot reserved or taken, one more waits.
    EXPECT_EQ(json::parse(a->ask("connOpen", open_body(accepting))).at("connHandle"), 3);
    EXPECT_EQ(a->ask("resvDestroy", {{"resvId", id}}), "app 17");
    EXPECT_EQ(a->ask("resvCreate", {{"type", "connection"}}), "app 13");
    loop->advance(1s);
    a->take_heard();
    loop->advance(29s);  // the unreserved one goes, the reserved one stays
    auto const heard = a->take_heard();
    ASSERT_GE(heard.size(), 2u);
    EXPECT_EQ(strings(heard.begin(), heard.begin() + 2),
              (strings{state_event("connClosing", 2), closed_event(2, "resourceRotation")}));
    EXPECT_EQ(ask_about("connStatusGet", 1), R"({"status":"opened"})");

    // Moved onto a reservation, a waiting connection starts at once.
    a->ask("connClose", {{"connHandle", 1}});
    loop->run();
    EXPECT_EQ(ask_about("connResvSet", 3, {{"resvId", id}}), "{}");
    EXPECT_EQ(ask_about("connResvSet", 3, {{"resvId", id}}), "{}");  // no change
    EXPECT_EQ(json::parse(a->ask("connsGet")).at("connections"), json::parse(R"({"3":{"piq":0}})"));
    EXPECT_EQ(a->ask("freeResvsGet"), R"({"advertiser":1,"connection":1})");
    // Off the reservation, it takes the free slot; then none is free.
    EXPECT_EQ(ask_about("connResvSet", 3), "{}");
    EXPECT_EQ(a->ask("freeResvsGet"), R"({"advertiser":1,"connection":0})");
    EXPECT_EQ(a->ask("resvDestroy", {{"resvId", id}}), "{}");
}

// The reservation of a client without a client ID ends with its session;
// its connection goes on, unreserved, and its guaranteed time starts.
TEST_F(SimConnections, AConnectionOutlivesTheSessionBoundReservationItUsed) {
    auto anonymous = connect();
    anonymous->bind("hci0");
    anonymous->ask("resvCreate", {{"type", "connection"}});
    EXPECT_EQ(anonymous->ask("connOpen", {{"addr", accepting}, {"resvId", 1}}),
              R"({"connHandle":1,"guaranteedTime":0,"status":"pending"})");
    loop->advance(1s);
    anonymous->link->close();
    loop->run();
    EXPECT_EQ(a->ask("freeResvsGet"), R"({"advertiser":1,"connection":1})");
    loop->advance(4s);
    a->ask("connOpen", open_body(absent));
    a->ask("connOpen", open_body(accepting));
    EXPECT_EQ(a->ask("connsGet"),
              R"({"connections":{"1":{"piq":0},"2":{"piq":0},"3":{"piq":1}},"maxConnections":2})");
    a->take_heard();
    loop->advance(25s);
    EXPECT_EQ(a->take_heard(), strings{});
    loop->advance(1s);  // 30 s after the session's end
    auto const heard = a->take_heard();
    ASSERT_GE(heard.size(), 2u);
    EXPECT_EQ(strings(heard.begin(), heard.begin() + 2),
              (strings{state_event("connClosing", 1), closed_event(1, "resourceRotation")}));
}

TEST_F(SimConnections, ThePropertiesOfAnOpenConnectionAreReadAndChangedThroughTheRadio) {
    a->ask("connOpen", open_body(accepting));
    loop->advance(1s);
    a->take_heard();
    EXPECT_EQ(
        (strings{ask_about("connAddressGet", 1), ask_about("connSignalGet", 1),
                 ask_about("connPhyGet", 1), ask_about("connParamsGet", 1),
                 ask_about("connLatencyGet", 1)}),
        (strings{R"({"addr":{"mac":"02:54:56:00:01:01","type":"public"}})",
                 R"({"signal":{"quality":90,"strength":-48}})", R"({"connPhy":"2m"})",
                 R"({"connParams":{"intervalMax":40,"intervalMin":24,"latency":0,"timeout":500}})",
                 R"({"enableLatency":false})"}));
    json const params = {{"intervalMin", 6}, {"intervalMax", 12}, {"latency", 2}, {"timeout", 100}};
    struct row {
        char const* name;
        json extra;
        std::string reply;
        strings heard;
    };
    for (
        auto const& r : std::vector<row>{
            {"connPhySet",
             {{"connPhy", "coded"}},
             "{}",
             {R"(connPhy {"connHandle":1,"connPhy":"coded"})"}},
            {"connPhySet", {{"connPhy", "coded"}}, "{}", {}},  // unchanged
            {"connPhySet", {{"connPhy", "m2"}}, "app 8", {}},
            {"connParamsSet",
             {{"connParams", params}},
             "{}",
             {R"(connParams {"connHandle":1,"connParams":{"intervalMax":12,"intervalMin":6,"latency":2,"timeout":100}})"}},
            {"connParamsSet", {{"connParams", {{"intervalMin", 6}}}}, "app 5", {}},
            {"connParamsSet",
             {{"connParams",
               {{"intervalMin", 20}, {"intervalMax", 10}, {"latency", 0}, {"timeout", 100}}}},
             "app 26",
             {}},
            {"connParamsSet",
             {{"connParams",
               {{"intervalMin", 6}, {"intervalMax", 400}, {"latency", 4}, {"timeout", 100}}}},
             "app 26",
             {}},
            {"connLatencySet", {{"enableLatency", true}}, "{}", {}},
            {"connLatencySet", {{"enableLatency", 1}}, "app 5", {}},
        }) {
        SCOPED_TRACE(r.name + (" " + r.extra.dump()));
        EXPECT_EQ(ask_about(r.name, 1, r.extra), r.reply);
        loop->run();
        EXPECT_EQ(a->take_heard(), r.heard);
    }
    EXPECT_EQ((strings{ask_about("connPhyGet", 1), ask_about("connLatencyGet", 1)}),
              (strings{R"({"connPhy":"coded"})", R"({"enableLatency":true})"}));
}

TEST_F(SimConnections, ConnectionsEndWithTheInterfaceBeforeItsStatusIsTold) {
    auto const id = reserve({{"type", "connection"}});
    a->ask("connOpen", open_body(accepting));
    a->ask("connOpen", open_body(absent));  // waits
    loop->advance(1s);
    a->take_heard();
    ctl->set_interface_status("hci0", bt_ctrl::state::rebooting);
    loop->run();
    EXPECT_EQ(a->take_heard(), (strings{closed_event(1, "interfaceUnavailable"),
                                        closed_event(2, "interfaceUnavailable"),
                                        conns_changed("{}"), free_changed(1)}));
    EXPECT_EQ(a->events, strings{R"({"status":"rebooting"})"});
    ctl->set_interface_status("hci0", bt_ctrl::state::enabled);
    loop->advance(5s);
    EXPECT_EQ(a->ask("connsGet"), R"({"connections":{},"maxConnections":2})");
    EXPECT_EQ(a->ask("resvsGet"), "{\"" + id.dump() + R"(":{"type":"connection"}})");
}

}  // namespace
}  // namespace zelvo::tavrin::sim::testing
