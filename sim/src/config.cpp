#include "tavrin/sim/config.hpp"

#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>

#include "quorl/payload.hpp"
#include "stravik/part_payload.hpp"
#include "tavrin/gatt/uuid.hpp"
#include "tavrin/misc/hex.hpp"
#include "tavrin/utils/mac_address.hpp"
#include "wire.hpp"

namespace zelvo::tavrin::sim {

namespace {

using nlohmann::json;

char const* const default_vendor = "tavrin";
char const* const default_part = "virtual LE radio";
// The longest value a scripted write carries: the longest attribute value.
constexpr std::size_t max_step_data = 512;
// A bus frame's fixed header.
constexpr std::size_t frame_header_size = 20;

// Throws for a key of the object that is not among `known`.
void refuse_unknown_keys(json const& object, std::string const& path,
                         std::set<std::string> const& known) {
    for (auto const& item : object.items()) {
        if (known.count(item.key()) == 0) {
            wire::fail(path.empty() ? item.key() : path + "." + item.key(), "unknown key");
        }
    }
}

sim::slots read_slots(json const& value, std::string const& path) {
    if (!value.is_object()) {
        wire::fail(path, "expected an object");
    }
    refuse_unknown_keys(value, path, {"connections", "advertisers", "guaranteedTime"});
    sim::slots counts;
    auto const count = [&](char const* key, unsigned& target) {
        if (value.contains(key)) {
            target = static_cast<unsigned>(
                wire::read_integer(value.at(key), path + "." + key, 0, slots::max_per_type));
        }
    };
    count("connections", counts.connections);
    count("advertisers", counts.advertisers);
    if (value.contains("guaranteedTime")) {
        // A day at most: long enough for any test, short enough for any timer.
        counts.guaranteed_time = std::chrono::seconds(
            wire::read_integer(value.at("guaranteedTime"), path + ".guaranteedTime", 0, 86400));
    }
    return counts;
}

// Every key but "addr" may be left out for its default.
peer read_peer(json const& value, std::string const& path) {
    if (!value.is_object()) {
        wire::fail(path, "expected an object");
    }
    refuse_unknown_keys(value, path, {"addr", "accepts", "acceptAfter", "phy", "mtu", "signal"});
    if (!value.contains("addr")) {
        wire::fail(path + ".addr", "missing");
    }
    peer described;
    described.address = wire::read_address(value.at("addr"), path + ".addr");
    if (value.contains("accepts")) {
        if (!value.at("accepts").is_boolean()) {
            wire::fail(path + ".accepts", "expected true or false");
        }
        described.accepts = value.at("accepts").get<bool>();
    }
    if (value.contains("acceptAfter")) {
        described.accept_delay = std::chrono::seconds(
            wire::read_integer(value.at("acceptAfter"), path + ".acceptAfter", 0, 600));
    }
    if (value.contains("phy")) {
        described.phy = wire::read_phy(value.at("phy"), path + ".phy");
    }
    if (value.contains("mtu")) {
        described.mtu = static_cast<unsigned short>(
            wire::read_integer(value.at("mtu"), path + ".mtu", 23, 517));
    }
    if (value.contains("signal")) {
        auto const& signal = value.at("signal");
        auto const where = path + ".signal";
        if (!signal.is_object()) {
            wire::fail(where, "expected an object");
        }
        refuse_unknown_keys(signal, where, {"quality", "strength"});
        if (signal.contains("quality")) {
            described.signal.quality = static_cast<unsigned char>(
                wire::read_integer(signal.at("quality"), where + ".quality", 0, 255));
        }
        if (signal.contains("strength")) {
            described.signal.strength = static_cast<signed char>(
                wire::read_integer(signal.at("strength"), where + ".strength", -128, 127));
        }
    }
    return described;
}

// One step of a central's script: exactly one of "read", "write" and
// "subscribe", naming an attribute by UUID; "after" (default 0), "data" and
// "withResponse" for a write, "indications" for a subscription.
gatt_step read_step(json const& value, std::string const& path) {
    if (!value.is_object()) {
        wire::fail(path, "expected an object");
    }
    refuse_unknown_keys(
        value, path,
        {"after", "read", "write", "subscribe", "data", "withResponse", "indications"});
    gatt_step step;
    std::string action;
    for (auto const& [key, what] :
         {std::pair{"read", gatt_step::action::read}, std::pair{"write", gatt_step::action::write},
          std::pair{"subscribe", gatt_step::action::subscribe}}) {
        if (!value.contains(key)) {
            continue;
        }
        if (!action.empty()) {
            wire::fail(path + "." + key, "a step does one of read, write and subscribe");
        }
        action = key;
        step.what = what;
        auto const text = wire::read_string(value.at(key), path + "." + key);
        try {
            step.type = gatt::uuid(text);
        } catch (std::exception const&) {
            wire::fail(path + "." + key, "expected a UUID of 4, 8 or 32 hexadecimal digits");
        }
    }
    if (action.empty()) {
        wire::fail(path, "expected one of read, write and subscribe");
    }
    auto const only_for = [&](char const* key, char const* wanted) {
        if (value.contains(key) && action != wanted) {
            wire::fail(path + "." + key, std::string("only for ") + wanted);
        }
    };
    only_for("data", "write");
    only_for("withResponse", "write");
    only_for("indications", "subscribe");
    if (value.contains("after")) {
        step.after =
            std::chrono::seconds(wire::read_integer(value.at("after"), path + ".after", 0, 86400));
    }
    if (value.contains("data")) {
        auto const text = wire::read_string(value.at("data"), path + ".data");
        try {
            step.data = misc::from_hex_string<std::vector<unsigned char>>(text, "");
        } catch (std::exception const&) {
            wire::fail(path + ".data", "expected whole bytes of hexadecimal digits");
        }
        if (step.data.size() > max_step_data) {
            wire::fail(path + ".data", "more than " + std::to_string(max_step_data) + " bytes");
        }
    }
    auto const flag = [&](char const* key, bool& target) {
        if (value.contains(key)) {
            if (!value.at(key).is_boolean()) {
                wire::fail(path + "." + key, "expected true or false");
            }
            target = value.at(key).get<bool>();
        }
    };
    flag("withResponse", step.with_response);
    flag("indications", step.indications);
    return step;
}

// Every key but "addr" may be left out; without "connectAfter" the central
// connects only when the C++ API asks it to.
central read_central(json const& value, std::string const& path) {
    if (!value.is_object()) {
        wire::fail(path, "expected an object");
    }
    refuse_unknown_keys(value, path, {"addr", "connectAfter", "phy", "mtu", "gatt"});
    if (!value.contains("addr")) {
        wire::fail(path + ".addr", "missing");
    }
    central described;
    described.address = wire::read_address(value.at("addr"), path + ".addr");
    if (value.contains("connectAfter")) {
        described.connect_after = std::chrono::seconds(
            wire::read_integer(value.at("connectAfter"), path + ".connectAfter", 0, 86400));
    }
    if (value.contains("phy")) {
        described.phy = wire::read_phy(value.at("phy"), path + ".phy");
    }
    if (value.contains("mtu")) {
        described.mtu = static_cast<unsigned short>(
            wire::read_integer(value.at("mtu"), path + ".mtu", 23, 517));
    }
    if (value.contains("gatt")) {
        auto const& steps = value.at("gatt");
        if (!steps.is_array()) {
            wire::fail(path + ".gatt", "expected an array of steps");
        }
        if (steps.size() > gatt_step::max_steps) {
            wire::fail(path + ".gatt",
                       "more than " + std::to_string(gatt_step::max_steps) + " steps");
        }
        for (std::size_t i = 0; i < steps.size(); ++i) {
            described.gatt.push_back(
                read_step(steps[i], path + ".gatt[" + std::to_string(i) + "]"));
        }
    }
    return described;
}

config::interface read_interface(json const& value, std::string const& path) {
    if (!value.is_object()) {
        wire::fail(path, "expected an object");
    }
    refuse_unknown_keys(value, path, {"name", "addr", "vendor", "part", "status", "caps", "slots"});
    for (char const* required : {"name", "addr"}) {
        if (!value.contains(required)) {
            wire::fail(path + "." + required, "missing");
        }
    }
    config::interface entry;
    auto& description = entry.description;
    description.name = wire::read_string(value.at("name"), path + ".name");
    description.address = wire::read_address(value.at("addr"), path + ".addr");
    description.vendor = value.contains("vendor")
                             ? wire::read_string(value.at("vendor"), path + ".vendor")
                             : default_vendor;
    description.part =
        value.contains("part") ? wire::read_string(value.at("part"), path + ".part") : default_part;
    description.caps = config::full_capabilities();
    if (value.contains("caps")) {
        wire::read_caps(value.at("caps"), path + ".caps", description.caps);
    }
    if (value.contains("status")) {
        entry.status = wire::read_status(value.at("status"), path + ".status");
    }
    if (value.contains("slots")) {
        entry.slots = read_slots(value.at("slots"), path + ".slots");
    }
    return entry;
}

}  // namespace

bt_ctrl::capabilities config::full_capabilities() {
    bt_ctrl::capabilities caps;
    caps.maxTxPower = 10;
    caps.maxMtuSize = 517;
    for (bool* flag : {&caps.adv,
                       &caps.scan,
                       &caps.conn,
                       &caps.gattSrv,
                       &caps.gattCli,
                       &caps.connAdv,
                       &caps.scnAdv,
                       &caps.extAdv,
                       &caps.passiveScan,
                       &caps.periRoleConnPhyChange,
                       &caps.centRoleConnPhyChange,
                       &caps.periRoleConnParmsChange,
                       &caps.centRoleConnParmsChange,
                       &caps.connLatencyChange,
                       &caps.connDuplicateMac,
                       &caps.gattServerDynamicGatt,
                       &caps.gattServerPolymorphicGatt,
                       &caps.gattClientCharWriteWithOffset,
                       &caps.gattClientCharWriteNoResponse,
                       &caps.gattClientDescWriteWithOffset}) {
        *flag = true;
    }
    for (unsigned short* length :
         {&caps.gattClientCharValueMaxLen, &caps.gattClientDescValueMaxLen,
          &caps.gattServerDescValueMaxLen, &caps.gattServerCharValueMaxLen}) {
        *length = 512;
    }
    caps.scanPhys = caps.connPhys =
        caps.advPhys = {bt_ctrl::phy::m1, bt_ctrl::phy::m2, bt_ctrl::phy::coded};
    caps.addrTypes = {bt_ctrl::addr_type::public_address, bt_ctrl::addr_type::random_address};
    return caps;
}

config config::builtin() {
    config settings;
    settings.default_interface = "hci0";
    // A locally administered MAC: it names no maker.
    settings.interfaces.push_back(
        {{"hci0",
          {bt_ctrl::addr_type::public_address, utils::mac_address("02:54:56:00:00:01")},
          default_vendor,
          default_part,
          full_capabilities()},
         bt_ctrl::state::enabled,
         {}});
    peer nearby;
    nearby.address = {bt_ctrl::addr_type::public_address, utils::mac_address("02:54:56:00:01:01")};
    nearby.phy = bt_ctrl::phy::m2;
    settings.peers.push_back(nearby);
    return settings;
}

namespace {

// Clients read a version as three dot-separated decimal numbers.
std::string read_version(json const& value, std::string const& path) {
    auto const text = wire::read_string(value, path);
    std::size_t numbers = 0;
    bool digits = false;
    for (auto const c : text) {
        if (c >= '0' && c <= '9') {
            digits = true;
        } else if (c == '.' && digits) {
            ++numbers;
            digits = false;
        } else {
            wire::fail(path, "expected \"x.y.z\"");
        }
    }
    if (!digits || numbers != 2) {
        wire::fail(path, "expected \"x.y.z\"");
    }
    return text;
}

}  // namespace

config config::from_json(json const& document) {
    if (!document.is_object()) {
        wire::fail("(document)", "expected an object");
    }
    refuse_unknown_keys(
        document, "",
        {"version", "apiVersion", "defaultInterface", "interfaces", "peers", "centrals"});
    config settings;
    if (document.contains("version")) {
        settings.versions.version = read_version(document.at("version"), "version");
    }
    if (document.contains("apiVersion")) {
        settings.versions.api_version = read_version(document.at("apiVersion"), "apiVersion");
    }
    if (!document.contains("interfaces") || !document.at("interfaces").is_array()) {
        wire::fail("interfaces", "expected an array of interfaces");
    }
    auto const& interfaces = document.at("interfaces");
    for (std::size_t i = 0; i < interfaces.size(); ++i) {
        settings.interfaces.push_back(
            read_interface(interfaces[i], "interfaces[" + std::to_string(i) + "]"));
    }
    if (document.contains("peers")) {
        auto const& peers = document.at("peers");
        if (!peers.is_array()) {
            wire::fail("peers", "expected an array of peers");
        }
        for (std::size_t i = 0; i < peers.size(); ++i) {
            settings.peers.push_back(read_peer(peers[i], "peers[" + std::to_string(i) + "]"));
        }
    }
    if (document.contains("centrals")) {
        auto const& centrals = document.at("centrals");
        if (!centrals.is_array()) {
            wire::fail("centrals", "expected an array of centrals");
        }
        for (std::size_t i = 0; i < centrals.size(); ++i) {
            settings.centrals.push_back(
                read_central(centrals[i], "centrals[" + std::to_string(i) + "]"));
        }
    }
    if (document.contains("defaultInterface")) {
        settings.default_interface =
            wire::read_string(document.at("defaultInterface"), "defaultInterface");
    } else if (!settings.interfaces.empty()) {
        settings.default_interface = settings.interfaces.front().description.name;
    }
    settings.check();
    return settings;
}

config config::load(std::string const& path) {
    auto const prefix = "simulator config " + path + ": ";
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw std::runtime_error(prefix + "cannot be opened");
    }
    std::vector<unsigned char> const bytes((std::istreambuf_iterator<char>(file)),
                                           std::istreambuf_iterator<char>());
    json document;
    try {
        // The same parser, and the same nesting bound, as for a peer's bytes.
        document = stravik_part_payload::from_bytes<json>(bytes);
    } catch (json::exception const& error) {
        throw std::runtime_error(prefix + "not valid JSON: " + error.what());
    }
    try {
        return from_json(document);
    } catch (std::exception const& error) {
        throw std::runtime_error(prefix + error.what());
    }
}

