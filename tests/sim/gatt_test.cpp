// The GATT server database of an interface: handles the controller assigns,
// the walk's replies after edits, the controller's refusals, the update event
// to every session of the interface, services included by several parents
// and the cycles refused, and the database's life beside sessions and the
// interface's status.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sim_client.hpp"

namespace zelvo::tavrin::sim::testing {
namespace {

std::string const battery = "0000180f-0000-1000-8000-00805f9b34fb";
std::string const level = "00002a19-0000-1000-8000-00805f9b34fb";
std::string const config_desc = "00002902-0000-1000-8000-00805f9b34fb";
std::string const custom = "6e400001-b5a3-f393-e0a9-e50e24dcca9e";

json service(std::string const& uuid, bool enabled) {
    return {{"uuid", uuid}, {"enabled", enabled}};
}
json included(std::string const& uuid, unsigned parent) {
    return {{"uuid", uuid}, {"enabled", false}, {"parentHandle", parent}};
}
json handle(unsigned number) {
    return {{"handle", number}};
}
json reference(unsigned number, unsigned parent) {
    return {{"handle", number}, {"parentHandle", parent}};
}
std::string updated(std::string const& handles) {
    return R"(gattsDbUpdated {"handles":)" + handles + "}";
}

struct step {
    char const* name;
    json body;
    std::string reply;
    strings heard;  // by the asking session, after the reply
};

void run(client& c, std::vector<step> const& steps) {
    c.take_heard();
    for (auto const& s : steps) {
        SCOPED_TRACE(std::string(s.name) + " " + s.body.dump());
        EXPECT_EQ(c.ask(s.name, s.body), s.reply);
        EXPECT_EQ(c.take_heard(), s.heard);
    }
}

// On a fresh hci0: 1 a primary service including 2, with characteristic 3
// and its descriptor 4.
std::vector<step> const building = {
    {"gattsServiceAdd", service("180F", true), R"({"handle":1})", {updated("[1]")}},
    {"gattsServiceAdd", included(custom, 1), R"({"handle":2})", {updated("[1,2]")}},
    {"gattsCharAdd",
     {{"parentHandle", 1},
      {"uuid", "2a19"},
      {"properties", {"notify", "READ", "writeNoResponse"}},
      {"permissions", {"read"}}},
     R"({"handle":3})",
     {updated("[1,3]")}},
    {"gattsDescAdd",
     {{"parentHandle", 3}, {"uuid", config_desc}, {"permissions", {"write", "read"}}},
     R"({"handle":4})",
     {updated("[3,4]")}},
};

std::vector<step> walk(bool enabled) {
    return {
        {"gattsPrimaryServicesGet", json::object(), "[1]", {}},
        {"gattsServiceGet",
         handle(1),
         R"({"enabled":)" + std::string(enabled ? "true" : "false") +
             R"(,"includedChars":[3],"includedServices":[2],"uuid":")" + battery + R"("})",
         {}},
        {"gattsServiceGet",
         handle(2),
         R"({"enabled":false,"includedChars":[],"includedServices":[],"uuid":")" + custom + R"("})",
         {}},
        {"gattsCharGet",
         handle(3),
         R"({"includedDescriptors":[4],"permissions":["read"],"properties":["notify","read","writeNoResponse"],"uuid":")" +
             level + R"("})",
         {}},
        {"gattsDescGet",
         handle(4),
         R"({"permissions":["read","write"],"uuid":")" + config_desc + R"("})",
         {}},
    };
}

