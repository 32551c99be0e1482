// The GATT server's mirror against the simulator's database: what the
// library's edits build there, its walk brings back, and the simulator's
// update events reach the application.
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <system_error>

#include "../client/client_fixture.hpp"
#include "tavrin/bt_ctrl/gatts.hpp"
#include "tavrin/gatt/characteristic.hpp"
#include "tavrin/gatt/descriptor.hpp"
#include "tavrin/gatt/profile.hpp"
#include "tavrin/gatt/service.hpp"

namespace zelvo::tavrin::testing {
namespace {

using property = gatt::characteristic::property;
using permission = gatt::attribute_permission;

TEST_F(ClientTest, EditsAtTheSimulatorComeBackThroughTheWalk) {
    fresh();
    start();
    loop->run();
    ASSERT_EQ(client->get_state(), state::enabled);
    auto& server = client->get_gatts();
    std::set<unsigned> updated;
    auto const watching = server.notify_on_updated([&updated](std::set<unsigned> const& handles) {
        updated.insert(handles.begin(), handles.end());
    });
    unsigned handle = 0;
    std::error_code failure;
    auto const made = [&](unsigned made_handle, std::error_code const& ec) {
        handle = made_handle;
        failure = ec;
    };
    auto const done = [&](std::error_code const& ec) { failure = ec; };

    server.add_service(gatt::uuid("180F"), true, std::nullopt, made);
    loop->run();
    ASSERT_FALSE(failure) << failure.message();
    auto const battery = handle;
    server.add_characteristic(gatt::uuid("2A19"), {property::read, property::notify},
                              {permission::read}, battery, made);
    loop->run();
    ASSERT_FALSE(failure) << failure.message();
    auto const level = handle;
    server.add_descriptor(gatt::uuid("2902"), {permission::read, permission::write}, level, made);
    loop->run();
    ASSERT_FALSE(failure) << failure.message();
    server.add_service(gatt::uuid("12345678-1234-5678-1234-56789abcdef0"), false, std::nullopt,
                       made);
    loop->run();
    auto const custom = handle;
    // One service included by both primary ones.
    server.add_service(gatt::uuid("181A"), true, battery, made);
    loop->run();
    auto const shared = handle;
    server.add_service_reference(shared, custom, done);
    loop->run();
    ASSERT_FALSE(failure) << failure.message();
    EXPECT_TRUE(updated.count(level));
    EXPECT_TRUE(server.get_profile().get_primary_services().empty());

    bool synced = false;
    server.sync([&](std::error_code const& ec) {
        failure = ec;
        synced = true;
    });
    loop->run();
    ASSERT_TRUE(synced);
    ASSERT_FALSE(failure) << failure.message();
    auto const& profile = server.get_profile();
    EXPECT_EQ(profile.get_primary_services().size(), 2u);
    auto const* found = profile.find_service(battery);
    ASSERT_NE(found, nullptr);
    EXPECT_TRUE(found->is_enabled());
    EXPECT_EQ(found->get_uuid(), gatt::uuid("180F"));
    ASSERT_EQ(found->get_characteristics().size(), 1u);
    auto const* chr = *found->get_characteristics().begin();
    EXPECT_EQ(chr->get_handle(), level);
    EXPECT_EQ(chr->get_properties(), (std::set<property>{property::read, property::notify}));
    EXPECT_EQ(chr->get_permissions(), std::set<permission>{permission::read});
    EXPECT_EQ(chr->get_descriptors().size(), 1u);
    ASSERT_NE(profile.find_service(custom), nullptr);
    EXPECT_FALSE(profile.find_service(custom)->is_enabled());
    ASSERT_NE(profile.find_service(shared), nullptr);
    EXPECT_EQ(profile.find_service(shared)->get_parents().size(), 2u);
}

}  // namespace
}  // namespace zelvo::tavrin::testing
