// The client's front door: enable, reset, disable and destruction, with the
// completion rule of each (called once; refusals and aborts posted, except
// the destructor's, which are called at once).
#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "client_fixture.hpp"

namespace zelvo::tavrin::testing {
namespace {

// Every field, so that a key read into the wrong field shows.
std::string describe(bt_ctrl::capabilities const& c) {
    std::ostringstream out;
    out << int(c.maxTxPower) << ' ' << c.maxMtuSize << ' ';
    // clang-format off
    for (bool flag : {c.adv, c.scan, c.conn, c.gattSrv, c.gattCli, c.connAdv, c.scnAdv, c.extAdv,
                      c.passiveScan, c.periRoleConnPhyChange, c.centRoleConnPhyChange,
                      c.periRoleConnParmsChange, c.centRoleConnParmsChange, c.connLatencyChange,
                      c.connDuplicateMac, c.gattServerDynamicGatt, c.gattServerPolymorphicGatt,
                      c.gattClientCharWriteWithOffset, c.gattClientCharWriteNoResponse,
                      c.gattClientDescWriteWithOffset}) {
        // clang-format on
        out << flag;
    }
    for (unsigned length : {c.gattClientCharValueMaxLen, c.gattClientDescValueMaxLen,
                            c.gattServerDescValueMaxLen, c.gattServerCharValueMaxLen}) {
        out << ' ' << length;
    }
    for (auto const* phys : {&c.scanPhys, &c.connPhys, &c.advPhys}) {
        out << " [";
        for (auto value : *phys) {
            out << bt_ctrl::to_string(value) << ',';
        }
        out << ']';
    }
    for (auto value : c.addrTypes) {
        out << ' ' << bt_ctrl::to_string(value);
    }
    return out.str();
}

TEST_F(ClientTest, ANormalStartOffersTheInterfacesAndBindsTheChosenOne) {
    auto settings = two_interfaces();
    settings.versions = {"2.5.1", "3"};
    serve(settings);
    make_client();
    outcome enabled, finished;
    enable(enabled, true);
    EXPECT_EQ(seen, states{state::rebooting});
    loop->run();
    ASSERT_EQ(enabled.calls, 1);
    ASSERT_TRUE(enabled.context);
    EXPECT_FALSE(enabled.ec);
    auto const& context = *enabled.context;
    EXPECT_TRUE(context.active());
    EXPECT_EQ(context.get_app_version(), std::make_tuple(2u, 5u, 1u));
    EXPECT_EQ(context.get_api_version(), std::make_tuple(3u, 0u, 0u));
    auto const& offered = context.get_interfaces();
    ASSERT_EQ(offered.size(), 2u);
    for (auto const& expected : settings.interfaces) {
        auto const& name = expected.description.name;
        SCOPED_TRACE(name);
        ASSERT_EQ(offered.count(name), 1u);
        EXPECT_EQ(offered.at(name).address, expected.description.address);
        EXPECT_EQ(offered.at(name).vendor, expected.description.vendor);
        EXPECT_EQ(offered.at(name).part, expected.description.part);
        EXPECT_EQ(describe(offered.at(name).caps), describe(expected.description.caps));
    }
    EXPECT_EQ(client->get_state(), state::rebooting);

    enabled.context->finish("hci1", recorder(finished));
    EXPECT_FALSE(enabled.context->active());
    loop->run();
    EXPECT_EQ(finished.calls, 1);
    EXPECT_EQ(finished.name, "hci1");
    EXPECT_FALSE(finished.ec);
    EXPECT_EQ(seen, (states{state::rebooting, state::enabled}));
    auto const& hci1 = settings.interfaces[1].description;
    EXPECT_EQ(client->get_address(), hci1.address);
    EXPECT_EQ(describe(client->get_capabilities()), describe(hci1.caps));
    // The address came with the handshake, so nothing more is asked.
    EXPECT_EQ(request_names(), (strings{"hdshkStart", "hdshkFinish", "ifStatusGet"}));
    EXPECT_EQ(last_body("hdshkFinish"), R"({"if":"hci1"})");
    EXPECT_EQ(ctl->sessions().at(0).bound_interface, "hci1");
}

// A released link silences its handler and undoes nothing.
TEST_F(ClientTest, EnableOutsideDisabledIsRefusedOnALaterTurnAndTheFirstGoesOn) {
    serve();
    make_client();
    outcome first, second, third;
    enable(first).release();
    enable(second);
    EXPECT_EQ(second.calls, 0);
    loop->run_turn();
    EXPECT_EQ(second.calls, 1);
    EXPECT_EQ(second.ec, code(error::bt_ctrl::inappropriate_state));
    loop->run();
    EXPECT_EQ(first.calls, 0);
    ASSERT_EQ(client->get_state(), state::enabled);

    enable(third);
    EXPECT_EQ(third.calls, 0);
    loop->run();
    EXPECT_EQ(third.calls, 1);
    EXPECT_EQ(third.ec, code(error::bt_ctrl::inappropriate_state));
    EXPECT_EQ(seen, (states{state::rebooting, state::enabled}));
}

// Each stage leaves one handler pending: enable's while connecting or
// starting, a finish's while finishing. disable() aborts it on a later turn
// and stops reconnecting; the destructor tells it at once.
TEST_F(ClientTest, DisableAbortsWhatIsPendingLaterAndDestructionAtOnce) {
    fresh();
    client->disable();  // nothing pending, nothing to tell
    loop->run();
    EXPECT_TRUE(seen.empty());

    outcome enabled, finished;
    struct row {
        char const* stage;
        bool run_first, answer_start;
        outcome* pending;
    };
    for (bool destroy : {false, true}) {
        for (auto const& r :
             {row{"connecting", false, true, &enabled}, row{"starting", true, false, &enabled},
              row{"finishing", true, true, &finished}}) {
            SCOPED_TRACE(std::string(r.stage) + (destroy ? ", destroyed" : ", disabled"));
            fresh();
            enabled = finished = {};
            ctl->stop_answering(!r.answer_start);
            client->enable([&](context_ptr const& context, std::error_code const& ec) {
                ++enabled.calls;
                enabled.ec = ec;
                if (context) {
                    ctl->stop_answering(true);
                    context->finish("hci0", recorder(finished));
                }
            });
            if (r.run_first) {
                loop->run();
            }
            ASSERT_EQ(r.pending->calls, 0);
            if (destroy) {
                client.reset();
                EXPECT_EQ(r.pending->calls, 1);
                EXPECT_EQ(r.pending->ec, code(error::bt_ctrl::no_instance));
                loop->advance(60s);
                EXPECT_EQ(r.pending->calls, 1);
                continue;
            }
            client->disable();
            EXPECT_EQ(r.pending->calls, 0);
            EXPECT_EQ(seen, (states{state::rebooting, state::disabled}));
            loop->advance(60s);
            EXPECT_EQ(r.pending->calls, 1);
            EXPECT_EQ(r.pending->ec, code(error::bt_ctrl::operation_aborted));
            for (long at : connect_times()) {
                EXPECT_EQ(at, 0);  // no reconnect
            }
            EXPECT_EQ(ctl->session_count(), 0u);
            EXPECT_EQ(seen.size(), 2u);
        }
    }
}

// reset binds by itself the interface bound before, or with none bound yet
// lets the controller choose; an open link closes first and waits the
// back-off.
TEST_F(ClientTest, ResetBindsTheInterfaceBoundBefore) {
    struct row {
        bool started;
        std::string finish_body, bound;
        std::vector<long> connects;
    };
    for (auto const& r :
         {row{true, R"({"if":"hci0"})", "hci0", {0, 3000}}, row{false, "null", "hci1", {0}}}) {
        SCOPED_TRACE(r.finish_body);
        fresh(std::nullopt, two_interfaces("hci1"));
        if (r.started) {
            client->enable([](context_ptr const& context, std::error_code const&) {
                context->finish("hci0", [](auto const&...) {});
            });
            loop->run();
            ASSERT_EQ(client->get_state(), state::enabled);
            ctl->clear_requests();
            seen.clear();
        }
        outcome reset;
        client->reset([&](std::error_code const& ec) {
            ++reset.calls;
            reset.ec = ec;
        });
        EXPECT_EQ(seen, states{state::rebooting});
        EXPECT_EQ(client->get_address(), bt_ctrl::address());
        loop->advance(2999ms);
        EXPECT_EQ(reset.calls, r.started ? 0 : 1);
        loop->advance(1ms);
        EXPECT_EQ(connect_times(), r.connects);
        EXPECT_EQ(reset.calls, 1);
        EXPECT_FALSE(reset.ec);
        EXPECT_EQ(last_body("hdshkFinish"), r.finish_body);
        EXPECT_EQ(ctl->sessions().at(0).bound_interface, r.bound);
        EXPECT_EQ(seen, (states{state::rebooting, state::enabled}));
    }
}

TEST_F(ClientTest, OperationsNotAvailableYetThrowNotImplemented) {
    make_client();
    auto const ignore = [](auto const&...) {};
    using address = bt_ctrl::address;
    std::vector<std::function<void(bt_ctrl&)>> const calls = {
        [&](bt_ctrl& c) { c.start_scan({bt_ctrl::phy::m1}, true, ignore); },
        [&](bt_ctrl& c) { c.stop_scan(ignore); },
        [&](bt_ctrl& c) { c.notify_on_scan_result(ignore); },
        [&](bt_ctrl& c) { c.notify_on_scan_stopped([] {}); },
        [&](bt_ctrl& c) { c.create_connection(); },
        [&](bt_ctrl& c) { c.get_connection_queue(ignore); },
        [&](bt_ctrl& c) { c.notify_on_connection_queue_changed(ignore); },
        [&](bt_ctrl& c) { c.notify_on_new_connection(ignore); },
        [&](bt_ctrl& c) { c.create_advertiser(); },
        [&](bt_ctrl& c) { c.get_advertiser_queue(ignore); },
        [&](bt_ctrl& c) { c.notify_on_advertiser_queue_changed(ignore); },
        [&](bt_ctrl& c) { c.notify_on_new_advertiser(ignore); },
        [&](bt_ctrl& c) { c.notify_on_free_reservation_cnt_change(ignore); },
        [&](bt_ctrl& c) { c.add_reservation({}, address(), "", ignore); },
        [&](bt_ctrl& c) { c.replace_reservation(nullptr, {}, address(), "", ignore); },
        [&](bt_ctrl& c) { c.remove_reservation(nullptr, ignore); },
    };
    for (std::size_t i = 0; i < calls.size(); ++i) {
        SCOPED_TRACE(i);
        try {
            calls[i](*client);
            ADD_FAILURE() << "no exception";
        } catch (std::logic_error const& failure) {
            EXPECT_STREQ(failure.what(), "Not implemented");
        }
    }
    EXPECT_EQ(client->get_state(), state::disabled);
    EXPECT_TRUE(lines.empty());
}

}  // namespace
}  // namespace zelvo::tavrin::testing