TEST_F(SimTest, EditsAssignIncreasingHandlesAndTheWalkReadsThemBack) {
    auto c = connect();
    c->bind("hci0");
    run(*c, building);
    run(*c, walk(true));
    run(*c, {
                {"gattsServiceDisable", handle(1), "{}", {updated("[1]")}},
                {"gattsServiceDisable", handle(1), "{}", {}},  // no change, no event
            });
    run(*c, walk(false));
    run(*c,
        {
            {"gattsServiceEnable", handle(2), "{}", {updated("[2]")}},
            {"gattsDescRemove", handle(4), "{}", {updated("[3,4]")}},
            {"gattsCharGet",
             handle(3),
             R"({"includedDescriptors":[],"permissions":["read"],"properties":["notify","read","writeNoResponse"],"uuid":")" +
                 level + R"("})",
             {}},
            {"gattsDescAdd",
             {{"parentHandle", 3}, {"uuid", "2901"}, {"permissions", json::array()}},
             R"({"handle":5})",
             {updated("[3,5]")}},
            {"gattsCharRemove", handle(3), "{}", {updated("[1,3,5]")}},
            {"gattsDescGet", handle(5), "app 31", {}},
            {"gattsServiceRemove", handle(1), "{}", {updated("[1,2]")}},
            // What it included stays, primary now.
            {"gattsPrimaryServicesGet", json::object(), "[2]", {}},
            {"gattsServiceGet", handle(1), "app 31", {}},
            // Handles are never reused.
            {"gattsServiceAdd", service(battery, true), R"({"handle":6})", {updated("[6]")}},
            {"gattsPrimaryServicesGet", json::object(), "[2,6]", {}},
        });
}

TEST_F(SimTest, RefusedEditsAndReadsLeaveTheDatabaseAsItWas) {
    auto c = connect();
    c->bind("hci0");
    run(*c, building);
    json const char_add = {
        {"parentHandle", 1}, {"uuid", "2a19"}, {"properties", {"read"}}, {"permissions", {"read"}}};
    auto with = [](json body, char const* key, json value) {
        body[key] = std::move(value);
        return body;
    };
    struct row {
        char const* name;
        json body;
        char const* expected;
    };
    for (auto const& r : std::vector<row>{
             // Unknown handles, and handles of the wrong kind.
             {"gattsServiceGet", handle(99), "app 31"},
             {"gattsServiceGet", {{"handle", 1ull << 40}}, "app 31"},
             {"gattsServiceGet", handle(3), "app 46"},
             {"gattsCharGet", handle(1), "app 46"},
             {"gattsDescGet", handle(3), "app 46"},
             {"gattsServiceRemove", handle(3), "app 46"},
             {"gattsCharRemove", handle(99), "app 31"},
             {"gattsDescRemove", handle(1), "app 46"},
             {"gattsServiceEnable", handle(4), "app 46"},
             {"gattsServiceDisable", handle(0), "app 31"},
             // Unknown references, and references of the wrong kind.
             {"gattsServiceAdd", included(custom, 99), "app 39"},
             {"gattsServiceAdd", included(custom, 3), "app 46"},
             {"gattsCharAdd", with(char_add, "parentHandle", 99), "app 39"},
             {"gattsCharAdd", with(char_add, "parentHandle", 4), "app 46"},
             {"gattsDescAdd",
              {{"parentHandle", 1}, {"uuid", "2902"}, {"permissions", {"read"}}},
              "app 46"},
             {"gattsServiceReferenceAdd", reference(99, 1), "app 31"},
             {"gattsServiceReferenceAdd", reference(2, 99), "app 39"},
             {"gattsServiceReferenceAdd", reference(2, 3), "app 46"},
             {"gattsServiceReferenceRemove", reference(1, 2), "app 39"},
             // Cycles, and a reference that is there already.
             {"gattsServiceReferenceAdd", reference(1, 1), "app 38"},
             {"gattsServiceReferenceAdd", reference(1, 2), "app 38"},
             {"gattsServiceReferenceAdd", reference(2, 1), "app 44"},
             // Bodies of the wrong shape.
             {"gattsPrimaryServicesGet", {{"x", 1}}, "app 5"},
             {"gattsServiceGet", json::object(), "app 5"},
             {"gattsServiceGet", {{"handle", -1}}, "app 5"},
             {"gattsServiceGet", {{"handle", "1"}}, "app 5"},
             {"gattsServiceAdd", service("xyz", true), "app 5"},
             {"gattsServiceAdd", service(std::string(65, '-') + "180f", true), "app 5"},
             {"gattsServiceAdd", {{"uuid", battery}, {"enabled", 1}}, "app 5"},
             {"gattsServiceAdd", with(service(battery, true), "extra", 1), "app 5"},
             {"gattsCharAdd", with(char_add, "properties", {"read", "fly"}), "app 5"},
             {"gattsCharAdd", with(char_add, "properties", "read"), "app 5"},
             {"gattsCharAdd", with(char_add, "permissions", {"execute"}), "app 5"},
             {"gattsCharAdd", with(char_add, "uuid", 6154), "app 5"},
             {"gattsDescAdd", {{"parentHandle", 3}, {"uuid", "2902"}}, "app 5"},
             {"gattsServiceReferenceAdd", handle(2), "app 5"},
         }) {
        SCOPED_TRACE(std::string(r.name) + " " + r.body.dump());
        EXPECT_EQ(c->ask(r.name, r.body), r.expected);
    }
    EXPECT_EQ(c->take_heard(), strings{});
    run(*c, walk(true));
}

