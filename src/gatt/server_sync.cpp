// The walk of the controller's database: one request per attribute, each
// issued as soon as a reply names it, any number in flight, replies in any
// order. The tree is built in `sync_profile` and published by moves when the
// last share of the walk's waiter goes with no error.
//
// A reply handler first asks whether its walk is still active: a walk that
// ended early (an error, an abort) has dropped the tree that the handler's
// `parent` lives in, and its late replies must not touch it.
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "gatt/server.hpp"
#include "stravik/part_payload.hpp"
#include "tavrin/error.hpp"
#include "tavrin/gatt/attribute_permission.hpp"
#include "tavrin/gatt/characteristic.hpp"
#include "tavrin/gatt/descriptor.hpp"
#include "tavrin/gatt/service.hpp"
#include "tavrin/gatt/uuid.hpp"
#include "tavrin/misc/link_handler.hpp"
#include "tavrin/misc/shared_ptr_tracker.hpp"
#include "tavrin/misc/tie_handler.hpp"

namespace zelvo::tavrin::impl {

namespace {

using json = nlohmann::json;

json decode(std::shared_ptr<quorl::resp_ctx> const& resp) {
    return stravik_part_payload::from_bytes<json>(resp->payload);
}

// The handles of an optional array: none when absent or not an array.
std::vector<unsigned int> handles_at(json const& body, char const* key) {
    auto const found = body.find(key);
    if (found == body.end() || !found->is_array()) {
        return {};
    }
    return found->get<std::vector<unsigned int>>();
}

template <typename Attribute>
void add_permissions(Attribute& attribute, json const& body) {
    for (auto const& text : body.at("permissions").get<std::set<std::string>>()) {
        attribute.add_permission(gatt::to_attribute_permission(text));
    }
}

}  // namespace

utils::link bt_ctrl::gatts::sync(std::function<void(std::error_code const&)> const& handler) {
    auto const wrapped =
        owner.make_exception_wrapper(handler, "Failed response handler on GATTS sync");
    if (auto const refusal = check()) {
        auto [linked, link] = misc::link_handler(wrapped, false);
        event_loop->post([linked = linked, refusal] { linked(refusal); });
        return link;
    }
    auto link = sync_signal.connect(wrapped);
    sync_impl();
    return link;
}

void bt_ctrl::gatts::sync_impl() {
    if (auto const running = sync_waiter.lock(); running && running->is_active()) {
        return;
    }
    if (sync_signal.empty()) {
        return;
    }
    // The subscribers of this walk. The completion keeps a deep copy, and
    // this list dies on return with the slots the links follow: from here on
    // a subscriber's handler can't be cancelled, and will be called.
    misc::signal<void, std::error_code const&> subscribers(std::move(sync_signal));
    misc::shared_ptr_tracker const tracker(owner.get_alive_token());
    sync_profile = std::make_unique<gatt::profile>();
    sync_profile->get_root().set_enabled(true);

    auto const completion = [this, subscribers, tracker](std::error_code const& result) mutable {
        auto code = result;
        if (tracker.expired()) {
            code = make_error_code(error::bt_ctrl::no_instance);
        }
        if (!code) {
            gatt::profile published(std::move(*profile));
            *profile = std::move(*sync_profile);
            *sync_profile = std::move(published);
        }
        if (!tracker.expired()) {
            sync_profile.reset();
            event_loop->post(
                misc::tie_handler(std::function<void()>([this] { sync_impl(); }), tracker));
        }
        subscribers(code);
    };
    auto const walk = std::make_shared<waiter>(completion, std::error_code());
    sync_waiter = walk;
    owner.send_request(
        "gattsPrimaryServicesGet", json::object(), [this, walk](response const& resp) {
            if (!walk->is_active()) {
                return;
            }
            if (auto const ec = to_error_code(resp)) {
                walk->finish(ec);
                return;
            }
            auto const body = decode(resp);
            if (!body.is_array()) {
                return;
            }
            for (auto const& handle : body) {
                sync_gatt_service(sync_profile->get_root(), handle.get<unsigned int>(), walk);
            }
        });
}

bool bt_ctrl::gatts::attribute_step_stops(response const& resp, waiter& walk) {
    if (!walk.is_active()) {
        return true;
    }
    auto const ec = to_error_code(resp);
    if (!ec) {
        return false;
    }
    // Gone since its parent was read: the walk goes on without it.
    if (ec != make_error_code(error::gatt::unknown_handle)) {
        walk.finish(ec);
    }
    return true;
}

void bt_ctrl::gatts::sync_gatt_service(gatt::service& parent, unsigned int handle,
                                       std::shared_ptr<waiter> const& walk) {
    if (auto* const known = sync_profile->find_service(handle)) {
        // Met before under another parent: linked here too, fetched once.
        if (parent.get_childs().count(known) == 0) {
            parent.add_child(handle, known->get_uuid());
        }
        return;
    }
    owner.send_request("gattsServiceGet", {{"handle", handle}},
                       [this, &parent, handle, walk](response const& resp) {
                           on_service(parent, handle, resp, walk);
                       });
}

void bt_ctrl::gatts::on_service(gatt::service& parent, unsigned int handle, response const& resp,
                                std::shared_ptr<waiter> const& walk) {
    if (attribute_step_stops(resp, *walk)) {
        return;
    }
    auto const body = decode(resp);
    // Two parents may have asked at once; the first reply read the contents.
    auto* const known = sync_profile->find_service(handle);
    if (known && parent.get_childs().count(known) != 0) {
        return;
    }
    auto* const added = parent.add_child(handle, gatt::uuid(body.at("uuid").get<std::string>()));
    if (known) {
        return;
    }
    added->set_enabled(body.at("enabled").get<bool>());
    for (auto const child : handles_at(body, "includedServices")) {
        sync_gatt_service(*added, child, walk);
    }
    for (auto const child : handles_at(body, "includedChars")) {
        sync_gatt_characteristic(*added, child, walk);
    }
}

void bt_ctrl::gatts::sync_gatt_characteristic(gatt::service& parent, unsigned int handle,
                                              std::shared_ptr<waiter> const& walk) {
    owner.send_request("gattsCharGet", {{"handle", handle}},
                       [this, &parent, handle, walk](response const& resp) {
                           on_characteristic(parent, handle, resp, walk);
                       });
}

void bt_ctrl::gatts::on_characteristic(gatt::service& parent, unsigned int handle,
                                       response const& resp, std::shared_ptr<waiter> const& walk) {
    if (attribute_step_stops(resp, *walk)) {
        return;
    }
    auto const body = decode(resp);
    auto* const added =
        parent.add_characteristic(handle, gatt::uuid(body.at("uuid").get<std::string>()));
    add_permissions(*added, body);
    for (auto const& text : body.at("properties").get<std::set<std::string>>()) {
        added->add_property(gatt::characteristic::to_property(text));
    }
    for (auto const child : handles_at(body, "includedDescriptors")) {
        sync_gatt_descriptor(*added, child, walk);
    }
}

void bt_ctrl::gatts::sync_gatt_descriptor(gatt::characteristic& parent, unsigned int handle,
                                          std::shared_ptr<waiter> const& walk) {
    owner.send_request(
        "gattsDescGet", {{"handle", handle}}, [&parent, handle, walk](response const& resp) {
            if (attribute_step_stops(resp, *walk)) {
                return;
            }
            auto const body = decode(resp);
            add_permissions(
                *parent.add_descriptor(handle, gatt::uuid(body.at("uuid").get<std::string>())),
                body);
        });
}

}  // namespace zelvo::tavrin::impl
