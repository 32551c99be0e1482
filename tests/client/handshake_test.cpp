// The handshake: what the client says of itself, the choice of an interface
// through the context, and the replies it refuses to trust.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "client_fixture.hpp"
#include "tavrin/sim/simulated_radio.hpp"

namespace zelvo::tavrin::testing {
namespace {

// With the context dropped, the controller chooses the interface.
TEST_F(ClientTest, TheHandshakeNamesTheClientAndADroppedContextTakesTheDefault) {
    std::array<unsigned char, 16> id{};
    for (unsigned i = 0; i < id.size(); ++i) {
        id[i] = static_cast<unsigned char>(i);
    }
    std::string const hex = "000102030405060708090A0B0C0D0E0F";
    struct row {
        client_id id;
        std::string body, seen_by_controller;
    };
    for (auto const& r :
         {row{std::nullopt, "{}", ""}, row{id, R"({"clientID":")" + hex + "\"}", hex}}) {
        SCOPED_TRACE(r.body);
        auto const settings = two_interfaces("hci1");
        fresh(r.id, settings);
        outcome enabled;
        enable(enabled);
        loop->run();
        EXPECT_EQ(last_body("hdshkStart"), r.body);
        EXPECT_EQ(ctl->sessions().at(0).client_id, r.seen_by_controller);
        EXPECT_EQ(last_body("hdshkFinish"), "null");
        EXPECT_EQ(ctl->sessions().at(0).bound_interface, "hci1");
        EXPECT_EQ(client->get_address(), settings.interfaces[1].description.address);
        EXPECT_EQ(client->get_state(), state::enabled);
    }
}

// A radio whose interfaces announce no address in the handshake; asked
// directly, each still has one.
class unannounced_address : public sim::simulated_radio {
public:
    using simulated_radio::simulated_radio;
    std::vector<sim::interface_description> interfaces() const override {
        auto all = simulated_radio::interfaces();
        for (auto& one : all) {
            one.address = {};
        }
        return all;
    }
};

TEST_F(ClientTest, AnAddressMissingFromTheHandshakeIsAskedForAndItsFailureDropsTheLink) {
    auto const settings = sim::config::builtin();
    serve(std::make_shared<unannounced_address>(settings));
    ctl->fail_request("ifAddrGet", sim::ctrl_error::internal_error, sim::controller::repeat::once);
    make_client();
    outcome enabled;
    enable(enabled);
    loop->run();
    EXPECT_EQ(seen, states{state::rebooting});
    EXPECT_EQ(ctl->session_count(), 0u);

    ctl->clear_requests();
    loop->advance(3s);
    EXPECT_EQ(request_names(), (strings{"hdshkStart", "hdshkFinish", "ifStatusGet", "ifAddrGet"}));
    EXPECT_EQ(seen, (states{state::rebooting, state::enabled}));
    EXPECT_EQ(client->get_address(), settings.interfaces[0].description.address);
}

TEST_F(ClientTest, ASecondFinishIsRefusedOnALaterTurnWhileTheFirstCompletes) {
    serve(two_interfaces());
    make_client();
    outcome enabled, first, second;
    enable(enabled, true);
    loop->run();
    ASSERT_TRUE(enabled.context);
    auto const link = enabled.context->finish("hci1", recorder(first));
    EXPECT_FALSE(link.active());  // a finish under way can't be called off
    enabled.context->finish("hci0", recorder(second));
    EXPECT_EQ(second.calls, 0);
    loop->run_turn();
    EXPECT_EQ(second.calls, 1);
    EXPECT_EQ(second.name, "");
    EXPECT_EQ(second.ec, code(error::bt_ctrl::inappropriate_state));
    loop->run();
    EXPECT_EQ(first.calls, 1);
    EXPECT_EQ(first.name, "hci1");
    EXPECT_FALSE(first.ec);
    EXPECT_EQ(ctl->sessions().at(0).bound_interface, "hci1");
    EXPECT_EQ(client->get_state(), state::enabled);
}

TEST_F(ClientTest, AContextOutlivedByItsLinkIsDeadAndItsRefusalCanBeCalledOff) {
    serve();
    make_client();
    outcome enabled, late, called_off;
    enable(enabled, true);
    loop->run();
    ASSERT_TRUE(enabled.context);
    EXPECT_TRUE(*enabled.context);
    ctl->drop_clients();
    loop->advance(3s);
    EXPECT_FALSE(*enabled.context);
    // The reconnect had no context for the application and took the default.
    EXPECT_EQ(client->get_state(), state::enabled);

    enabled.context->finish("hci0", recorder(called_off)).release();
    client.reset();
    enabled.context->finish("hci0", recorder(late));
    EXPECT_EQ(late.calls, 0);
    loop->run();
    EXPECT_EQ(late.calls, 1);
    EXPECT_EQ(late.ec, code(error::bt_ctrl::inappropriate_state));
    EXPECT_EQ(called_off.calls, 0);
}

TEST_F(ClientTest, AFinishReplyNamingAnInterfaceNotOfferedFailsAndDropsTheLink) {
    int accepted = 0;
    raw_controller raw(loop, host, port, [&](quorl_server& server, utils::connection&) {
        ++accepted;
        server.set_fallback_handler([](auto const& request, auto const& responder) {
            responder.reply(quorl_utils::payload(request->name == "hdshkStart"
                                                     ? json{{"version", "1"}, {"apiVersion", "1"}}
                                                     : json{{"if", "hci9"}}));
        });
    });
    make_client();
    outcome enabled, finished;
    enable(enabled, true);
    loop->run();
    ASSERT_TRUE(enabled.context);
    EXPECT_TRUE(enabled.context->get_interfaces().empty());
    enabled.context->finish("", recorder(finished));
    loop->run();
    EXPECT_EQ(finished.calls, 1);
    EXPECT_EQ(finished.name, "hci9");
    EXPECT_EQ(finished.ec, code(error::bt_ctrl::internal_failure));
    EXPECT_EQ(texts("change state to closed").size(), 1u);
    EXPECT_EQ(client->get_state(), state::rebooting);
    loop->advance(3s);
    EXPECT_EQ(accepted, 2);
}

}  // namespace
}  // namespace zelvo::tavrin::testing