TEST_F(SimTest, AServiceIncludedBySeveralParentsNeverClosesACycle) {
    auto c = connect();
    c->bind("hci0");
    run(*c, {
                {"gattsServiceAdd", service(battery, true), R"({"handle":1})", {updated("[1]")}},
                {"gattsServiceAdd", included(custom, 1), R"({"handle":2})", {updated("[1,2]")}},
                {"gattsServiceAdd", included(custom, 2), R"({"handle":3})", {updated("[2,3]")}},
                // 3 under 1 as well as under 2.
                {"gattsServiceReferenceAdd", reference(3, 1), "{}", {updated("[1,3]")}},
                {"gattsPrimaryServicesGet", json::object(), "[1]", {}},
                {"gattsServiceGet",
                 handle(1),
                 R"({"enabled":true,"includedChars":[],"includedServices":[2,3],"uuid":")" +
                     battery + R"("})",
                 {}},
                // Each way back up is refused.
                {"gattsServiceReferenceAdd", reference(1, 3), "app 38", {}},
                {"gattsServiceReferenceAdd", reference(2, 3), "app 38", {}},
                {"gattsServiceReferenceAdd", reference(1, 2), "app 38", {}},
                // One parent gone, 3 is still included by the other.
                {"gattsServiceReferenceRemove", reference(3, 2), "{}", {updated("[2,3]")}},
                {"gattsPrimaryServicesGet", json::object(), "[1]", {}},
                {"gattsServiceReferenceAdd", reference(1, 3), "app 38", {}},
                // Without 2 -> 3 the other way round is no cycle.
                {"gattsServiceReferenceAdd", reference(2, 3), "{}", {updated("[2,3]")}},
                // A service that no one includes any more is primary.
                {"gattsServiceReferenceRemove", reference(3, 1), "{}", {updated("[1,3]")}},
                {"gattsPrimaryServicesGet", json::object(), "[1,3]", {}},
                {"gattsServiceGet",
                 handle(3),
                 R"({"enabled":false,"includedChars":[],"includedServices":[2],"uuid":")" + custom +
                     R"("})",
                 {}},
            });
}

TEST_F(SimTest, EveryEditIsToldToEverySessionOfTheInterfaceAfterItsReply) {
    auto editor = connect();
    auto other = connect();
    auto elsewhere = connect();
    editor->bind("hci0");
    other->bind("hci0");
    elsewhere->bind("hci1");
    editor->arrivals.clear();
    run(*editor, building);
    EXPECT_EQ(editor->arrivals[0], R"(reply {"handle":1})");
    EXPECT_EQ(editor->arrivals[1], "gattsDbUpdated");
    EXPECT_EQ(other->take_heard(),
              (strings{updated("[1]"), updated("[1,2]"), updated("[1,3]"), updated("[3,4]")}));
    EXPECT_EQ(elsewhere->take_heard(), strings{});

    // The database is the interface's: it outlives the session that built it.
    editor.reset();
    loop->run();
    auto later = connect();
    later->bind("hci0");
    run(*later, walk(true));
    run(*later, {{"gattsServiceRemove", handle(2), "{}", {updated("[1,2]")}}});
    EXPECT_EQ(other->take_heard(), strings{updated("[1,2]")});
}

