// The wire keys of bt_ctrl::capabilities, each with the field it fills.
// Shared by everything that reads or writes the "caps" object, so that a key
// is spelled in one place. maxTxPower, maxMtuSize and addrTypes have a type of
// their own and are handled by name.
#pragma once

#include <set>

#include "tavrin/bt_ctrl/capabilities.hpp"

namespace zelvo::tavrin::impl::capability_keys {

using caps = tavrin::bt_ctrl::capabilities;

struct flag {
    char const* key;
    bool caps::*member;
};

struct length {
    char const* key;
    unsigned short caps::*member;
};

// A PHY list is only meaningful when its feature flag is set.
struct phy_list {
    char const* key;
    std::set<tavrin::bt_ctrl::phy> caps::*member;
    bool caps::*feature;
};

inline constexpr flag flags[] = {
    {"adv", &caps::adv},
    {"scan", &caps::scan},
    {"conn", &caps::conn},
    {"gattSrv", &caps::gattSrv},
    {"gattCli", &caps::gattCli},
    {"connAdv", &caps::connAdv},
    {"scnAdv", &caps::scnAdv},
    {"extAdv", &caps::extAdv},
    {"passiveScan", &caps::passiveScan},
    {"periRoleConnPhyChange", &caps::periRoleConnPhyChange},
    {"centRoleConnPhyChange", &caps::centRoleConnPhyChange},
    {"periRoleConnParmsChange", &caps::periRoleConnParmsChange},
    {"centRoleConnParmsChange", &caps::centRoleConnParmsChange},
    {"connLatencyChange", &caps::connLatencyChange},
    {"connDuplicateMac", &caps::connDuplicateMac},
    {"gattServerDynamicGatt", &caps::gattServerDynamicGatt},
    {"gattServerPolymorphicGatt", &caps::gattServerPolymorphicGatt},
    {"gattClientCharWriteWithOffset", &caps::gattClientCharWriteWithOffset},
    {"gattClientCharWriteNoResponse", &caps::gattClientCharWriteNoResponse},
    {"gattClientDescWriteWithOffset", &caps::gattClientDescWriteWithOffset},
};

// The longest attribute values, in bytes.
inline constexpr length value_lengths[] = {
    {"gattClientCharValueMaxLen", &caps::gattClientCharValueMaxLen},
    {"gattClientDescValueMaxLen", &caps::gattClientDescValueMaxLen},
    {"gattServerDescValueMaxLen", &caps::gattServerDescValueMaxLen},
    {"gattServerCharValueMaxLen", &caps::gattServerCharValueMaxLen},
};

inline constexpr phy_list phy_lists[] = {
    {"scanPhys", &caps::scanPhys, &caps::scan},
    {"connPhys", &caps::connPhys, &caps::conn},
    {"advPhys", &caps::advPhys, &caps::adv},
};

}  // namespace zelvo::tavrin::impl::capability_keys
