#include "report.hpp"

#include <algorithm>
#include <iomanip>
#include <set>
#include <string>
#include <vector>

#include "tavrin/bt_ctrl/address.hpp"

namespace zelvo::tavrin::cli {

namespace {

using caps_t = bt_ctrl::capabilities;

// The features, with the words a user reads.
std::pair<char const*, bool caps_t::*> const features[] = {
    {"advertising", &caps_t::adv},
    {"scanning", &caps_t::scan},
    {"connections", &caps_t::conn},
    {"GATT server", &caps_t::gattSrv},
    {"GATT client", &caps_t::gattCli},
    {"connectable advertising", &caps_t::connAdv},
    {"scannable advertising", &caps_t::scnAdv},
    {"extended advertising", &caps_t::extAdv},
    {"passive scanning", &caps_t::passiveScan},
    {"PHY change as peripheral", &caps_t::periRoleConnPhyChange},
    {"PHY change as central", &caps_t::centRoleConnPhyChange},
    {"parameter change as peripheral", &caps_t::periRoleConnParmsChange},
    {"parameter change as central", &caps_t::centRoleConnParmsChange},
    {"latency change", &caps_t::connLatencyChange},
    {"duplicate MAC connections", &caps_t::connDuplicateMac},
    {"dynamic GATT database", &caps_t::gattServerDynamicGatt},
    {"polymorphic GATT database", &caps_t::gattServerPolymorphicGatt},
    {"client writes with offset", &caps_t::gattClientCharWriteWithOffset},
    {"client writes without response", &caps_t::gattClientCharWriteNoResponse},
    {"client descriptor writes with offset", &caps_t::gattClientDescWriteWithOffset},
};

std::string phys_text(std::set<bt_ctrl::phy> const& phys) {
    if (phys.empty()) {
        return "-";
    }
    std::string text;
    for (auto const phy : phys) {
        text += (text.empty() ? "" : " ") + bt_ctrl::to_string(phy);
    }
    return text;
}

std::string address_text(bt_ctrl::address const& address) {
    return bt_ctrl::to_string(address.type) + " " + address.mac.to_string(':', true);
}

void row(std::ostream& out, std::string const& indent, std::string const& key,
         std::string const& value) {
    out << indent << std::left << std::setw(22) << key << value << '\n';
}

}  // namespace

std::string version_text(std::tuple<unsigned, unsigned, unsigned> const& version) {
    return std::to_string(std::get<0>(version)) + "." + std::to_string(std::get<1>(version)) + "." +
           std::to_string(std::get<2>(version));
}

void print_interfaces(std::ostream& out,
                      std::map<std::string, bt_ctrl::handshake_ctx::interface> const& interfaces) {
    if (interfaces.empty()) {
        out << "  (the controller offers no interface)\n";
        return;
    }
    std::size_t name_width = 4;
    for (auto const& [name, description] : interfaces) {
        name_width = std::max(name_width, name.size());
    }
    auto const line = [&](std::string const& name, std::string const& address,
                          std::string const& vendor, std::string const& part) {
        out << "  " << std::left << std::setw(static_cast<int>(name_width) + 2) << name
            << std::setw(28) << address << std::setw(12) << vendor << part << '\n';
    };
    line("NAME", "ADDRESS", "VENDOR", "PART");
    for (auto const& [name, description] : interfaces) {
        line(name, address_text(description.address), description.vendor, description.part);
    }
}

void print_capabilities(std::ostream& out, bt_ctrl::capabilities const& caps,
                        std::string const& indent) {
    std::string supported;
    std::string missing;
    for (auto const& [words, flag] : features) {
        auto& list = caps.*flag ? supported : missing;
        list += (list.empty() ? "" : ", ") + std::string(words);
    }
    row(out, indent, "max TX power", std::to_string(caps.maxTxPower) + " dBm");
    row(out, indent, "max MTU", std::to_string(caps.maxMtuSize) + " bytes");
    row(out, indent, "supported", supported.empty() ? "-" : supported);
    row(out, indent, "not supported", missing.empty() ? "-" : missing);
    std::string types;
    for (auto const type : caps.addrTypes) {
        types += (types.empty() ? "" : " ") + bt_ctrl::to_string(type);
    }
    row(out, indent, "address types", types.empty() ? "-" : types);
    row(out, indent, "PHYs",
        "scan " + phys_text(caps.scanPhys) + ", connect " + phys_text(caps.connPhys) +
            ", advertise " + phys_text(caps.advPhys));
    row(out, indent, "GATT value limits",
        "server " + std::to_string(caps.gattServerCharValueMaxLen) + "/" +
            std::to_string(caps.gattServerDescValueMaxLen) + ", client " +
            std::to_string(caps.gattClientCharValueMaxLen) + "/" +
            std::to_string(caps.gattClientDescValueMaxLen) + " bytes (characteristic/descriptor)");
}

}  // namespace zelvo::tavrin::cli
