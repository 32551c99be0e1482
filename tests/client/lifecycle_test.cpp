// The client's front door and the handshake behind it: enable, the choice of
// an interface, replies the client refuses to trust, reset, disable and
// destruction, each with its completion rule (called once; refusals and aborts
// posted, the destructor's at once).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "scripted_fixture.hpp"
#include "stravik/part_payload.hpp"

namespace zelvo::tavrin::testing {
namespace {

// Every field, so that a key read into the wrong field shows.
auto fields(bt_ctrl::capabilities const& c) {
    return std::make_tuple(
        int(c.maxTxPower), c.maxMtuSize, c.adv, c.scan, c.conn, c.gattSrv, c.gattCli, c.connAdv,
        c.scnAdv, c.extAdv, c.passiveScan, c.periRoleConnPhyChange, c.centRoleConnPhyChange,
        c.periRoleConnParmsChange, c.centRoleConnParmsChange, c.connLatencyChange,
        c.connDuplicateMac, c.gattServerDynamicGatt, c.gattServerPolymorphicGatt,
        c.gattClientCharWriteWithOffset, c.gattClientCharWriteNoResponse,
        c.gattClientDescWriteWithOffset, c.gattClientCharValueMaxLen, c.gattClientDescValueMaxLen,
        c.gattServerDescValueMaxLen, c.gattServerCharValueMaxLen, c.scanPhys, c.connPhys, c.advPhys,
        c.addrTypes);
}

// The handshake names the client. enable() is refused on a later turn
// outside the disabled state.
TEST_F(ClientTest, ANormalStartOffersTheInterfacesAndBindsTheChosenOne) {
    auto settings = two_interfaces();
    settings.versions = {"2.5.1", "3"};
    fresh(std::array<unsigned char, 16>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15},
          settings);
    context_ptr context;
    client->enable(on("enable", &context));
    client->enable(on("again"));
    EXPECT_EQ(heard, strings{"rebooting"});
    loop->run();
    ASSERT_TRUE(context);
    EXPECT_EQ(context->get_app_version(), std::make_tuple(2u, 5u, 1u));
    EXPECT_EQ(context->get_api_version(), std::make_tuple(3u, 0u, 0u));
    auto const& offered = context->get_interfaces();
    ASSERT_EQ(offered.size(), 2u);
    for (auto const& entry : settings.interfaces) {
        auto const& [name, address, vendor, part, caps] = entry.description;
        auto const& got = offered.at(name);
        EXPECT_EQ(std::tie(got.address, got.vendor, got.part), std::tie(address, vendor, part));
        EXPECT_EQ(fields(got.caps), fields(caps)) << name;
    }
    context->finish("hci1", on("finish"));
    loop->run();
    client->enable(on("again"));
    EXPECT_EQ(heard.back(), "enabled");
    loop->run();
    EXPECT_EQ(heard, (strings{"rebooting", "again: inappropriate state", "enable: ok",
                              "finish(hci1): ok", "enabled", "again: inappropriate state"}));
    auto const& hci1 = settings.interfaces[1].description;
    EXPECT_EQ(client->get_address(), hci1.address);
    EXPECT_EQ(fields(client->get_capabilities()), fields(hci1.caps));
    // The address came with the handshake, so it is not asked for; the
    // client's id makes the sync read the reservations too.
    EXPECT_EQ(requests(), (strings{R"(hdshkStart {"clientID":"000102030405060708090A0B0C0D0E0F"})",
                                   R"(hdshkFinish {"if":"hci1"})", "ifStatusGet {}",
                                   "freeResvsGet {}", "resvsGet {}", "advsGet {}", "connsGet {}"}));
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

// The state is enabled only once the address is known.
TEST_F(ClientTest, AnAddressMissingFromTheHandshakeIsAskedForAndItsFailureDropsTheLink) {
    auto const settings = sim::config::builtin();
    serve(settings, std::make_shared<unannounced_address>(settings))
        .fail_request("ifAddrGet", sim::ctrl_error::internal_error, sim::controller::repeat::once);
    make_client();
    client->enable(on("enable"));
    loop->run();
    EXPECT_EQ(heard, (strings{"rebooting", "enable: ok"}));

    ctl->clear_requests();
    loop->advance(3s);
    EXPECT_EQ(requests(), (strings{"hdshkStart {}", "hdshkFinish null", "ifStatusGet {}",
                                   "ifAddrGet {}", "advsGet {}", "connsGet {}"}));
    EXPECT_EQ(heard, (strings{"rebooting", "enable: ok", "enabled"}));
    EXPECT_EQ(client->get_address(), settings.interfaces[0].description.address);
}

// A context dies when it has been finished, when its link ended, or with the
// client. A finish under way can't be called off; a refusal can.
TEST_F(ClientTest, AFinishOnADeadContextIsRefusedOnALaterTurn) {
    fresh(std::nullopt, two_interfaces());
    context_ptr lost, context;
    client->enable(on("enable", &lost));
    loop->run();
    ASSERT_TRUE(lost && *lost);
    ctl->drop_clients();
    loop->advance(3s);
    EXPECT_FALSE(*lost);

    client->disable();
    client->enable(on("enable", &context));
    loop->advance(3s);
    ASSERT_TRUE(context);
    heard.clear();
    EXPECT_FALSE(context->finish("hci1", on("finish")).active());
    context->finish("hci0", on("again"));
    lost->finish("hci0", on("called off")).release();
    EXPECT_TRUE(heard.empty());
    loop->run();
    EXPECT_EQ(heard, (strings{"again(): inappropriate state", "finish(hci1): ok", "enabled"}));

    client.reset();
    heard.clear();
    lost->finish("hci0", on("late"));
    EXPECT_TRUE(heard.empty());
    loop->run();
    EXPECT_EQ(heard, strings{"late(): inappropriate state"});
}

TEST_F(ClientTest, AFinishReplyNamingAnInterfaceNotOfferedFailsAndDropsTheLink) {
    int accepted = 0;
    serve_raw([&](quorl_server& server, utils::connection&) {
        ++accepted;
        server.set_fallback_handler([](auto const& request, auto const& responder) {
            responder.reply(quorl_utils::payload(request->name == "hdshkStart"
                                                     ? json{{"version", "1"}, {"apiVersion", "1"}}
                                                     : json{{"if", "hci9"}}));
        });
    });
    make_client();
    context_ptr context;
    client->enable(on("enable", &context));
    loop->run();
    ASSERT_TRUE(context);
    EXPECT_TRUE(context->get_interfaces().empty());
    context->finish("", on("finish"));
    loop->run();
    EXPECT_EQ(heard, (strings{"rebooting", "enable: ok", "finish(hci9): internal failure"}));
    EXPECT_THAT(lines, Contains(HasSubstr("change state to closed")).Times(1));
    loop->advance(3s);
    EXPECT_EQ(accepted, 2);
}

// A malformed handshake reply throws out of the loop's run, with its fault
// and place in our words; nothing the JSON library says gets through, and
// the handler stays pending.
TEST_F(ClientTest, AMalformedHandshakeReplyIsToldInOurWords) {
    struct row {
        std::string start_body;  // the reply to "hdshkStart", or "" for a valid one
        std::string finish_body;
        std::string told;
    };
    std::string const start = "the controller's handshake reply was malformed: ";
    std::string const ok = R"({"version": "1", "apiVersion": "1"})";
    std::string const tx = "not a number from -128 to 127";
    std::string const u16 = "not a number from 0 to 65535";
    row const rows[] = {
        {"[1]", "", start + "it is not an object"},
        {"{", "", start + "it is not JSON nested at most 64 levels deep"},
        {std::string(70, '[') + std::string(70, ']'), "",
         start + "it is not JSON nested at most 64 levels deep"},
        {R"({"apiVersion": "1"})", "", start + "'version' is missing"},
        {R"({"version": 1, "apiVersion": "1"})", "", start + "'version' is not a string"},
        {R"({"version": "1.x", "apiVersion": "1"})", "",
         start + "'version' is not a version number"},
        {R"({"version": "1", "apiVersion": "1", "ifs": {"hci0": 7}})", "",
         start + "'ifs/hci0' is not an object"},
        {R"({"version": "1", "apiVersion": "1", "ifs": {"hci0": {"vendor": "v"}}})", "",
         start + "'ifs/hci0/part' is missing"},
        {R"({"version": "1", "apiVersion": "1", "ifs": {"hci0": {"vendor": "v", "part": "p",
            "addr": {"type": "public", "mac": "nope"}}}})",
         "", start + "'ifs/hci0/addr' is not an address"},
        {R"({"version": "1", "apiVersion": "1", "ifs": {"hci0": {"vendor": "v", "part": "p",
            "caps": []}}})",
         "", start + "'ifs/hci0/caps' is not an object"},
        {"caps maxMtuSize", "",
         start + "'ifs/hci0/caps/maxMtuSize' is not a number from 0 to 65535"},
        {"caps scan", "", start + "'ifs/hci0/caps/scan' is not true or false"},
        {"caps scanPhys", "", start + "'ifs/hci0/caps/scanPhys' is not a list of words"},
        {"caps addrTypes", "", start + "'ifs/hci0/caps/addrTypes' is not a list"},
        // Numbers from the controller are truncated toward zero; one out of
        // its field's range is refused.
        {"caps maxTxPower 128.0", "", start + "'ifs/hci0/caps/maxTxPower' is " + tx},
        {"caps maxTxPower -129.0", "", start + "'ifs/hci0/caps/maxTxPower' is " + tx},
        {"caps maxMtuSize 65536.0", "", start + "'ifs/hci0/caps/maxMtuSize' is " + u16},
        {"caps maxMtuSize -1.0", "", start + "'ifs/hci0/caps/maxMtuSize' is " + u16},
        {"caps gattServerCharValueMaxLen 1e300", "",
         start + "'ifs/hci0/caps/gattServerCharValueMaxLen' is " + u16},
        {ok, "[]",
         "the controller's reply to the handshake's finish was malformed: it is not an object"},
        {ok, R"({"if": 0})",
         "the controller's reply to the handshake's finish was malformed: 'if' is not a string"},
    };
    for (auto const& r : rows) {
        // Each "caps KEY [NUMBER]" row spoils one key of otherwise good
        // capabilities.
        auto start_body = r.start_body;
        if (start_body.rfind("caps ", 0) == 0) {
            auto caps = ScriptedTest::caps();
            auto const key = start_body.substr(5, start_body.find(' ', 5) - 5);
            auto const number = start_body.substr(5 + key.size());
            caps[key] = !number.empty()     ? json::parse(number)
                        : key == "scanPhys" ? json{1}
                                            : json("x");
            start_body = json{{"version", "1"},
                              {"apiVersion", "1"},
                              {"ifs", {{"hci0", {{"vendor", "v"}, {"part", "p"}, {"caps", caps}}}}}}
                             .dump();
        }
        client.reset();
        loop->run();
        serve_raw([&](quorl_server& server, utils::connection&) {
            server.set_fallback_handler([&](auto const& request, auto const& responder) {
                auto const& text = request->name == "hdshkStart" ? start_body : r.finish_body;
                responder.reply(
                    quorl_utils::payload(std::vector<unsigned char>(text.begin(), text.end()),
                                         stravik_part_payload::format::json));
            });
        });
        make_client();
        context_ptr context;
        client->enable(on("enable", &context));
        std::string told;
        try {
            loop->run();
            if (context) {
                context->finish("", on("finish"));
                loop->run();
            }
        } catch (std::runtime_error const& failure) {
            told = failure.what();
        }
        EXPECT_EQ(told, r.told) << start_body;
        EXPECT_EQ(told.find("json"), std::string::npos) << told;
        // Nothing was told to the application's handlers of the reply at fault.
        EXPECT_EQ(heard, (r.finish_body.empty() ? strings{"rebooting"}
                                                : strings{"rebooting", "enable: ok"}))
            << start_body;
        // The enable handler is still pending and writes to `context` when
        // the client goes: the client goes first.
        client.reset();
    }
}

