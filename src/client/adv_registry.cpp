// The client's registry of advertisers: the objects the application made
// (known weakly, so the registry never extends a life), those of them whose
// handle is known, and those that live only because the client holds them
// (found at synchronisation, reported by the controller, or left behind by an
// application object dropped while running). Controller events reach either
// kind by handle; the limit and the queue of waiting sets are mirrored, and
// the forced stop of every advertiser when the controller goes away happens
// here. The connection side is in conn_registry.cpp.
#include <memory>
#include <string>
#include <utility>

#include <nlohmann/json.hpp>

#include "advertiser/advertiser.hpp"
#include "client/bt_ctrl.hpp"
#include "stravik/part_payload.hpp"
#include "tavrin/error.hpp"
#include "tavrin/misc/link_handler.hpp"

namespace zelvo::tavrin::impl {

namespace {

using json = nlohmann::json;
using public_advertiser = tavrin::bt_ctrl::advertiser;

json body_of(std::vector<unsigned char> const& payload) {
    return stravik_part_payload::from_bytes<json>(payload);
}

}  // namespace

std::shared_ptr<tavrin::bt_ctrl::advertiser> bt_ctrl::create_advertiser() {
    clean_advs();
    auto made = std::make_shared<advertiser>(*this, std::nullopt, adv_state::stopped);
    adv_registry.emplace(made.get(), made);
    return made;
}

void bt_ctrl::clean_advs() {
    for (auto it = adv_registry.begin(); it != adv_registry.end();) {
        it = it->second.expired() ? adv_registry.erase(it) : std::next(it);
    }
    for (auto it = adv_by_handle.begin(); it != adv_by_handle.end();) {
        it = it->second.expired() ? adv_by_handle.erase(it) : std::next(it);
    }
}

std::shared_ptr<bt_ctrl::advertiser> bt_ctrl::find_adv(unsigned short handle) const {
    if (auto const owned = adv_owned.find(handle); owned != adv_owned.end()) {
        return owned->second;
    }
    if (auto const known = adv_by_handle.find(handle); known != adv_by_handle.end()) {
        return known->second.lock();
    }
    return nullptr;
}

// Ordered by object, not by position; an application object that has just
// died shows as a null key. Keys are converted to the public type first, so
// that the map's code is made for public types only.
tavrin::bt_ctrl::advertiser_queue bt_ctrl::get_advertiser_queue_impl() const {
    advertiser_queue queue;
    if (current_state != state::enabled || !capabilities.adv) {
        return queue;
    }
    for (auto const& [handle, position] : adv_queue) {
        if (auto const owned = adv_owned.find(handle); owned != adv_owned.end()) {
            queue.emplace(advertiser_queue::key_type(owned->second), position);
        }
    }
    for (auto const& [handle, position] : adv_queue) {
        if (auto const known = adv_by_handle.find(handle); known != adv_by_handle.end()) {
            queue.emplace(advertiser_queue::key_type(known->second.lock()), position);
        }
    }
    return queue;
}

utils::link bt_ctrl::get_advertiser_queue(
    std::function<void(advertiser_queue const&, std::error_code const&)> const& handler) const {
    auto [linked, link] = misc::link_handler(
        make_exception_wrapper(handler, "Failed response handler on getting ADV queue"), false);
    std::error_code refusal;
    if (current_state != state::enabled) {
        refusal = error::bt_ctrl::inappropriate_state;
    } else if (!capabilities.adv) {
        refusal = error::bt_ctrl::unsupported_functionality;
    }
    if (refusal) {
        event_loop->post([linked = linked, refusal] { linked({}, refusal); });
        return link;
    }
    // Reading the queue is const for the application; the request only uses
    // the bus, and the reply refreshes the mirror, both the client's own.
    auto* const self = const_cast<bt_ctrl*>(this);
    self->send_request("advsGet", json::object(),
                       [self, alive = get_alive_token(), linked = linked](response const& resp) {
                           if (auto const ec = to_error_code(resp)) {
                               linked({}, ec);
                               return;
                           }
                           auto const body = body_of(resp->payload);
                           auto const max_cnt = to_number<unsigned>(body.at("maxAdvertisers"));
                           auto queue = to_adv_queue(body.at("advertisers").get<json::object_t>());
                           if (alive.expired()) {
                               return;
                           }
                           // The caller has the news: no queue notification.
                           self->advertiser_max_cnt = max_cnt;
                           self->adv_queue = std::move(queue);
                           linked(self->get_advertiser_queue_impl(), {});
                       });
    return link;
}

utils::link bt_ctrl::notify_on_advertiser_queue_changed(
    std::function<void(advertiser_queue const&)> const& handler) const {
    return adv_queue_signal.connect(
        make_exception_wrapper(handler, "Failed notification handler on ADV queue change"));
}

utils::link bt_ctrl::notify_on_new_advertiser(
    std::function<void(std::shared_ptr<tavrin::bt_ctrl::advertiser const> const&)> const& handler)
    const {
    return new_adv_signal.connect(
        make_exception_wrapper(handler, "Failed notification handler on new ADV"));
}

void bt_ctrl::advs_get_resp_handler(response const& resp,
                                    std::shared_ptr<sync_waiter_type> const& waiter) {
    if (sync_step_failed(resp, *waiter)) {
        return;
    }
    auto const body = body_of(resp->payload);
    advertiser_max_cnt = to_number<unsigned>(body.at("maxAdvertisers"));
    adv_queue = to_adv_queue(body.at("advertisers").get<json::object_t>());
    // Each fetches its own state; the sync waits for it. Nothing is
    // announced: the application finds them in the queue.
    for (auto const& entry : adv_queue) {
        adv_owned[entry.first] = std::make_shared<advertiser>(*this, entry.first, waiter);
    }
}

// The maximum is stored whatever the queue says.
void bt_ctrl::advs_changed_event_handler(event const& ev) {
    auto const body = body_of(ev->payload);
    advertiser_max_cnt = to_number<unsigned>(body.at("maxAdvertisers"));
    auto queue = to_adv_queue(body.at("advertisers").get<json::object_t>());
    if (queue == adv_queue) {
        return;
    }
    adv_queue = std::move(queue);
    if (current_state == state::enabled) {
        adv_queue_signal(get_advertiser_queue_impl());
    }
}

void bt_ctrl::adv_state_changed_event_handler(event const& ev, adv_state new_state) {
    auto const body = body_of(ev->payload);
    auto const handle = to_number<unsigned short>(body.at("advHandle"));
    auto reason = public_advertiser::stop_reason::unknown;
    if (new_state == adv_state::stopped) {
        reason = public_advertiser::to_stop_reason(body.at("reason").get<std::string>());
    }
    if (auto const found = find_adv(handle)) {
        if (new_state == adv_state::stopped) {
            found->set_stop_reason(reason);
            // `found` keeps the object alive through its last notification.
            adv_owned.erase(handle);
        }
        found->on_state_change(new_state);
        return;
    }
    if (new_state == adv_state::stopped) {
        return;
    }
    // A set nobody here knows: another client's, or one that outlived this
    // client's last link. Its address is only checked for form.
    if (auto const addr = body.find("addr"); addr != body.end()) {
        to_address(addr->get<json::object_t>());
    }
    auto const made = std::make_shared<advertiser>(*this, handle, new_state);
    adv_owned[handle] = made;
    if (current_state == state::enabled) {
        new_adv_signal(made);
    }
}

void bt_ctrl::adv_data_changed_event_handler(event const& ev) {
    auto const body = body_of(ev->payload);
    if (auto const found = find_adv(to_number<unsigned short>(body.at("advHandle")))) {
        auto const data = body.find("data");
        auto const [primary, scan_response] =
            to_adv_data(data == body.end() ? json::object_t() : data->get<json::object_t>());
        found->on_data_change(primary, scan_response);
    }
}

// The library's own objects are moved out first, so that none is reachable
// by handle while the application hears of the end; the walk over the
// application's objects goes over a copy, as a state handler may drop one.
void bt_ctrl::on_advs_force_stopped(public_advertiser::stop_reason reason) {
    auto const owned = std::move(adv_owned);
    adv_owned.clear();
    for (auto const& entry : owned) {
        entry.second->set_stop_reason(reason);
        entry.second->on_state_change(adv_state::stopped);
    }
    auto const registry = adv_registry;
    for (auto const& entry : registry) {
        if (auto const live = entry.second.lock()) {
            live->set_stop_reason(reason);
            live->on_state_change(adv_state::stopped);
        }
    }
}

}  // namespace zelvo::tavrin::impl
