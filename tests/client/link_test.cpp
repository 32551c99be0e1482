// The link to the controller: the back-off by which it is rebuilt, what
// counts as a failure, and the interface's status as the controller reports
// it.
#include <gtest/gtest.h>

#include "client_fixture.hpp"

namespace zelvo::tavrin::testing {
namespace {

// The context, dropped, finishes on the controller's default interface; a
// released link silences enable's handler and undoes nothing.
TEST_F(ClientTest, AnUnreachableControllerIsRetriedWithAGrowingBackOff) {
    make_client();
    client->enable(on("enable")).release();
    loop->advance(105s);
    serve();
    loop->advance(30s);
    // A connect resets the back-off: the next loss waits 3 s again.
    ctl->drop_clients();
    loop->advance(3s);
    EXPECT_EQ(connects, (times{0, 3000, 9000, 21000, 45000, 75000, 105000, 135000, 138000}));
    EXPECT_EQ(heard, (strings{"rebooting", "enabled", "rebooting", "enabled"}));
}

// A refusal is a proper reply: enable hears it, and the attempts after it,
// which have no handler of the application's, are logged.
TEST_F(ClientTest, AFailingHandshakeIsRetriedEveryThreeSeconds) {
    serve().fail_request("hdshkStart", sim::ctrl_error::inappropriate_state,
                         sim::controller::repeat::always);
    make_client();
    client->enable(on("enable"));
    loop->advance(9s);
    EXPECT_EQ(heard, (strings{"rebooting", "enable: inappropriate state"}));
    EXPECT_EQ(connects, (times{0, 3000, 6000, 9000}));
    EXPECT_THAT(lines, Contains(HasSubstr("Failed")).Times(3));
    EXPECT_THAT(
        lines,
        Contains("error: tavrin: Failed handshake [bt_ctrl:1]: inappropriate state").Times(3));
    EXPECT_THAT(lines, ::testing::Not(Contains(HasSubstr("bad QUORL reply"))));
}

TEST_F(ClientTest, AnUnansweredRequestTimesOutAndTheLinkIsRebuilt) {
    serve().stop_answering(true);
    make_client();
    client->enable(on("enable"));
    loop->advance(44s);
    EXPECT_EQ(heard, strings{"rebooting"});
    loop->advance(1s);
    EXPECT_EQ(heard.back(), "enable: internal failure");
    EXPECT_THAT(
        lines,
        Contains("warning: tavrin: Got bad QUORL reply [hdshkStart]: 2 reply timed out").Times(1));

    ctl->stop_answering(false);
    loop->advance(3s);
    EXPECT_EQ(connects, (times{0, 48000}));
    EXPECT_EQ(heard.back(), "enabled");
}

// Replied, a status other than enabled drops the link; reported by an event,
// it only changes the state.
TEST_F(ClientTest, AStatusOtherThanEnabledDropsTheLinkWhenRepliedNotWhenReported) {
    for (auto const& [status, expected] :
         {std::pair{state::disabled, strings{"rebooting", "disabled", "rebooting"}},
          std::pair{state::rebooting, strings{"rebooting"}}}) {
        SCOPED_TRACE(bt_ctrl::to_string(status));
        auto settings = sim::config::builtin();
        settings.interfaces[0].status = status;
        fresh(std::nullopt, settings);
        client->enable([](auto const&...) {});
        loop->run();
        EXPECT_EQ(heard, expected);

        ctl->set_interface_status("hci0", state::enabled);
        loop->advance(3s);
        EXPECT_EQ(connects.size(), 2u);
        EXPECT_EQ(heard.back(), "enabled");
    }

    heard.clear();
    ctl->clear_requests();
    auto const address = sim::config::builtin().interfaces[0].description.address;
    for (auto const status : {state::rebooting, state::disabled, state::enabled}) {
        ctl->set_interface_status("hci0", status);
        loop->run();
        // The address goes with the mirrors, and all are asked for again.
        EXPECT_EQ(client->get_address(), status == state::enabled ? address : bt_ctrl::address());
    }
    EXPECT_EQ(heard, (strings{"rebooting", "disabled", "enabled"}));
    EXPECT_EQ(requests(), (strings{"ifAddrGet {}", "advsGet {}", "connsGet {}"}));
    loop->advance(60s);
    EXPECT_EQ(connects.size(), 2u);  // the link stayed
}

}  // namespace
}  // namespace zelvo::tavrin::testing
