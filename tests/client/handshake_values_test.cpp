// What the handshake reads from the controller's description of an
// interface: numbers follow the one rule for numbers from the controller
// (fractions truncated toward zero, a floating-point value out of the field's
// range refused) in every numeric capability.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "scripted_fixture.hpp"

namespace zelvo::tavrin::testing {
namespace {

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

// The exception leaves the reply's handler, and so the loop; the handshake's
// handler hears nothing.
TEST_F(ScriptedTest, ACapabilityNumberOutOfItsRangeIsRefused) {
    struct row {
        char const* key;
        double value;
        std::string text;
    };
    std::string const tx = "a number from -128 to 127";
    std::string const u16 = "a number from 0 to 65535";
    for (auto const& r : {row{"maxTxPower", 128.0, tx}, row{"maxTxPower", -129.0, tx},
                          row{"maxMtuSize", 65536.0, u16}, row{"maxMtuSize", -1.0, u16},
                          row{"gattServerCharValueMaxLen", 1e300, u16}}) {
        SCOPED_TRACE(std::string(r.key) + " " + std::to_string(r.value));
        client.reset();
        loop->run();
        got.clear();
        interface_caps = caps({{r.key, r.value}});
        serve_script();
        make_client();
        client->enable(on("enable"));
        try {
            loop->run();
            ADD_FAILURE() << "no exception";
        } catch (std::runtime_error const& failure) {
            EXPECT_EQ(failure.what(),
                      "the controller's handshake reply was malformed: 'ifs/hci0/caps/" +
                          std::string(r.key) + "' is not " + r.text);
        }
        EXPECT_EQ(heard, strings{"rebooting"});
    }
}

}  // namespace
}  // namespace zelvo::tavrin::testing