// Numbers from the controller are truncated toward zero, in every numeric
// capability.
TEST_F(ScriptedTest, CapabilityNumbersAreTruncatedTowardZero) {
    interface_caps = caps({{"maxTxPower", -128.9},
                           {"maxMtuSize", 247.5},
                           {"gattClientCharValueMaxLen", 100.99},
                           {"gattClientDescValueMaxLen", 101},
                           {"gattServerDescValueMaxLen", 0.5},
                           {"gattServerCharValueMaxLen", 65535.9}});
    serve_script();
    make_client();
    context_ptr context;
    client->enable(on("enable", &context));
    loop->run();
    ASSERT_TRUE(context);
    auto const& got_caps = context->get_interfaces().at("hci0").caps;
    EXPECT_EQ(int(got_caps.maxTxPower), -128);
    EXPECT_EQ(got_caps.maxMtuSize, 247);
    EXPECT_EQ(got_caps.gattClientCharValueMaxLen, 100);
    EXPECT_EQ(got_caps.gattClientDescValueMaxLen, 101);
    EXPECT_EQ(got_caps.gattServerDescValueMaxLen, 0);
    EXPECT_EQ(got_caps.gattServerCharValueMaxLen, 65535);
}

// Each stage leaves one handler pending: enable's while connecting or
// starting, a finish's while finishing. disable() aborts it on a later turn
// and stops reconnecting; the destructor tells it at once.
TEST_F(ClientTest, DisableAbortsWhatIsPendingLaterAndDestructionAtOnce) {
    fresh();
    client->disable();  // nothing pending, nothing to tell
    loop->run();
    EXPECT_TRUE(heard.empty());

    struct row {
        char const* stage;
        bool run_first, answer_start, finishing;
    };
    for (bool destroy : {false, true}) {
        for (auto const& r :
             {row{"connecting", false, true, false}, row{"starting", true, false, false},
              row{"finishing", true, true, true}}) {
            SCOPED_TRACE(std::string(r.stage) + (destroy ? ", destroyed" : ", disabled"));
            fresh();
            ctl->stop_answering(!r.answer_start);
            context_ptr context;
            client->enable(on("enable", &context));
            if (r.run_first) {
                loop->run();
            }
            if (r.finishing) {
                ctl->stop_answering(true);
                context->finish("hci0", on("finish"));
            }
            std::string const pending = r.finishing ? "finish()" : "enable";
            auto expected = heard;
            if (destroy) {
                client.reset();
                expected.push_back(pending + ": no instance");
            } else {
                client->disable();
            }
            expected.push_back("disabled");
            EXPECT_EQ(heard, expected);
            if (!destroy) {
                expected.push_back(pending + ": operation aborted");
            }
            loop->advance(60s);
            EXPECT_EQ(heard, expected);
            EXPECT_LE(connects.size(), 1u);  // no reconnect
            EXPECT_EQ(ctl->session_count(), 0u);
        }
    }
}