TEST_F(SimTest, TheDatabaseIsEmptiedWhenTheInterfaceGoesDownAndHandlesGoOn) {
    auto c = connect();
    c->bind("hci0");
    run(*c, building);
    ctl->set_interface_status("hci0", bt_ctrl::state::disabled);
    loop->run();
    EXPECT_EQ(c->ask("gattsPrimaryServicesGet"), "app 41");
    EXPECT_EQ(c->ask("gattsServiceAdd", service(battery, true)), "app 41");
    ctl->set_interface_status("hci0", bt_ctrl::state::enabled);
    loop->run();
    EXPECT_EQ(c->take_heard(), strings{});  // no update event for the emptying
    run(*c, {
                {"gattsPrimaryServicesGet", json::object(), "[]", {}},
                {"gattsServiceGet", handle(1), "app 31", {}},
                {"gattsServiceAdd", service(battery, true), R"({"handle":5})", {updated("[5]")}},
            });
}

TEST_F(SimTest, EveryDatabaseRequestWaitsForABoundEnabledInterface) {
    std::vector<std::pair<char const*, json>> const requests = {
        {"gattsPrimaryServicesGet", json::object()},
        {"gattsServiceGet", handle(1)},
        {"gattsCharGet", handle(1)},
        {"gattsDescGet", handle(1)},
        {"gattsServiceAdd", service(battery, true)},
        {"gattsServiceRemove", handle(1)},
        {"gattsServiceReferenceAdd", reference(1, 2)},
        {"gattsServiceReferenceRemove", reference(1, 2)},
        {"gattsServiceEnable", handle(1)},
        {"gattsServiceDisable", handle(1)},
        {"gattsCharAdd",
         {{"parentHandle", 1},
          {"uuid", "2a19"},
          {"properties", {"read"}},
          {"permissions", {"read"}}}},
        {"gattsCharRemove", handle(1)},
        {"gattsDescAdd", {{"parentHandle", 1}, {"uuid", "2902"}, {"permissions", {"read"}}}},
        {"gattsDescRemove", handle(1)},
    };
    auto unbound = connect();
    auto down = connect();
    down->bind("hci1");
    auto const loop2 = adapters::test_loop::create();
    controller without(loop2, config::from_json(json::parse(R"({"interfaces": [{"name": "hci0",
        "addr": {"type": "public", "mac": "02:00:00:00:00:01"}, "caps": {"gattSrv": false}}]})")));
    auto const listening =
        loop2->listen(utils::ip_address("127.0.0.1"), 7101, without.accept_handler());
    client incapable(loop2, 7101);
    incapable.bind();
    for (auto const& [name, body] : requests) {
        SCOPED_TRACE(name);
        EXPECT_EQ(
            (strings{unbound->ask(name, body), down->ask(name, body), incapable.ask(name, body)}),
            (strings{"app 37", "app 41", "app 2"}));
    }
}

TEST_F(SimTest, AnInterfaceHoldsAtMostItsLimitOfAttributes) {
    auto c = connect();
    c->bind("hci0");
    ASSERT_EQ(c->ask("gattsServiceAdd", service(battery, true)), R"({"handle":1})");
    json const char_add = {{"parentHandle", 1},
                           {"uuid", "2a19"},
                           {"properties", json::array()},
                           {"permissions", json::array()}};
    std::string last;
    for (unsigned added = 1; added < 4096; ++added) {
        last = c->ask("gattsCharAdd", char_add);
    }
    EXPECT_EQ(last, R"({"handle":4096})");
    c->take_heard();
    EXPECT_EQ(c->ask("gattsCharAdd", char_add), "app 13");
    EXPECT_EQ(c->ask("gattsServiceAdd", service(battery, true)), "app 13");
    EXPECT_EQ(c->take_heard(), strings{});
    EXPECT_EQ(c->ask("gattsCharRemove", handle(2)), "{}");
    EXPECT_EQ(c->ask("gattsCharAdd", char_add), R"({"handle":4097})");
}

}  // namespace
}  // namespace zelvo::tavrin::sim::testing
