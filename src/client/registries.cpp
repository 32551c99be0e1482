// The advertiser registry's mirrors of the controller's limit and queue: the
// most advertisers it allows, and the handles that wait for a radio slot with
// their positions. The sync reads them ("advsGet", only when the interface
// offers advertising), and "advsChanged" keeps them. The connection side is
// in conn_registry.cpp.
#include <memory>

#include <nlohmann/json.hpp>

#include "client/bt_ctrl.hpp"
#include "stravik/part_payload.hpp"

namespace zelvo::tavrin::impl {

namespace {

using json = nlohmann::json;

}  // namespace

void bt_ctrl::advs_get_resp_handler(response const& resp,
                                    std::shared_ptr<sync_waiter_type> const& waiter) {
    if (sync_step_failed(resp, *waiter)) {
        return;
    }
    auto const body = stravik_part_payload::from_bytes<json>(resp->payload);
    advertiser_max_cnt = to_number<unsigned>(body.at("maxAdvertisers"));
    adv_queue = to_adv_queue(body.at("advertisers").get<json::object_t>());
}

// The maximum is stored whatever the queue says.
void bt_ctrl::advs_changed_event_handler(event const& ev) {
    auto const body = stravik_part_payload::from_bytes<json>(ev->payload);
    advertiser_max_cnt = to_number<unsigned>(body.at("maxAdvertisers"));
    adv_queue = to_adv_queue(body.at("advertisers").get<json::object_t>());
}

}  // namespace zelvo::tavrin::impl
