// The fault API, seen from a client.
#include <gtest/gtest.h>

#include <vector>

#include "sim_client.hpp"

namespace zelvo::tavrin::sim::testing {
namespace {

using repeat = controller::repeat;

TEST_F(SimTest, InjectedRefusalsAndBrokenRepliesLastAsLongAsTheyWereAskedTo) {
    struct rule {
        char const* name;
        int code;  // 0: malform the reply instead
        repeat how;
    };
    struct row {
        std::vector<rule> rules;
        bool clear;
        strings expected;  // three ifStatusGet, then ifAddrGet
    };
    std::string const up = R"({"status":"enabled"})";
    std::string const addr = R"({"addr":{"mac":"02:54:56:00:00:01","type":"public"}})";
    auto const once = repeat::once, always = repeat::always;
    for (auto const& r : std::vector<row>{
             {{{"ifStatusGet", 22, once}}, false, {"app 22", up, up, addr}},
             {{{"ifStatusGet", 7, always}}, false, {"app 7", "app 7", "app 7", addr}},
             {{{"ifStatusGet", 7, always}, {"ifStatusGet", 17, once}},
              false,
              {"app 17", up, up, addr}},
             {{{"ifStatusGet", 0, once}}, false, {"not json", up, up, addr}},
             {{{"ifAddrGet", 4, always}, {"ifAddrGet", 0, always}},
              false,
              {up, up, up, "not json"}},
             {{{"ifStatusGet", 4, always}, {"ifAddrGet", 0, always}}, true, {up, up, up, addr}},
         }) {
        auto c = connect();
        c->bind();
        for (auto const& [name, code, how] : r.rules) {
            code != 0 ? ctl->fail_request(name, ctrl_error(code), how)
                      : ctl->malform_reply(name, how);
        }
        if (r.clear) {
            ctl->clear_failures();
        }
        strings got;
        for (char const* name : {"ifStatusGet", "ifStatusGet", "ifStatusGet", "ifAddrGet"}) {
            got.push_back(c->ask(name));
        }
        EXPECT_EQ(got, r.expected);
        ctl->clear_failures();
    }
}

TEST_F(SimTest, AnInjectedRefusalKeepsTheRequestFromTakingEffect) {
    auto c = connect();
    c->ask("hdshkStart");
    ctl->fail_request("hdshkFinish", ctrl_error::internal_error, repeat::once);
    EXPECT_EQ(c->ask("hdshkFinish", nullptr), "app 4");
    EXPECT_EQ(ctl->sessions()[0].bound_interface, "");
    EXPECT_EQ(c->ask("hdshkFinish", nullptr), R"({"if":"hci0"})");
}

TEST_F(SimTest, DelayedRepliesComeAfterTheDelayInOrder) {
    auto c = connect();
    c->ask("hdshkStart");
    c->replies.clear();
    ctl->delay_replies(5s);
    c->send("hdshkFinish", quorl_utils::payload(json()));
    c->send("ifStatusGet", quorl_utils::payload(json::object()));
    loop->advance(4999ms);
    EXPECT_TRUE(c->replies.empty());
    EXPECT_EQ(ctl->sessions()[0].bound_interface, "hci0");  // handled at once
    loop->advance(1ms);
    EXPECT_EQ(c->replies, (strings{R"({"if":"hci0"})", R"({"status":"enabled"})"}));

    // An event made after a delayed reply waits behind it, as on one stream:
    // a client must never see a stale status after a newer event.
    c->replies.clear();
    c->send("ifStatusGet", quorl_utils::payload(json::object()));
    loop->run();
    ctl->set_interface_status("hci0", bt_ctrl::state::disabled);
    loop->run();
    EXPECT_TRUE(c->events.empty());
    loop->advance(5s);
    EXPECT_EQ(c->replies, strings{R"({"status":"enabled"})"});
    EXPECT_EQ(c->events, strings{R"({"status":"disabled"})"});
    ctl->set_interface_status("hci0", bt_ctrl::state::enabled);

    ctl->delay_replies(0s);
    EXPECT_EQ(c->ask("ifStatusGet"), R"({"status":"enabled"})");
    // A delayed reply dies with its session, timer and all.
    ctl->delay_replies(5s);
    c->send("ifStatusGet", quorl_utils::payload(json::object()));
    loop->run();
    auto const running = loop->running_timers();  // the delay's and the client's timeout
    c->link->close();
    loop->run();
    EXPECT_EQ(loop->running_timers(), running - 1);
}

TEST_F(SimTest, HeldRequestsTimeOutAtTheClientAndAreDroppedWhenAnsweringResumes) {
    auto c = connect();
    ctl->stop_answering(true);
    c->send("hdshkStart", quorl_utils::payload(json::object()), 3s);
    c->send("hdshkStart", quorl_utils::payload(json::object()), 60s);
    loop->advance(3s);
    EXPECT_EQ(c->replies, strings{"exchange 2"});
    EXPECT_EQ(ctl->requests().size(), 2u);
    ctl->stop_answering(false);
    loop->run();
    EXPECT_EQ(c->replies, (strings{"exchange 2", "exchange 5"}));
    EXPECT_EQ(ctl->sessions()[0].client_id, "");  // held requests had no effect
    EXPECT_EQ(c->bind(), R"({"if":"hci0"})");
}

TEST_F(SimTest, RefusedAndDroppedConnectionsCloseAndLeaveNoSession) {
    ctl->refuse_connections(2);
    auto first = connect(), second = connect(), third = connect();
    EXPECT_TRUE(first->closed);
    EXPECT_TRUE(second->closed);
    EXPECT_FALSE(third->closed);
    EXPECT_EQ(ctl->session_count(), 1u);

    auto fourth = connect();
    EXPECT_FALSE(ctl->drop_client(999));
    EXPECT_TRUE(ctl->drop_client(ctl->sessions()[0].id));
    loop->run();
    EXPECT_TRUE(third->closed);
    EXPECT_FALSE(fourth->closed);
    ASSERT_EQ(ctl->session_count(), 1u);

    auto fifth = connect();
    ctl->stop_answering(true);
    fifth->send("hdshkStart", quorl_utils::payload(json::object()));
    loop->run();
    ctl->drop_clients();
    loop->run();
    EXPECT_TRUE(fourth->closed);
    EXPECT_TRUE(fifth->closed);
    EXPECT_TRUE(fifth->replies.empty());  // the held request went with its session
    EXPECT_EQ(ctl->session_count(), 0u);
}

}  // namespace
}  // namespace zelvo::tavrin::sim::testing
