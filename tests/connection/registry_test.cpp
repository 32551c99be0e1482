// The client's registry of connections: events reach their object by
// handle, unknown handles make objects the client keeps, the queue mirror and
// its notifications, the connections found at synchronisation, and the end
// of every connection when the controller goes away.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "conn_fixture.hpp"

namespace zelvo::tavrin::testing {
namespace {

using ::testing::UnorderedElementsAre;

TEST_F(ConnTest, PropertyEventsReachTheirObjectByHandleAndTellOnlyChanges) {
    start_scripted();
    collect_new();
    auto const conn = open(5);
    auto const other = open(6, "other");
    strings told;
    conn->notify_on_mtu_change(
        [&told](unsigned short mtu) { told.push_back("mtu " + std::to_string(mtu)); });
    conn->notify_on_phy_change(
        [&told](bt_ctrl::phy phy) { told.push_back("phy " + bt_ctrl::to_string(phy)); });
    conn->notify_on_params_change(
        [&told](unsigned short a, unsigned short b, unsigned short c, unsigned short d) {
            told.push_back("params " + std::to_string(a) + " " + std::to_string(b) + " " +
                           std::to_string(c) + " " + std::to_string(d));
        });
    json const params{{"intervalMin", 6}, {"intervalMax", 12}, {"latency", 0}, {"timeout", 100}};
    event("connMtu", {{"connHandle", 5}, {"connMtu", 247}});
    event("connMtu", {{"connHandle", 5}, {"connMtu", 247}});
    event("connPhy", {{"connHandle", 5}, {"connPhy", "2m"}});
    event("connPhy", {{"connHandle", 5}, {"connPhy", "2m"}});
    event("connParams", {{"connHandle", 5}, {"connParams", params}});
    event("connParams", {{"connHandle", 5}, {"connParams", params}});
    // Unknown handles are dropped without reading the value.
    event("connMtu", {{"connHandle", 99}});
    event("connPhy", {{"connHandle", 99}});
    event("connParams", {{"connHandle", 99}});
    EXPECT_EQ(told, (strings{"mtu 247", "phy 2m", "params 6 12 0 100"}));
    EXPECT_EQ(conn->get_mtu(), 247);
    EXPECT_EQ(other->get_mtu(), 23);
    EXPECT_TRUE(announced.empty());

    // The end resets what the connection had, without an MTU notification.
    event("connClosed", {{"connHandle", 5}, {"reason", "resourceRotation"}});
    EXPECT_EQ(conn->get_mtu(), 23);
    EXPECT_EQ(conn->get_direction(), bt_ctrl::connection::direction::unknown);
    EXPECT_EQ(conn->get_close_reason(), bt_ctrl::connection::close_reason::resource_rotation);
    EXPECT_EQ(told.size(), 3u);
    // Its handle now means nothing to it.
    event("connMtu", {{"connHandle", 5}, {"connMtu", 100}});
    EXPECT_EQ(conn->get_mtu(), 23);
}

TEST_F(ConnTest, AnUnknownHandleMakesAnObjectTheClientKeepsUntilItCloses) {
    start_scripted();
    collect_new();
    // "connClosed" for nobody makes nothing, and needs no direction.
    event("connClosed", {{"connHandle", 40}, {"reason", "userRequested"}});
    EXPECT_TRUE(announced.empty());

    event("connClosing", {{"connHandle", 41}, {"connDirection", "outgoing"}});
    event("connOpened",
          {{"connHandle", 42}, {"connDirection", "incoming"}, {"connPhy", "2m"}, {"connMtu", 99}});
    ASSERT_EQ(announced.size(), 2u);
    EXPECT_EQ(heard.back(), "new 2 opened");
    auto const& first = announced[0];
    auto const& second = announced[1];
    EXPECT_EQ(std::make_tuple(first->get_state(), first->get_direction(), first->get_mtu()),
              std::make_tuple(conn_state::closing, bt_ctrl::connection::direction::outgoing,
                              static_cast<unsigned short>(23)));
    EXPECT_EQ(std::make_tuple(second->get_state(), second->get_direction(), second->get_mtu()),
              std::make_tuple(conn_state::opened, bt_ctrl::connection::direction::incoming,
                              static_cast<unsigned short>(99)));
    // Later events reach the same object, not a new one.
    event("connMtu", {{"connHandle", 42}, {"connMtu", 120}});
    EXPECT_EQ(second->get_mtu(), 120);
    EXPECT_EQ(announced.size(), 2u);

    std::weak_ptr<bt_ctrl::connection const> const kept = second;
    announced.clear();
    event("connClosed", {{"connHandle", 42}, {"reason", "userRequested"}});
    EXPECT_TRUE(kept.expired()) << "the client let go at the end";
}

TEST_F(ConnTest, DuringSynchronisationANewHandleIsKeptButNotAnnounced) {
    serve_script();
    answers.erase("connsGet");
    make_client();
    collect_new();
    start("hci0");
    loop->run();
    ASSERT_EQ(last("connsGet").name, "connsGet");
    event("connOpened",
          {{"connHandle", 3}, {"connDirection", "incoming"}, {"connPhy", "1m"}, {"connMtu", 50}});
    EXPECT_NE(heard.back(), "enabled");
    reply("connsGet", {{"maxConnections", 2}, {"connections", json::object()}});
    loop->run();
    EXPECT_EQ(heard.back(), "enabled");
    EXPECT_TRUE(announced.empty());
    EXPECT_EQ(client->get_connection_max_cnt(), 2u);

    bt_ctrl::connection_queue told;
    client->notify_on_connection_queue_changed(
        [&told](bt_ctrl::connection_queue const& queue) { told = queue; });
    event("connsChanged", {{"maxConnections", 2}, {"connections", {{"3", {{"piq", 1}}}}}});
    ASSERT_EQ(told.size(), 1u);
    EXPECT_EQ(told.begin()->first->get_mtu(), 50);
    EXPECT_EQ(told.begin()->second, 1u);
}

TEST_F(ConnTest, TheQueueMirrorTellsChangesOnlyAndMapsHandlesToObjects) {
    start_scripted();
    auto const mine = open(5);
    event("connPending", {{"connHandle", 8}, {"connDirection", "incoming"}});
    int told = 0;
    bt_ctrl::connection_queue last_told;
    client->notify_on_connection_queue_changed([&](bt_ctrl::connection_queue const& queue) {
        ++told;
        last_told = queue;
    });
    auto const queue_of = [](std::map<std::string, int> const& entries) {
        json connections = json::object();
        for (auto const& [handle, position] : entries) {
            connections[handle] = {{"piq", position}};
        }
        return connections;
    };
    // Handle 77 stands for nobody and doesn't show.
    event("connsChanged",
          {{"maxConnections", 4}, {"connections", queue_of({{"5", 0}, {"8", 1}, {"77", 2}})}});
    EXPECT_EQ(told, 1);
    ASSERT_EQ(last_told.size(), 2u);
    EXPECT_EQ(last_told.at(mine), 0u);
    // Only the maximum changed: stored, nothing told.
    event("connsChanged",
          {{"maxConnections", 9}, {"connections", queue_of({{"5", 0}, {"8", 1}, {"77", 2}})}});
    EXPECT_EQ(told, 1);
    EXPECT_EQ(client->get_connection_max_cnt(), 9u);
    event("connsChanged",
          {{"maxConnections", 9}, {"connections", queue_of({{"5", 1}, {"8", 1}, {"77", 2}})}});
    EXPECT_EQ(told, 2);

    // On demand: asked of the controller, the caller told, no notification.
    answers["connsGet"] = with({{"maxConnections", 3}, {"connections", queue_of({{"8", 4}})}});
    mark = got.size();
    bt_ctrl::connection_queue asked;
    client->get_connection_queue(
        [&](bt_ctrl::connection_queue const& queue, std::error_code const& ec) {
            asked = queue;
            heard.push_back("queue: " + result(ec));
        });
    loop->run();
    EXPECT_EQ(sent(), strings{"connsGet {}"});
    EXPECT_EQ(heard.back(), "queue: ok");
    ASSERT_EQ(asked.size(), 1u);
    EXPECT_EQ(asked.begin()->second, 4u);
    EXPECT_EQ(told, 2);
    EXPECT_EQ(client->get_connection_max_cnt(), 3u);

    answers["connsGet"] = refused(4);
    client->get_connection_queue(
        [&](bt_ctrl::connection_queue const& queue, std::error_code const& ec) {
            heard.push_back("again: " + std::to_string(queue.size()) + " " + result(ec));
        });
    loop->run();
    EXPECT_EQ(heard.back(), "again: 0 " + result(error::bt_ctrl::internal_failure));
    EXPECT_EQ(client->get_connection_max_cnt(), 3u);
}

TEST_F(ConnTest, TheQueueIsRefusedOnALaterTurnWithoutAskingTheController) {
    struct {
        std::string name;
        json caps_changes;
        bool disable;
        std::error_code expected;
    } const cases[] = {
        {"disabled", json::object(), true, error::bt_ctrl::inappropriate_state},
        {"no conn capability", {{"conn", false}}, false, error::bt_ctrl::unsupported_functionality},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.name);
        reset_script();
        interface_caps = caps(c.caps_changes);
        start_scripted();
        if (c.disable) {
            client->disable();
        }
        heard.clear();
        client->get_connection_queue(
            [this](bt_ctrl::connection_queue const& queue, std::error_code const& ec) {
                heard.push_back(std::to_string(queue.size()) + " " + result(ec));
            });
        EXPECT_EQ(heard, strings{});
        loop->run();
        EXPECT_EQ(heard, strings{"0 " + result(c.expected)});
        EXPECT_EQ(sent(), strings{});
    }
}

// Found at synchronisation: three requests for each handle, and the client
// is enabled only when all are answered.
TEST_F(ConnTest, ConnectionsFoundAtSynchronisationFetchTheirOwnStateBeforeEnabled) {
    serve_script();
    answers["connsGet"] =
        with({{"maxConnections", 4}, {"connections", {{"4", {{"piq", 0}}}, {"6", {{"piq", 1}}}}}});
    make_client();
    collect_new();
    start("hci0");
    loop->run();
    EXPECT_THAT(sent(),
                ::testing::IsSupersetOf(strings{
                    R"(connStatusGet {"connHandle":4})", R"(connMtuGet {"connHandle":4})",
                    R"(connDirectionGet {"connHandle":4})", R"(connStatusGet {"connHandle":6})",
                    R"(connMtuGet {"connHandle":6})", R"(connDirectionGet {"connHandle":6})"}));
    EXPECT_EQ(client->get_state(), state::rebooting);
    auto const asked = got.size();
    for (std::size_t i = 0; i < asked; ++i) {
        auto const& request = got[i];
        if (!request.reply || request.reply->answered()) {
            continue;
        }
        auto const handle = request.body.at("connHandle").get<int>();
        if (request.name == "connStatusGet") {
            if (handle == 6) {
                // Gone between the two messages: not a failure.
                request.reply->fail(18);
            } else {
                request.reply->reply(quorl_utils::payload(json{{"status", "opened"}}));
            }
        } else if (request.name == "connMtuGet") {
            request.reply->reply(quorl_utils::payload(json{{"connMtu", 100 + handle}}));
        } else {
            EXPECT_EQ(client->get_state(), state::rebooting);
            request.reply->reply(quorl_utils::payload(json{{"connDirection", "incoming"}}));
        }
        loop->run();
    }
    EXPECT_EQ(client->get_state(), state::enabled);
    EXPECT_TRUE(announced.empty());
    std::vector<std::tuple<conn_state, unsigned short, unsigned>> found;
    for (auto const& [conn, position] : queue_now()) {
        found.emplace_back(conn->get_state(), conn->get_mtu(), position);
    }
    EXPECT_THAT(found, UnorderedElementsAre(std::make_tuple(conn_state::opened, 104, 0u),
                                            std::make_tuple(conn_state::closed, 106, 1u)));
}

TEST_F(ConnTest, AFailedRequestOfSynchronisationDropsTheLink) {
    serve_script();
    answers["connsGet"] = with({{"maxConnections", 4}, {"connections", {{"4", {{"piq", 0}}}}}});
    answers["connStatusGet"] = with({{"status", "opened"}});
    answers["connDirectionGet"] = with({{"connDirection", "incoming"}});
    answers["connMtuGet"] = refused(4);
    make_client();
    start("hci0");
    loop->run();
    EXPECT_EQ(client->get_state(), state::rebooting);
    EXPECT_EQ(accepted, 1);
    answers["connMtuGet"] = with({{"connMtu", 40}});
    loop->advance(std::chrono::seconds(10));
    EXPECT_EQ(accepted, 2);
    EXPECT_EQ(client->get_state(), state::enabled);
}

// When the controller goes away, every connection ends, the client's own
// first, before the application hears of the client's state.
TEST_F(ConnTest, LosingTheControllerClosesEveryConnectionBeforeTheClientTells) {
    start_scripted();
    collect_new();
    auto const old = open(4, "old");
    event("connClosed", {{"connHandle", 4}, {"reason", "userRequested"}});
    auto const mine = open(5, "app");
    event("connOpened",
          {{"connHandle", 8}, {"connDirection", "incoming"}, {"connPhy", "1m"}, {"connMtu", 30}});
    ASSERT_EQ(announced.size(), 1u);
    watch(announced[0], "theirs");
    std::weak_ptr<bt_ctrl::connection const> const theirs = announced[0];
    announced.clear();
    heard.clear();
    raw_end->close();
    loop->run();
    ASSERT_GE(heard.size(), 3u);
    EXPECT_EQ(strings(heard.begin(), heard.begin() + 3),
              (strings{"theirs closed", "app closed", "rebooting"}));
    EXPECT_TRUE(theirs.expired());
    for (auto const& conn : {old, mine}) {
        EXPECT_EQ(conn->get_close_reason(),
                  bt_ctrl::connection::close_reason::interface_unavailable);
    }

    // After the controller is back, what it kept comes back as a new object
    // of the client's, unannounced; the application's object is at rest.
    answers["connsGet"] = with({{"maxConnections", 4}, {"connections", {{"5", {{"piq", 0}}}}}});
    answers["connStatusGet"] = with({{"status", "opened"}});
    answers["connMtuGet"] = with({{"connMtu", 23}});
    answers["connDirectionGet"] = with({{"connDirection", "outgoing"}});
    loop->advance(std::chrono::seconds(10));
    EXPECT_EQ(client->get_state(), state::enabled);
    EXPECT_TRUE(announced.empty());
    EXPECT_EQ(mine->get_state(), conn_state::closed);
    auto const queue = queue_now();
    ASSERT_EQ(queue.size(), 1u);
    EXPECT_NE(queue.begin()->first, mine);
    EXPECT_EQ(queue.begin()->first->get_state(), conn_state::opened);
    // And the application's object opens again.
    mark = got.size();
    mine->connect(peer(), bt_ctrl::phy::unknown, nullptr, on_open("again"));
    loop->run();
    EXPECT_EQ(sent().size(), 1u);
    EXPECT_EQ(mine->get_state(), conn_state::pending);

    // The client's end ends it too, and it outlives the client at rest.
    heard.clear();
    client.reset();
    EXPECT_EQ(heard, (strings{"app closed", "disabled"}));
    EXPECT_EQ(mine->get_close_reason(), bt_ctrl::connection::close_reason::interface_unavailable);
    mine->close(on_done("after"));
    loop->run();
    EXPECT_EQ(heard.back(), "after: ok");
}

}  // namespace
}  // namespace zelvo::tavrin::testing
