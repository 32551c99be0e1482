// The link to the controller: the back-off by which it is rebuilt, what
// counts as a failure, and the interface's status as the controller reports
// it.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "client_fixture.hpp"

namespace zelvo::tavrin::testing {
namespace {

using times = std::vector<long>;

TEST_F(ClientTest, AnUnreachableControllerIsRetriedWithAGrowingBackOff) {
    make_client();
    outcome enabled;
    enable(enabled);
    loop->advance(105s);
    EXPECT_EQ(connect_times(), (times{0, 3000, 9000, 21000, 45000, 75000, 105000}));
    EXPECT_EQ(enabled.calls, 0);
    EXPECT_EQ(seen, states{state::rebooting});

    serve();
    loop->advance(30s);
    EXPECT_EQ(connect_times().back(), 135000);
    EXPECT_EQ(enabled.calls, 1);
    EXPECT_FALSE(enabled.ec);
    EXPECT_EQ(client->get_state(), state::enabled);

    // A connect resets the back-off: the next loss waits 3 s again.
    ctl->drop_clients();
    loop->advance(3s);
    EXPECT_EQ(connect_times().back(), 138000);
    EXPECT_EQ(seen, (states{state::rebooting, state::enabled, state::rebooting, state::enabled}));
    EXPECT_EQ(enabled.calls, 1);
}

TEST_F(ClientTest, AFailingHandshakeIsRetriedEveryThreeSeconds) {
    serve().fail_request("hdshkStart", sim::ctrl_error::inappropriate_state,
                         sim::controller::repeat::always);
    make_client();
    outcome enabled;
    enable(enabled);
    loop->run();
    EXPECT_EQ(enabled.calls, 1);
    EXPECT_EQ(enabled.ec, code(error::bt_ctrl::inappropriate_state));
    EXPECT_TRUE(texts("Failed handshake").empty());  // enable's own handler heard it

    loop->advance(9s);
    EXPECT_EQ(connect_times(), (times{0, 3000, 6000, 9000}));
    auto const refused = code(error::bt_ctrl::inappropriate_state);
    EXPECT_EQ(texts("Failed handshake"),
              strings(3, "tavrin: Failed handshake [bt_ctrl:1]: " + refused.message()));
    EXPECT_TRUE(texts("bad QUORL reply").empty());  // a refusal is a proper reply
    EXPECT_EQ(enabled.calls, 1);
    EXPECT_EQ(seen, states{state::rebooting});
}

TEST_F(ClientTest, AStatusOtherThanEnabledDropsTheLinkWhenRepliedNotWhenReported) {
    struct row {
        state status;
        states expected;
    };
    for (auto const& r :
         {row{state::disabled, {state::rebooting, state::disabled, state::rebooting}},
          row{state::rebooting, {state::rebooting}}}) {
        SCOPED_TRACE(bt_ctrl::to_string(r.status));
        auto settings = sim::config::builtin();
        settings.interfaces[0].status = r.status;
        fresh(std::nullopt, settings);
        outcome enabled;
        enable(enabled);
        loop->run();
        EXPECT_EQ(seen, r.expected);
        EXPECT_EQ(ctl->session_count(), 0u);

        ctl->set_interface_status("hci0", state::enabled);
        loop->advance(3s);
        EXPECT_EQ(connect_times().size(), 2u);
        EXPECT_EQ(client->get_state(), state::enabled);
    }

    // Reported by an event, a status changes the state and keeps the link.
    seen.clear();
    ctl->clear_requests();
    ctl->set_interface_status("hci0", state::rebooting);
    loop->run();
    EXPECT_EQ(seen, states{state::rebooting});
    EXPECT_EQ(client->get_address(), bt_ctrl::address());
    ctl->set_interface_status("hci0", state::disabled);
    loop->run();
    EXPECT_EQ(seen, (states{state::rebooting, state::disabled}));

    ctl->set_interface_status("hci0", state::enabled);
    loop->run();
    EXPECT_EQ(seen, (states{state::rebooting, state::disabled, state::enabled}));
    // The address went with the mirrors, so it is asked for again.
    EXPECT_EQ(request_names(), strings{"ifAddrGet"});
    EXPECT_EQ(client->get_address(), sim::config::builtin().interfaces[0].description.address);
    loop->advance(60s);
    EXPECT_EQ(connect_times().size(), 2u);
    EXPECT_EQ(ctl->session_count(), 1u);
}

TEST_F(ClientTest, AnUnansweredRequestTimesOutAndTheLinkIsRebuilt) {
    serve().stop_answering(true);
    make_client();
    outcome enabled;
    enable(enabled);
    loop->advance(44s);
    EXPECT_EQ(enabled.calls, 0);
    loop->advance(1s);
    EXPECT_EQ(enabled.calls, 1);
    EXPECT_EQ(enabled.ec, code(error::bt_ctrl::internal_failure));
    EXPECT_EQ(texts("bad QUORL reply"),
              strings{"tavrin: Got bad QUORL reply [hdshkStart]: 2 reply timed out"});
    EXPECT_EQ(ctl->session_count(), 0u);

    ctl->stop_answering(false);
    loop->advance(3s);
    EXPECT_EQ(connect_times(), (times{0, 48000}));
    EXPECT_EQ(client->get_state(), state::enabled);
}

}  // namespace
}  // namespace zelvo::tavrin::testing
