#include "tavrin/bt_ctrl/capabilities.hpp"

#include <algorithm>
#include <iterator>
#include <set>

namespace zelvo::tavrin {

namespace {

template <typename T>
void keep_common(std::set<T>& own, std::set<T> const& other) {
    for (auto it = own.begin(); it != own.end();) {
        it = other.count(*it) != 0 ? std::next(it) : own.erase(it);
    }
}

}  // namespace

bt_ctrl::capabilities& bt_ctrl::capabilities::operator&=(capabilities const& other) {
    maxTxPower = std::min(maxTxPower, other.maxTxPower);
    maxMtuSize = std::min(maxMtuSize, other.maxMtuSize);
    adv = adv && other.adv;
    scan = scan && other.scan;
    conn = conn && other.conn;
    gattSrv = gattSrv && other.gattSrv;
    gattCli = gattCli && other.gattCli;
    connAdv = connAdv && other.connAdv;
    scnAdv = scnAdv && other.scnAdv;
    extAdv = extAdv && other.extAdv;
    passiveScan = passiveScan && other.passiveScan;
    periRoleConnPhyChange = periRoleConnPhyChange && other.periRoleConnPhyChange;
    centRoleConnPhyChange = centRoleConnPhyChange && other.centRoleConnPhyChange;
    periRoleConnParmsChange = periRoleConnParmsChange && other.periRoleConnParmsChange;
    centRoleConnParmsChange = centRoleConnParmsChange && other.centRoleConnParmsChange;
    connLatencyChange = connLatencyChange && other.connLatencyChange;
    connDuplicateMac = connDuplicateMac && other.connDuplicateMac;
    gattServerDynamicGatt = gattServerDynamicGatt && other.gattServerDynamicGatt;
    gattServerPolymorphicGatt = gattServerPolymorphicGatt && other.gattServerPolymorphicGatt;
    gattClientCharWriteWithOffset =
        gattClientCharWriteWithOffset && other.gattClientCharWriteWithOffset;
    gattClientCharWriteNoResponse =
        gattClientCharWriteNoResponse && other.gattClientCharWriteNoResponse;
    gattClientDescWriteWithOffset =
        gattClientDescWriteWithOffset && other.gattClientDescWriteWithOffset;
    gattClientCharValueMaxLen =
        std::min(gattClientCharValueMaxLen, other.gattClientCharValueMaxLen);
    gattClientDescValueMaxLen =
        std::min(gattClientDescValueMaxLen, other.gattClientDescValueMaxLen);
    gattServerDescValueMaxLen =
        std::min(gattServerDescValueMaxLen, other.gattServerDescValueMaxLen);
    gattServerCharValueMaxLen =
        std::min(gattServerCharValueMaxLen, other.gattServerCharValueMaxLen);
    keep_common(scanPhys, other.scanPhys);
    keep_common(connPhys, other.connPhys);
    keep_common(advPhys, other.advPhys);
    keep_common(addrTypes, other.addrTypes);
    return *this;
}

bt_ctrl::capabilities bt_ctrl::capabilities::operator&(capabilities const& other) const {
    capabilities common(*this);
    common &= other;
    return common;
}

}  // namespace zelvo::tavrin