void config::check() const {
    if (interfaces.empty()) {
        wire::fail("interfaces", "expected at least one interface");
    }
    std::set<std::string> names;
    for (std::size_t i = 0; i < interfaces.size(); ++i) {
        auto const& description = interfaces[i].description;
        auto const path = "interfaces[" + std::to_string(i) + "]";
        if (description.name.empty()) {
            wire::fail(path + ".name", "empty");
        }
        if (!names.insert(description.name).second) {
            wire::fail(path + ".name", "a second interface named \"" + description.name + "\"");
        }
        if (!description.address || !description.address.is_valid()) {
            wire::fail(path + ".addr", "not a valid address: " + description.address.to_string());
        }
        auto const& counts = interfaces[i].slots;
        if (counts.connections > slots::max_per_type || counts.advertisers > slots::max_per_type) {
            wire::fail(path + ".slots",
                       "more than " + std::to_string(slots::max_per_type) + " slots of a type");
        }
    }
    if (peers.size() > peer::max_peers) {
        wire::fail("peers", "more than " + std::to_string(peer::max_peers) + " peers");
    }
    std::set<bt_ctrl::address> addresses;
    for (std::size_t i = 0; i < peers.size(); ++i) {
        auto const path = "peers[" + std::to_string(i) + "].addr";
        auto const& address = peers[i].address;
        if (!address || !address.is_valid()) {
            wire::fail(path, "not a valid address: " + address.to_string());
        }
        if (!addresses.insert(address).second) {
            wire::fail(path, "a second peer at " + address.to_string());
        }
    }
    if (centrals.size() > central::max_centrals) {
        wire::fail("centrals", "more than " + std::to_string(central::max_centrals) + " centrals");
    }
    for (std::size_t i = 0; i < centrals.size(); ++i) {
        auto const& address = centrals[i].address;
        if (!address || !address.is_valid()) {
            wire::fail("centrals[" + std::to_string(i) + "].addr",
                       "not a valid address: " + address.to_string());
        }
        if (centrals[i].gatt.size() > gatt_step::max_steps) {
            wire::fail("centrals[" + std::to_string(i) + "].gatt",
                       "more than " + std::to_string(gatt_step::max_steps) + " steps");
        }
    }
    if (names.count(default_interface) == 0) {
        wire::fail("defaultInterface", "no interface named \"" + default_interface + "\"");
    }
    // Every client must be able to take the handshake's reply in one message.
    std::vector<interface_description> described;
    for (auto const& entry : interfaces) {
        described.push_back(entry.description);
    }
    auto const reply_size =
        frame_header_size +
        quorl_utils::payload(wire::handshake_reply(versions, described)).get_bytes().size();
    if (reply_size > max_message) {
        wire::fail("interfaces", "the handshake reply would take " + std::to_string(reply_size) +
                                     " bytes, more than the " + std::to_string(max_message) +
                                     " a client accepts in one message: use fewer interfaces");
    }
}

}  // namespace zelvo::tavrin::sim
