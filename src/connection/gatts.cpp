// The GATT server side of a connection: handler registration and routing,
// and the requests that carry the application's answers and notifications.
#include "connection/gatts.hpp"

#include <iterator>
#include <stdexcept>

#include "tavrin/misc/hex.hpp"
#include "tavrin/misc/link_handler.hpp"
#include "values/gatt_proto_words.hpp"

namespace zelvo::tavrin::impl {

namespace {

using json = nlohmann::json;

char const* const primary_words = "Failed to process GATTS (conn) primary handler";
char const* const secondary_words = "Failed to process GATTS (conn) secondary handler";
char const* const default_words = "Failed to process GATTS (conn) default handler";

// The texts and names of the sending operations, made once: an answer is on
// the path of every peer's read and write.
std::string const read_words =
    "Failed response handler on responding on GATTS (conn) ATT value read";
std::string const write_words =
    "Failed response handler on responding on GATTS (conn) ATT value write";
std::string const notify_words =
    "Failed response handler on sending GATTS (conn) chara value change";
std::string const char_read_response = "gattsCharValueReadResponse";
std::string const desc_read_response = "gattsDescValueReadResponse";
std::string const char_write_response = "gattsCharValueWriteResponse";
std::string const desc_write_response = "gattsDescValueWriteResponse";
std::string const set_notify = "gattsCharValueSetNotify";

}  // namespace

bt_ctrl::connection::gatts::gatts(connection& owner) : owner(owner), event_loop(owner.event_loop) {}

bt_ctrl::connection::gatts::~gatts() = default;

std::error_code bt_ctrl::connection::gatts::check() const {
    if (auto const ec = owner.check_state()) {
        return ec;
    }
    if (!owner.ctrl.get_capabilities().gattSrv) {
        return error::bt_ctrl::unsupported_functionality;
    }
    return {};
}

std::string bt_ctrl::connection::gatts::to_string(error::gatt_proto status) {
    return to_word(status);
}

// Registration.

template <typename F>
utils::link bt_ctrl::connection::gatts::register_handler(handler_map<F>& map, unsigned int handle,
                                                         F const& handler) {
    auto const held = std::make_shared<F>(owner.wrap(handler, primary_words));
    auto [position, inserted] = map.emplace(handle, held);
    if (!inserted) {
        // The old handler dies here, and with it its link's tracked object.
        position->second = held;
    }
    return misc::create_link(held, [&map, position = position] { map.erase(position); });
}

template <typename F>
utils::link bt_ctrl::connection::gatts::register_handler(selector_list<F>& list,
                                                         predicate const& accepts,
                                                         F const& handler) {
    auto const held = std::make_shared<F>(owner.wrap(handler, secondary_words));
    auto const position = list.emplace(list.end(), accepts, held);
    return misc::create_link(held, [&list, position] { list.erase(position); });
}

template <typename F>
utils::link bt_ctrl::connection::gatts::register_handler(std::shared_ptr<F>& slot,
                                                         F const& handler) {
    // The former default dies at the end, after the slot has its successor.
    auto const former = slot;
    slot = std::make_shared<F>(owner.wrap(handler, default_words));
    return misc::create_link(slot, [&slot] { slot.reset(); });
}

utils::link bt_ctrl::connection::gatts::set_characteristic_value_read_handler(
    unsigned int handle, read_handler const& handler) {
    return register_handler(char_read_handlers, handle, handler);
}

utils::link bt_ctrl::connection::gatts::set_descriptor_value_read_handler(
    unsigned int handle, read_handler const& handler) {
    return register_handler(desc_read_handlers, handle, handler);
}

utils::link bt_ctrl::connection::gatts::set_characteristic_value_write_handler(
    unsigned int handle, characteristic_write_handler const& handler) {
    return register_handler(char_write_handlers, handle, handler);
}

utils::link bt_ctrl::connection::gatts::set_descriptor_value_write_handler(
    unsigned int handle, descriptor_write_handler const& handler) {
    return register_handler(desc_write_handlers, handle, handler);
}

utils::link bt_ctrl::connection::gatts::set_characteristic_value_read_handler(
    predicate const& accepts, read_handler const& handler) {
    return register_handler(char_read_selectors, accepts, handler);
}

utils::link bt_ctrl::connection::gatts::set_descriptor_value_read_handler(
    predicate const& accepts, read_handler const& handler) {
    return register_handler(desc_read_selectors, accepts, handler);
}

utils::link bt_ctrl::connection::gatts::set_characteristic_value_write_handler(
    predicate const& accepts, characteristic_write_handler const& handler) {
    return register_handler(char_write_selectors, accepts, handler);
}

utils::link bt_ctrl::connection::gatts::set_descriptor_value_write_handler(
    predicate const& accepts, descriptor_write_handler const& handler) {
    return register_handler(desc_write_selectors, accepts, handler);
}

utils::link bt_ctrl::connection::gatts::set_characteristic_value_read_handler(
    read_handler const& handler) {
    return register_handler(char_read_default, handler);
}

utils::link bt_ctrl::connection::gatts::set_descriptor_value_read_handler(
    read_handler const& handler) {
    return register_handler(desc_read_default, handler);
}

utils::link bt_ctrl::connection::gatts::set_characteristic_value_write_handler(
    characteristic_write_handler const& handler) {
    return register_handler(char_write_default, handler);
}

utils::link bt_ctrl::connection::gatts::set_descriptor_value_write_handler(
    descriptor_write_handler const& handler) {
    return register_handler(desc_write_default, handler);
}

// Routing.

template <typename F, typename... Args>
void bt_ctrl::connection::gatts::invoke_handler(handler_map<F> const& map,
                                                selector_list<F> const& list,
                                                std::shared_ptr<F> const& fallback,
                                                unsigned int handle, Args const&... args) {
    // Each level calls a copy, so that the handler may release itself.
    auto const call = [&](std::shared_ptr<F> const& held) {
        auto const function = *held;
        if (function) {
            function(handle, args...);
        }
    };
    if (auto const found = map.find(handle); found != map.end() && found->second) {
        call(found->second);
        return;
    }
    // A predicate is application code that may change the list: the walk
    // goes over the handlers it had when the event came, and skips those
    // released meanwhile.
    if (!list.empty()) {
        std::vector<std::pair<predicate, std::weak_ptr<F>>> const selectors(list.begin(),
                                                                            list.end());
        for (auto const& [accepts, held] : selectors) {
            if (!accepts(handle)) {
                continue;
            }
            if (auto const alive = held.lock()) {
                call(alive);
                return;
            }
            break;
        }
    }
    if (fallback) {
        call(fallback);
    }
}

void bt_ctrl::connection::gatts::on_characteristic_value_read(unsigned int handle,
                                                              unsigned int offset) {
    invoke_handler(char_read_handlers, char_read_selectors, char_read_default, handle, offset);
}

void bt_ctrl::connection::gatts::on_descriptor_value_read(unsigned int handle,
                                                          unsigned int offset) {
    invoke_handler(desc_read_handlers, desc_read_selectors, desc_read_default, handle, offset);
}

void bt_ctrl::connection::gatts::on_characteristic_value_write(
    unsigned int handle, std::vector<unsigned char> const& data, unsigned int offset,
    bool response_needed) {
    invoke_handler(char_write_handlers, char_write_selectors, char_write_default, handle, data,
                   offset, response_needed);
}

void bt_ctrl::connection::gatts::on_descriptor_value_write(unsigned int handle,
                                                           std::vector<unsigned char> const& data,
                                                           unsigned int offset) {
    invoke_handler(desc_write_handlers, desc_write_selectors, desc_write_default, handle, data,
                   offset);
}

// Sending.

utils::link bt_ctrl::connection::gatts::send(std::string const& words, std::string const& request,
                                             std::function<json()> const& body,
                                             result_handler const& handler) {
    auto [linked, link] = misc::link_handler(owner.wrap(handler, words), false);
    if (auto const ec = check()) {
        event_loop->post([linked = linked, ec] { linked(ec); });
        return link;
    }
    // The body is built only now: an unknown status word throws to the
    // caller, with nothing sent.
    auto payload = body();
    payload["connHandle"] = *owner.conn_id;
    // A request that has gone out can't be recalled: the bus's link is
    // dropped, and the link only keeps the handler from running.
    owner.ctrl.send_request(request, payload,
                            [linked = linked](std::shared_ptr<quorl::resp_ctx> const& resp) {
                                linked(bt_ctrl::to_error_code(resp));
                            });
    return link;
}

utils::link bt_ctrl::connection::gatts::respond_on_att_value_read(
    std::string const& request, unsigned int handle, std::vector<unsigned char> const& data,
    error::gatt_proto status, result_handler const& handler) {
    return send(
        read_words, request,
        [&] {
            json body = json::object();
            body["handle"] = handle;
            body["data"] = misc::to_hex_string(data, "", true);
            body["status"] = to_string(status);
            return body;
        },
        handler);
}

utils::link bt_ctrl::connection::gatts::respond_on_att_value_write(std::string const& request,
                                                                   unsigned int handle,
                                                                   error::gatt_proto status,
                                                                   result_handler const& handler) {
    return send(
        write_words, request,
        [&] {
            json body = json::object();
            body["handle"] = handle;
            body["status"] = to_string(status);
            return body;
        },
        handler);
}

utils::link bt_ctrl::connection::gatts::send_notify_on_characteristic_value_change(
    unsigned int handle, bool response_needed, std::vector<unsigned char> const& data,
    result_handler const& handler) {
    return send(
        notify_words, set_notify,
        [&] {
            json body = json::object();
            body["handle"] = handle;
            body["data"] = misc::to_hex_string(data, "", true);
            body["responseNeeded"] = response_needed;
            return body;
        },
        handler);
}

utils::link bt_ctrl::connection::gatts::respond_on_characteristic_value_read(
    unsigned int handle, std::vector<unsigned char> const& data, error::gatt_proto status,
    result_handler const& handler) {
    return respond_on_att_value_read(char_read_response, handle, data, status, handler);
}

utils::link bt_ctrl::connection::gatts::respond_on_descriptor_value_read(
    unsigned int handle, std::vector<unsigned char> const& data, error::gatt_proto status,
    result_handler const& handler) {
    return respond_on_att_value_read(desc_read_response, handle, data, status, handler);
}

utils::link bt_ctrl::connection::gatts::respond_on_characteristic_value_write(
    unsigned int handle, error::gatt_proto status, result_handler const& handler) {
    return respond_on_att_value_write(char_write_response, handle, status, handler);
}

utils::link bt_ctrl::connection::gatts::respond_on_descriptor_value_write(
    unsigned int handle, error::gatt_proto status, result_handler const& handler) {
    return respond_on_att_value_write(desc_write_response, handle, status, handler);
}

}  // namespace zelvo::tavrin::impl