// reset binds by itself the interface bound before, or with none bound yet
// lets the controller choose; an open link closes first and waits the
// back-off.
TEST_F(ClientTest, ResetBindsTheInterfaceBoundBefore) {
    struct row {
        bool started;
        std::string finish_body;
        times connects;
    };
    for (auto const& r : {row{true, R"({"if":"hci0"})", {0, 3000}}, row{false, "null", {0}}}) {
        SCOPED_TRACE(r.finish_body);
        fresh(std::nullopt, two_interfaces("hci1"));
        if (r.started) {
            start("hci0");
            loop->run();
            ctl->clear_requests();
            heard.clear();
        }
        client->reset(on("reset"));
        EXPECT_EQ(heard, strings{"rebooting"});
        EXPECT_EQ(client->get_address(), bt_ctrl::address());
        loop->advance(3s);
        EXPECT_EQ(heard, (strings{"rebooting", "reset: ok", "enabled"}));
        EXPECT_EQ(connects, r.connects);
        EXPECT_EQ(requests(), (strings{"hdshkStart {}", "hdshkFinish " + r.finish_body,
                                       "ifStatusGet {}", "advsGet {}", "connsGet {}"}));
    }
}

TEST_F(ClientTest, ScanningThrowsNotImplemented) {
    make_client();
    auto const ignore = [](auto const&...) {};
    bt_ctrl& c = *client;
    auto const refused = ::testing::ThrowsMessage<std::logic_error>("Not implemented");
    EXPECT_THAT([&] { c.start_scan({bt_ctrl::phy::m1}, true, ignore); }, refused);
    EXPECT_THAT([&] { c.stop_scan(ignore); }, refused);
    EXPECT_THAT([&] { c.notify_on_scan_result(ignore); }, refused);
    EXPECT_THAT([&] { c.notify_on_scan_stopped([] {}); }, refused);
    EXPECT_EQ(client->get_state(), state::disabled);
    EXPECT_TRUE(lines.empty());
}

}  // namespace
}  // namespace zelvo::tavrin::testing
