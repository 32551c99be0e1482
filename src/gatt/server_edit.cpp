// The editing requests: each turns one call into one request and its reply
// into one call of the handler. The controller checks every handle and
// assigns the new ones; the mirror is left as it is, and only the next sync
// brings an edit in.
#include <functional>
#include <set>
#include <string>
#include <utility>

#include <nlohmann/json.hpp>

#include "gatt/server.hpp"
#include "stravik/part_payload.hpp"
#include "tavrin/gatt/attribute_permission.hpp"
#include "tavrin/gatt/characteristic.hpp"
#include "tavrin/gatt/uuid.hpp"
#include "tavrin/misc/link_handler.hpp"

namespace zelvo::tavrin::impl {

namespace {

using json = nlohmann::json;

json permission_texts(std::set<gatt::attribute_permission> const& permissions) {
    auto texts = json::array();
    for (auto const permission : permissions) {
        texts.push_back(gatt::to_string(permission));
    }
    return texts;
}

}  // namespace

utils::link bt_ctrl::gatts::edit(result_handler const& handler, std::string const& text,
                                 std::string const& name, std::function<json()> const& body) {
    auto [linked, link] = misc::link_handler(owner.make_exception_wrapper(handler, text), false);
    if (auto const refusal = check()) {
        event_loop->post([linked = linked, refusal] { linked(refusal); });
        return link;
    }
    owner.send_request(name, body(),
                       [linked = linked](response const& resp) { linked(to_error_code(resp)); });
    return link;
}

utils::link bt_ctrl::gatts::edit(created_handler const& handler, std::string const& text,
                                 std::string const& name, std::function<json()> const& body) {
    auto [linked, link] = misc::link_handler(owner.make_exception_wrapper(handler, text), false);
    if (auto const refusal = check()) {
        event_loop->post([linked = linked, refusal] { linked(0, refusal); });
        return link;
    }
    owner.send_request(name, body(), [linked = linked](response const& resp) {
        if (auto const ec = to_error_code(resp)) {
            linked(0, ec);
            return;
        }
        auto const reply = stravik_part_payload::from_bytes<json>(resp->payload);
        linked(reply.at("handle").get<unsigned int>(), std::error_code());
    });
    return link;
}

utils::link bt_ctrl::gatts::add_service(gatt::uuid const& uuid, bool enabled,
                                        std::optional<unsigned int> const& parent,
                                        created_handler const& handler) {
    return edit(handler, "Failed response handler on adding GATTS service", "gattsServiceAdd", [&] {
        json body = {{"uuid", uuid.to_string(true)}, {"enabled", enabled}};
        if (parent) {
            body["parentHandle"] = *parent;
        }
        return body;
    });
}

utils::link bt_ctrl::gatts::del_service(unsigned int handle, result_handler const& handler) {
    return edit(handler, "Failed response handler on deleting GATTS service", "gattsServiceRemove",
                [&] {
                    return json{{"handle", handle}};
                });
}

utils::link bt_ctrl::gatts::add_service_reference(unsigned int handle, unsigned int parent,
                                                  result_handler const& handler) {
    return edit(handler, "Failed response handler on adding GATTS service ref",
                "gattsServiceReferenceAdd", [&] {
                    return json{{"handle", handle}, {"parentHandle", parent}};
                });
}

utils::link bt_ctrl::gatts::del_service_reference(unsigned int handle, unsigned int parent,
                                                  result_handler const& handler) {
    return edit(handler, "Failed response handler on deleting GATTS service ref",
                "gattsServiceReferenceRemove", [&] {
                    return json{{"handle", handle}, {"parentHandle", parent}};
                });
}

utils::link bt_ctrl::gatts::enable_service(unsigned int handle, bool enable,
                                           result_handler const& handler) {
    return edit(handler, "Failed response handler on enabling/disabling GATTS service",
                enable ? "gattsServiceEnable" : "gattsServiceDisable", [&] {
                    return json{{"handle", handle}};
                });
}

utils::link bt_ctrl::gatts::add_characteristic(
    gatt::uuid const& uuid, std::set<gatt::characteristic::property> const& properties,
    std::set<gatt::attribute_permission> const& permissions, unsigned int parent,
    created_handler const& handler) {
    return edit(handler, "Failed response handler on adding GATTS characteristic", "gattsCharAdd",
                [&] {
                    auto property_texts = json::array();
                    for (auto const property : properties) {
                        property_texts.push_back(gatt::characteristic::to_string(property));
                    }
                    return json{{"parentHandle", parent},
                                {"uuid", uuid.to_string(true)},
                                {"properties", property_texts},
                                {"permissions", permission_texts(permissions)}};
                });
}

utils::link bt_ctrl::gatts::del_characteristic(unsigned int handle, result_handler const& handler) {
    return edit(handler, "Failed response handler on deleting GATTS characteristic",
                "gattsCharRemove", [&] {
                    return json{{"handle", handle}};
                });
}

utils::link bt_ctrl::gatts::add_descriptor(gatt::uuid const& uuid,
                                           std::set<gatt::attribute_permission> const& permissions,
                                           unsigned int parent, created_handler const& handler) {
    return edit(handler, "Failed response handler on adding GATTS descriptor", "gattsDescAdd", [&] {
        return json{{"parentHandle", parent},
                    {"uuid", uuid.to_string(true)},
                    {"permissions", permission_texts(permissions)}};
    });
}

utils::link bt_ctrl::gatts::del_descriptor(unsigned int handle, result_handler const& handler) {
    return edit(handler, "Failed response handler on deleting GATTS descriptor", "gattsDescRemove",
                [&] {
                    return json{{"handle", handle}};
                });
}

}  // namespace zelvo::tavrin::impl
