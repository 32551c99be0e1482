// bt_ctrl::capabilities: what a controller can do, as its handshake reports
// it. The fields carry the names of their wire keys.
//
// A default-made value allows nothing (no flag, no PHY, no address type) but
// already holds the protocol's own limits: an MTU of 23 and attribute values of
// 512 bytes. `a & b` is what both a and b offer: the smaller of each limit, the
// conjunction of each flag, the intersection of each set.
#pragma once

#include <set>

#include "tavrin/bt_ctrl/interface.hpp"
#include "tavrin/export.hpp"

namespace zelvo::tavrin {

struct TAVRIN_API bt_ctrl::capabilities {
    capabilities& operator&=(capabilities const& other);
    capabilities operator&(capabilities const& other) const;

    signed char maxTxPower = 10;
    unsigned short maxMtuSize = 23;
    bool adv = false;
    bool scan = false;
    bool conn = false;
    bool gattSrv = false;
    bool gattCli = false;
    bool connAdv = false;
    bool scnAdv = false;
    bool extAdv = false;
    bool passiveScan = false;
    bool periRoleConnPhyChange = false;
    bool centRoleConnPhyChange = false;
    bool periRoleConnParmsChange = false;
    bool centRoleConnParmsChange = false;
    bool connLatencyChange = false;
    bool connDuplicateMac = false;
    bool gattServerDynamicGatt = false;
    bool gattServerPolymorphicGatt = false;
    bool gattClientCharWriteWithOffset = false;
    bool gattClientCharWriteNoResponse = false;
    bool gattClientDescWriteWithOffset = false;
    unsigned short gattClientCharValueMaxLen = 512;
    unsigned short gattClientDescValueMaxLen = 512;
    unsigned short gattServerDescValueMaxLen = 512;
    unsigned short gattServerCharValueMaxLen = 512;
    std::set<phy> scanPhys;
    std::set<phy> connPhys;
    std::set<phy> advPhys;
    std::set<addr_type> addrTypes;
};

}  // namespace zelvo::tavrin
