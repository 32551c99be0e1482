// Every field of a capabilities value is named once in the tables below and
// compared in every case, so a field that operator&= forgets, or mixes up with
// another, shows up as a failure.
#include <functional>
#include <set>
#include <vector>

#include <gtest/gtest.h>

#include "tavrin/bt_ctrl/capabilities.hpp"

namespace {

using zelvo::tavrin::bt_ctrl;
using caps = bt_ctrl::capabilities;
using phy = bt_ctrl::phy;
using addr_type = bt_ctrl::addr_type;

// clang-format off
std::vector<bool caps::*> const flags = {
    &caps::adv, &caps::scan, &caps::conn, &caps::gattSrv, &caps::gattCli, &caps::connAdv,
    &caps::scnAdv, &caps::extAdv, &caps::passiveScan, &caps::periRoleConnPhyChange,
    &caps::centRoleConnPhyChange, &caps::periRoleConnParmsChange, &caps::centRoleConnParmsChange,
    &caps::connLatencyChange, &caps::connDuplicateMac, &caps::gattServerDynamicGatt,
    &caps::gattServerPolymorphicGatt, &caps::gattClientCharWriteWithOffset,
    &caps::gattClientCharWriteNoResponse, &caps::gattClientDescWriteWithOffset};
std::vector<unsigned short caps::*> const limits = {
    &caps::maxMtuSize, &caps::gattClientCharValueMaxLen, &caps::gattClientDescValueMaxLen,
    &caps::gattServerDescValueMaxLen, &caps::gattServerCharValueMaxLen};
std::vector<std::set<phy> caps::*> const phy_sets = {&caps::scanPhys, &caps::connPhys, &caps::advPhys};
// clang-format on

// All fields as numbers; a set as the bit mask of its elements.
std::vector<int> fields(caps const& c) {
    std::vector<int> all{c.maxTxPower};
    for (auto flag : flags) {
        all.push_back(c.*flag);
    }
    for (auto limit : limits) {
        all.push_back(c.*limit);
    }
    auto const mask = [](auto const& set) {
        int bits = 0;
        for (auto element : set) {
            bits |= 1 << static_cast<int>(element);
        }
        return bits;
    };
    for (auto set : phy_sets) {
        all.push_back(mask(c.*set));
    }
    all.push_back(mask(c.addrTypes));
    return all;
}

caps generous() {
    caps c;
    c.maxTxPower = 127;
    for (auto flag : flags) {
        c.*flag = true;
    }
    for (auto limit : limits) {
        c.*limit = 65535;
    }
    for (auto set : phy_sets) {
        c.*set = {phy::unknown, phy::coded, phy::m1, phy::m2};
    }
    c.addrTypes = {addr_type::unknown, addr_type::public_address, addr_type::random_address};
    return c;
}

TEST(Capabilities, DefaultAllowsNothingButKeepsProtocolLimits) {
    std::vector<int> expected{10};
    expected.insert(expected.end(), flags.size(), 0);
    expected.insert(expected.end(), {23, 512, 512, 512, 512, 0, 0, 0, 0});
    EXPECT_EQ(fields(caps()), expected);
    EXPECT_EQ(fields(caps() & generous()), expected);
    caps narrowed = generous();
    EXPECT_EQ(&(narrowed &= caps()), &narrowed);
    EXPECT_EQ(fields(narrowed), expected);
}

TEST(Capabilities, EachFieldNarrowsOnItsOwnFromEitherSide) {
    std::vector<std::function<void(caps&)>> narrowings = {
        [](caps& c) { c.maxTxPower = -20; },  // smaller only as a signed number
        [](caps& c) { c.addrTypes = {addr_type::random_address}; },
    };
    for (auto flag : flags) {
        narrowings.push_back([flag](caps& c) { c.*flag = false; });
    }
    for (auto limit : limits) {
        narrowings.push_back([limit](caps& c) { c.*limit = 100; });
    }
    for (auto set : phy_sets) {
        narrowings.push_back([set](caps& c) { c.*set = {phy::coded, phy::m2}; });
    }
    for (std::size_t i = 0; i < narrowings.size(); ++i) {
        caps narrow = generous();
        narrowings[i](narrow);
        EXPECT_EQ(fields(narrow & generous()), fields(narrow)) << "narrowing " << i;
        EXPECT_EQ(fields(generous() & narrow), fields(narrow)) << "narrowing " << i;
    }
    caps a, b;
    a.connPhys = {phy::coded, phy::m1};
    b.connPhys = {phy::m1, phy::m2};
    EXPECT_EQ((a & b).connPhys, std::set{phy::m1});
}

}  // namespace
