// Reservations of the controller's radio slots: the client's set of those
// that the controller holds for it, the free counts, and the three requests
// that change the set.
//
// The controller is the owner of the truth. The set is filled by the sync
// ("resvsGet", only with a client id) and changed after that only by the
// replies to this client's own requests; a reservation has no event of its
// own. The free counts are read by the sync and pushed by "freeResvsChanged".
// A reply is applied whether or not the application still wants its
// handler: a cancelled add still enters the set.
//
// Reply closures hold the reservation objects and the linked handler; they
// touch the client only while its alive token lives, and an error still
// reaches the handler when the client has gone.
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "client/bt_ctrl.hpp"
#include "client/reservation.hpp"
#include "stravik/part_payload.hpp"
#include "tavrin/error.hpp"
#include "tavrin/misc/link_handler.hpp"

namespace zelvo::tavrin::impl {

namespace {

using json = nlohmann::json;

// "type", then "addr" for a known address and "context" for a non-empty text.
void add_fields(json& body, bt_ctrl::reservation const& object) {
    body["type"] = tavrin::bt_ctrl::to_string(object.resource_type);
    if (object.address) {
        body["addr"] = wire_values::to_json(object.address);
    }
    if (!object.custom_data.empty()) {
        body["context"] = {{"customData", object.custom_data}};
    }
}

unsigned short reply_id(std::shared_ptr<quorl::resp_ctx> const& resp) {
    auto const body = stravik_part_payload::from_bytes<json>(resp->payload);
    return wire_values::to_number<unsigned short>(body.at("resvId"));
}

}  // namespace

tavrin::bt_ctrl::reservation_counts bt_ctrl::get_free_reservation_cnt() const {
    return free_reservation_cnt;
}

utils::link bt_ctrl::notify_on_free_reservation_cnt_change(
    std::function<void(reservation_counts const&)> const& handler) const {
    return free_reservation_signal.connect(make_exception_wrapper(
        handler, "Failed notification handler on free reservation count change"));
}

tavrin::bt_ctrl::reservation_set const& bt_ctrl::get_reservations() const {
    return reservations;
}

std::optional<unsigned short> bt_ctrl::get_reserv_id(reservation_ptr const& target) const {
    if (reservations.count(target) == 0) {
        return std::nullopt;
    }
    // Only the client inserts into the set, and only its own objects.
    return static_cast<reservation const&>(*target).resv_id;
}

utils::link bt_ctrl::add_reservation(reservation_kind type, tavrin::bt_ctrl::address const& target,
                                     std::string const& custom_data,
                                     reservation_handler const& handler) {
    auto [linked, link] = misc::link_handler(
        make_exception_wrapper(handler, "Failed response handler on adding reservation"), false);
    if (current_state != state::enabled) {
        post_refusal(linked, make_error_code(error::bt_ctrl::inappropriate_state));
        return link;
    }
    auto const object = std::make_shared<reservation>(type, target, custom_data);
    json body = json::object();
    add_fields(body, *object);
    send_request("resvCreate", body,
                 [this, alive = get_alive_token(), object, linked = linked](response const& resp) {
                     if (auto const ec = to_error_code(resp)) {
                         linked(nullptr, ec);
                         return;
                     }
                     object->resv_id = reply_id(resp);
                     if (alive.expired()) {
                         return;
                     }
                     reservations.insert(object);
                     linked(object, {});
                 });
    return link;
}

utils::link bt_ctrl::replace_reservation(reservation_ptr const& old_reservation,
                                         reservation_kind type,
                                         tavrin::bt_ctrl::address const& target,
                                         std::string const& custom_data,
                                         reservation_handler const& handler) {
    auto [linked, link] = misc::link_handler(
        make_exception_wrapper(handler, "Failed response handler on replacing reservation"), false);
    auto const old_id = get_reserv_id(old_reservation);
    if (auto const refusal = refuse_known_reservation(old_id)) {
        post_refusal(linked, refusal);
        return link;
    }
    auto const object = std::make_shared<reservation>(type, target, custom_data);
    json body = {{"resvId", *old_id}};
    add_fields(body, *object);
    // On a refusal the controller is taken to have done nothing: the old
    // object stays in the set.
    send_request("resvRecreate", body,
                 [this, alive = get_alive_token(), old_reservation, object,
                  linked = linked](response const& resp) {
                     if (auto const ec = to_error_code(resp)) {
                         linked(nullptr, ec);
                         return;
                     }
                     object->resv_id = reply_id(resp);
                     if (alive.expired()) {
                         return;
                     }
                     reservations.erase(old_reservation);
                     reservations.insert(object);
                     linked(object, {});
                 });
    return link;
}

utils::link bt_ctrl::remove_reservation(reservation_ptr const& target,
                                        result_handler const& handler) {
    auto [linked, link] = misc::link_handler(
        make_exception_wrapper(handler, "Failed response handler on removing reservation"), false);
    auto const id = get_reserv_id(target);
    if (auto const refusal = refuse_known_reservation(id)) {
        post_refusal(linked, refusal);
        return link;
    }
    // An object whose removal failed stays in the set.
    send_request("resvDestroy", {{"resvId", *id}},
                 [this, alive = get_alive_token(), target, linked = linked](response const& resp) {
                     auto const ec = to_error_code(resp);
                     if (!ec && !alive.expired()) {
                         reservations.erase(target);
                     }
                     linked(ec);
                 });
    return link;
}

// The checks of an operation on a reservation of the set, in their order: the
// state first, then the object.
std::error_code bt_ctrl::refuse_known_reservation(std::optional<unsigned short> const& id) const {
    if (current_state != state::enabled) {
        return make_error_code(error::bt_ctrl::inappropriate_state);
    }
    if (!id) {
        return make_error_code(error::bt_ctrl::unknown_resource_reservation);
    }
    return {};
}

void bt_ctrl::post_refusal(reservation_handler const& handler, std::error_code const& ec) const {
    event_loop->post([handler, ec] { handler(nullptr, ec); });
}

void bt_ctrl::post_refusal(result_handler const& handler, std::error_code const& ec) const {
    event_loop->post([handler, ec] { handler(ec); });
}

void bt_ctrl::free_reservs_get_resp_handler(response const& resp,
                                            std::shared_ptr<sync_waiter_type> const& waiter) {
    if (sync_step_failed(resp, *waiter)) {
        return;
    }
    auto const body = stravik_part_payload::from_bytes<json>(resp->payload);
    // Nobody is told: the client isn't `enabled` yet.
    free_reservation_cnt = to_reservation_cnt(body.get<json::object_t>());
}

// Each key is an id in decimal, cut to 16 bits; each value an object with
// "type", and optionally "addr" and "context" with "customData". An entry
// that can't be read throws; those before it are in the set.
void bt_ctrl::reservs_get_resp_handler(response const& resp,
                                       std::shared_ptr<sync_waiter_type> const& waiter) {
    if (sync_step_failed(resp, *waiter)) {
        return;
    }
    auto const body = stravik_part_payload::from_bytes<json>(resp->payload);
    reservations.clear();
    for (auto const& [key, value] : body.get<json::object_t>()) {
        auto const addr = value.find("addr");
        auto const context = value.find("context");
        std::string custom_data;
        if (context != value.end()) {
            custom_data = context->value("customData", std::string());
        }
        auto const object = std::make_shared<reservation>(
            to_reservation_type(value.at("type").get<std::string>()),
            to_address(addr == value.end() ? json::object_t{} : addr->get<json::object_t>()),
            custom_data);
        object->resv_id = static_cast<unsigned short>(std::stoi(key));
        reservations.insert(object);
    }
}

// Stored in any state, so a change during the sync isn't lost; told only
// when `enabled`, and only when a count changed.
void bt_ctrl::free_reserv_changed_event_handler(event const& ev) {
    auto const body = stravik_part_payload::from_bytes<json>(ev->payload);
    auto counts = to_reservation_cnt(body.get<json::object_t>());
    if (counts == free_reservation_cnt) {
        return;
    }
    free_reservation_cnt = counts;
    if (current_state == state::enabled) {
        // A copy: a handler may empty the mirror (disable) while later ones
        // still read their argument.
        free_reservation_signal(counts);
    }
}

}  // namespace zelvo::tavrin::impl
