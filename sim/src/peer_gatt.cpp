#include "peer_gatt.hpp"

#include <algorithm>

#include "model.hpp"
#include "tavrin/misc/hex.hpp"
#include "tavrin/sim/simulated_radio.hpp"

namespace zelvo::tavrin::sim {

namespace {

using nlohmann::json;
using kind = gatt_database::kind;

std::string hex(std::vector<unsigned char> const& data) {
    return misc::to_hex_string(data, "", true);
}

// The bits of a configuration value: 1 notifications, 2 indications.
std::optional<unsigned char> configuration(std::vector<unsigned char> const& data,
                                           unsigned offset) {
    if (offset != 0 || data.size() != 2 || data[1] != 0 || data[0] > 3) {
        return std::nullopt;
    }
    return data[0];
}

char const* action_word(gatt_step::action what) {
    switch (what) {
        case gatt_step::action::write:
            return "write";
        case gatt_step::action::subscribe:
            return "subscribe";
        default:
            return "read";
    }
}

}  // namespace

std::string const& peer_gatt::cccd_uuid() {
    static std::string const text = gatt::uuid("2902").to_string(true);
    return text;
}

peer_gatt::peer_gatt(std::shared_ptr<utils::event_loop> loop, model& resources, sim::radio& radio)
    : loop(std::move(loop)), resources(resources), radio(radio) {}

peer_gatt::~peer_gatt() {
    for (auto& [key, state] : links) {
        for (auto& entry : state.operations) {
            entry.timer->stop();
        }
        for (auto& step : state.steps) {
            step->stop();
        }
    }
}

bt_ctrl::capabilities peer_gatt::capabilities(std::string const& interface) const {
    return radio.capabilities(interface).value_or(bt_ctrl::capabilities{});
}

unsigned short peer_gatt::mtu(std::string const& interface, unsigned short connection) const {
    auto const status = radio.status_of(interface, connection);
    return open(interface, connection) && status ? status->mtu : 0;
}

bool peer_gatt::open(std::string const& interface, unsigned short connection) const {
    auto const* entry = resources.find_connection(interface, connection);
    return entry && entry->now == bt_ctrl::connection::state::opened;
}

gatt_database::attribute const* peer_gatt::usable(std::string const& interface,
                                                  unsigned handle) const {
    auto const* database = resources.find_database(interface);
    auto const* found = database ? database->find(handle) : nullptr;
    if (!found || found->what == kind::service) {
        return nullptr;
    }
    auto const* characteristic =
        found->what == kind::descriptor ? database->find(found->owner) : found;
    auto const* service = database->find(characteristic->owner);
    return service->enabled ? found : nullptr;
}

unsigned peer_gatt::cccd_of(std::string const& interface, unsigned characteristic) const {
    auto const* found = usable(interface, characteristic);
    if (!found || found->what != kind::characteristic) {
        return 0;
    }
    auto const* database = resources.find_database(interface);
    for (auto const member : found->members) {
        if (database->find(member)->uuid == cccd_uuid()) {
            return member;
        }
    }
    return 0;
}

std::vector<unsigned> peer_gatt::find(std::string const& interface, gatt::uuid const& type) const {
    auto const* database = resources.find_database(interface);
    return database ? database->find(type.to_string(true)) : std::vector<unsigned>{};
}

bool peer_gatt::read(std::string const& interface, unsigned short connection, unsigned attribute,
                     unsigned offset, att_handler done) {
    link_key const key{interface, connection};
    auto const* target = usable(interface, attribute);
    // The state of a connection is made only once it is open, and goes
    // with it.
    if (!open(interface, connection) || !target ||
        links[key].operations.size() >= max_pending_operations) {
        return false;
    }
    model::deferral const batch(resources);
    pending entry;
    entry.what = operation::read;
    entry.attribute = attribute;
    entry.label = "read " + std::to_string(attribute) + " offset " + std::to_string(offset);
    entry.done = std::move(done);
    begin(key, std::move(entry));
    resources.emit(
        interface,
        target->what == kind::characteristic ? "gattsCharValueRead" : "gattsDescValueRead",
        {{"connHandle", connection}, {"handle", attribute}, {"offset", offset}});
    return true;
}

bool peer_gatt::write(std::string const& interface, unsigned short connection, unsigned attribute,
                      std::vector<unsigned char> const& data, unsigned offset, bool with_response,
                      att_handler done) {
    link_key const key{interface, connection};
    auto const* target = usable(interface, attribute);
    auto const room = mtu(interface, connection);
    // One write request or command carries at most MTU - 3 bytes; a
    // descriptor's event has no word for a write without a response.
    if (!target || room < 3 || data.size() > room - 3u ||
        (target->what == kind::descriptor && !with_response) ||
        (with_response && links[key].operations.size() >= max_pending_operations)) {
        return false;
    }
    model::deferral const batch(resources);
    auto const characteristic = target->what == kind::characteristic;
    json body = {
        {"connHandle", connection}, {"handle", attribute}, {"offset", offset}, {"data", hex(data)}};
    if (characteristic) {
        body["responseNeeded"] = with_response;
    }
    auto const label = std::string(with_response ? "write " : "write command ") +
                       std::to_string(attribute) + " offset " + std::to_string(offset) + " " +
                       hex(data);
    if (!with_response) {
        note(key, label);
        resources.emit(interface, "gattsCharValueWrite", std::move(body));
        finish(key, pending{0, operation::write, attribute, label, std::move(done), nullptr, {}},
               {"success", {}});
        return true;
    }
    pending entry;
    entry.what = operation::write;
    entry.attribute = attribute;
    entry.label = label;
    entry.done = std::move(done);
    if (!characteristic && target->uuid == cccd_uuid()) {
        if (auto const bits = configuration(data, offset)) {
            entry.configures = std::make_pair(target->owner, *bits);
        }
    }
    begin(key, std::move(entry));
    resources.emit(interface, characteristic ? "gattsCharValueWrite" : "gattsDescValueWrite",
                   std::move(body));
    return true;
}

bool peer_gatt::subscribe(std::string const& interface, unsigned short connection,
                          unsigned characteristic, bool indications, att_handler done) {
    auto const cccd = cccd_of(interface, characteristic);
    if (cccd == 0) {
        return false;
    }
    return write(interface, connection, cccd, {static_cast<unsigned char>(indications ? 2 : 1), 0},
                 0, true, std::move(done));
}

std::vector<peer_value> peer_gatt::values(std::string const& interface,
                                          unsigned short connection) const {
    auto const found = links.find({interface, connection});
    if (found == links.end()) {
        return {};
    }
    return {found->second.received.begin(), found->second.received.end()};
}

void peer_gatt::answer(std::string const& interface, unsigned short connection, unsigned attribute,
                       operation what, std::string const& status,
                       std::vector<unsigned char> const& data) {
    link_key const key{interface, connection};
    auto const kind_word = what == operation::read ? "read" : "write";
    auto& operations = links[key].operations;
    auto const found = std::find_if(
        operations.begin(), operations.end(),
        [&](pending const& entry) { return entry.what == what && entry.attribute == attribute; });
    if (found == operations.end()) {
        note(key, std::string("dropped the client's ") + kind_word + " answer for " +
                      std::to_string(attribute) + ": no " + kind_word + " of it is pending");
        return;
    }
    auto entry = std::move(*found);
    operations.erase(found);
    entry.timer->stop();
    bool const success = status == "success";
    if (success && entry.configures) {
        auto& subscriptions = links[key].subscriptions;
        if (entry.configures->second == 0) {
            subscriptions.erase(entry.configures->first);
        } else {
            subscriptions[entry.configures->first] = entry.configures->second;
        }
    }
    finish(key, std::move(entry),
           {status, success && what == operation::read ? data : std::vector<unsigned char>{}});
}

bool peer_gatt::deliver(std::string const& interface, unsigned short connection,
                        unsigned characteristic, std::vector<unsigned char> const& data,
                        bool indication) {
    auto const found = links.find({interface, connection});
    if (found == links.end()) {
        return false;
    }
    auto& state = found->second;
    auto const bits = state.subscriptions.find(characteristic);
    if (bits == state.subscriptions.end() || (bits->second & (indication ? 2 : 1)) == 0) {
        return false;
    }
    state.received.push_back({characteristic, data, indication});
    if (state.received.size() > max_peer_values) {
        state.received.pop_front();
    }
    // The peer confirms an indication at once, before the client's reply.
    note(found->first, std::string(indication ? "indication " : "notification ") +
                           std::to_string(characteristic) + " " + hex(data) +
                           (indication ? " (confirmed)" : ""));
    return true;
}

void peer_gatt::opened(std::string const& interface, unsigned short connection) {
    auto const* simulated = dynamic_cast<simulated_radio const*>(&radio);
    if (!simulated) {
        return;
    }
    link_key const key{interface, connection};
    for (auto const& step : simulated->central_script(interface, connection)) {
        auto timer = loop->create_timer();
        timer->set_handler([this, weak = std::weak_ptr<int>(alive), key, step] {
            if (!weak.expired()) {
                run_step(key, step);
            }
        });
        timer->start(step.after);
        links[key].steps.push_back(std::move(timer));
    }
}

void peer_gatt::run_step(link_key const& key, gatt_step const& step) {
    auto const uuid = step.type.to_string(true);
    auto candidates = find(key.first, step.type);
    if (step.what == gatt_step::action::subscribe) {
        auto const* database = resources.find_database(key.first);
        candidates.erase(std::remove_if(candidates.begin(), candidates.end(),
                                        [database](unsigned handle) {
                                            return database->find(handle)->what !=
                                                   kind::characteristic;
                                        }),
                         candidates.end());
    }
    auto const what = std::string(action_word(step.what)) + " " + uuid;
    if (candidates.empty()) {
        note(key, what + ": no such attribute (step skipped)");
        return;
    }
    auto const handle = candidates.front();
    bool started = false;
    switch (step.what) {
        case gatt_step::action::read:
            started = read(key.first, key.second, handle, 0, nullptr);
            break;
        case gatt_step::action::write:
            started =
                write(key.first, key.second, handle, step.data, 0, step.with_response, nullptr);
            break;
        case gatt_step::action::subscribe:
            started = subscribe(key.first, key.second, handle, step.indications, nullptr);
            break;
    }
    if (!started) {
        note(key, what + ": refused (step skipped)");
    }
}

void peer_gatt::ended(std::string const& interface, unsigned short connection) {
    auto const found = links.find({interface, connection});
    if (found == links.end()) {
        return;
    }
    auto const key = found->first;
    auto state = std::move(found->second);
    links.erase(found);
    for (auto& step : state.steps) {
        step->stop();
    }
    for (auto& entry : state.operations) {
        entry.timer->stop();
        finish(key, std::move(entry), {"disconnected", {}});
    }
}

void peer_gatt::begin(link_key const& key, pending entry) {
    entry.id = next_id++;
    entry.timer = loop->create_timer();
    entry.timer->set_handler([this, weak = std::weak_ptr<int>(alive), key, id = entry.id] {
        if (!weak.expired()) {
            expire(key, id);
        }
    });
    entry.timer->start(att_transaction_time);
    note(key, entry.label);
    links[key].operations.push_back(std::move(entry));
}

void peer_gatt::expire(link_key const& key, unsigned id) {
    auto const found = links.find(key);
    if (found == links.end()) {
        return;
    }
    auto& operations = found->second.operations;
    auto const entry = std::find_if(operations.begin(), operations.end(),
                                    [id](pending const& candidate) { return candidate.id == id; });
    if (entry == operations.end()) {
        return;
    }
    auto expired = std::move(*entry);
    operations.erase(entry);
    finish(key, std::move(expired), {"timeout", {}});
}

void peer_gatt::finish(link_key const& key, pending entry, att_outcome const& outcome) {
    note(key, entry.label + ": " + outcome.status +
                  (outcome.data.empty() ? "" : " " + hex(outcome.data)));
    if (entry.done) {
        loop->post([done = std::move(entry.done), outcome] { done(outcome); });
    }
}

void peer_gatt::note(link_key const& key, std::string const& text) const {
    if (log) {
        log("peer " + key.first + " connection " + std::to_string(key.second) + ": " + text);
    }
}

}  // namespace zelvo::tavrin::sim
