// A peer's reads and writes of attribute values on a connection, as the
// controller announces them: each goes to the GATT server side of the
// connection it names, synchronously, in any state of the client and of the
// connection. The library answers nothing by itself; that is the
// application's handler's business.
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "client/bt_ctrl.hpp"
#include "connection/connection.hpp"
#include "connection/gatts.hpp"
#include "stravik/part_payload.hpp"
#include "tavrin/misc/hex.hpp"

namespace zelvo::tavrin::impl {

namespace {

using json = nlohmann::json;

unsigned int offset_of(json const& body) {
    auto const found = body.find("offset");
    return found == body.end() ? 0 : bt_ctrl::to_number<unsigned int>(*found);
}

std::vector<unsigned char> data_of(json const& body) {
    return misc::from_hex_string<std::vector<unsigned char>>(body.at("data").get<std::string>(),
                                                             "");
}

}  // namespace

void bt_ctrl::gatts_char_value_read_event_handler(event const& ev) {
    auto const body = stravik_part_payload::from_bytes<json>(ev->payload);
    if (auto const found = find_conn(to_number<unsigned short>(body.at("connHandle")))) {
        auto const handle = to_number<unsigned int>(body.at("handle"));
        found->get_gatts_impl().on_characteristic_value_read(handle, offset_of(body));
    }
}

void bt_ctrl::gatts_desc_value_read_event_handler(event const& ev) {
    auto const body = stravik_part_payload::from_bytes<json>(ev->payload);
    if (auto const found = find_conn(to_number<unsigned short>(body.at("connHandle")))) {
        auto const handle = to_number<unsigned int>(body.at("handle"));
        found->get_gatts_impl().on_descriptor_value_read(handle, offset_of(body));
    }
}

void bt_ctrl::gatts_char_value_write_event_handler(event const& ev) {
    auto const body = stravik_part_payload::from_bytes<json>(ev->payload);
    if (auto const found = find_conn(to_number<unsigned short>(body.at("connHandle")))) {
        auto const handle = to_number<unsigned int>(body.at("handle"));
        auto const offset = offset_of(body);
        auto const response = body.find("responseNeeded");
        auto const response_needed = response == body.end() || response->get<bool>();
        found->get_gatts_impl().on_characteristic_value_write(handle, data_of(body), offset,
                                                              response_needed);
    }
}

void bt_ctrl::gatts_desc_value_write_event_handler(event const& ev) {
    auto const body = stravik_part_payload::from_bytes<json>(ev->payload);
    if (auto const found = find_conn(to_number<unsigned short>(body.at("connHandle")))) {
        auto const handle = to_number<unsigned int>(body.at("handle"));
        auto const offset = offset_of(body);
        found->get_gatts_impl().on_descriptor_value_write(handle, data_of(body), offset);
    }
}

}  // namespace zelvo::tavrin::impl
