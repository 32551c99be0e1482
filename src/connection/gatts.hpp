// impl::bt_ctrl::connection::gatts: the GATT server side of one connection.
//
// It routes the controller's value read and write events for its connection
// to the application's handlers, and sends the application's answers and
// value notifications. It keeps no record of a peer's pending operations: an
// event goes to at most one handler, and an answer is sent as it is.
//
// Handlers live in three levels per kind: a map by attribute handle, a list
// of (predicate, handler) in registration order, and a default slot. Each
// handler is held by exactly one shared_ptr in its store, and a
// registration's link tracks that pointer weakly: once the handler has been
// replaced, or this object has died with its connection, the link is
// inactive, and its release can't touch a store it no longer owns.
//
// Handlers run on a copy of their function, and no iterator into a store is
// kept across a call of application code, so that a handler (or a predicate)
// may register or release handlers of any kind, its own included.
//
// The connection owns this object for its whole life.
#pragma once

#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>
#include "connection/connection.hpp"

#include "tavrin/bt_ctrl/connection_gatts.hpp"
#include "tavrin/error.hpp"
#include "tavrin/misc/create_link.hpp"
#include "tavrin/utils/event_loop.hpp"
#include "tavrin/utils/link.hpp"

namespace zelvo::tavrin::impl {

class bt_ctrl::connection::gatts : public tavrin::bt_ctrl::connection::gatts {
public:
    using result_handler = std::function<void(std::error_code const&)>;

    explicit gatts(connection& owner);
    ~gatts() override;

    utils::link send_notify_on_characteristic_value_change(unsigned int handle,
                                                           bool response_needed,
                                                           std::vector<unsigned char> const& data,
                                                           result_handler const& handler) override;
    utils::link respond_on_characteristic_value_read(unsigned int handle,
                                                     std::vector<unsigned char> const& data,
                                                     error::gatt_proto status,
                                                     result_handler const& handler) override;
    utils::link respond_on_descriptor_value_read(unsigned int handle,
                                                 std::vector<unsigned char> const& data,
                                                 error::gatt_proto status,
                                                 result_handler const& handler) override;
    utils::link respond_on_characteristic_value_write(unsigned int handle, error::gatt_proto status,
                                                      result_handler const& handler) override;
    utils::link respond_on_descriptor_value_write(unsigned int handle, error::gatt_proto status,
                                                  result_handler const& handler) override;
    utils::link set_characteristic_value_read_handler(unsigned int handle,
                                                      read_handler const& handler) override;
    utils::link set_descriptor_value_read_handler(unsigned int handle,
                                                  read_handler const& handler) override;
    utils::link set_characteristic_value_write_handler(
        unsigned int handle, characteristic_write_handler const& handler) override;
    utils::link set_descriptor_value_write_handler(
        unsigned int handle, descriptor_write_handler const& handler) override;
    utils::link set_characteristic_value_read_handler(predicate const& accepts,
                                                      read_handler const& handler) override;
    utils::link set_descriptor_value_read_handler(predicate const& accepts,
                                                  read_handler const& handler) override;
    utils::link set_characteristic_value_write_handler(
        predicate const& accepts, characteristic_write_handler const& handler) override;
    utils::link set_descriptor_value_write_handler(
        predicate const& accepts, descriptor_write_handler const& handler) override;
    utils::link set_characteristic_value_read_handler(read_handler const& handler) override;
    utils::link set_descriptor_value_read_handler(read_handler const& handler) override;
    utils::link set_characteristic_value_write_handler(
        characteristic_write_handler const& handler) override;
    utils::link set_descriptor_value_write_handler(
        descriptor_write_handler const& handler) override;

    // The gate of the sending operations: the connection is open with a
    // handle, and the client's interface serves GATT.
    std::error_code check() const;
    // The status word on the wire; above `unknown` throws logic_error
    // "Unknown GATT proto error".
    static std::string to_string(error::gatt_proto status);

    utils::link respond_on_att_value_read(std::string const& request, unsigned int handle,
                                          std::vector<unsigned char> const& data,
                                          error::gatt_proto status, result_handler const& handler);
    utils::link respond_on_att_value_write(std::string const& request, unsigned int handle,
                                           error::gatt_proto status, result_handler const& handler);

    // A peer's operation, announced by the controller: routed to one handler
    // of its kind, or to none.
    void on_characteristic_value_read(unsigned int handle, unsigned int offset);
    void on_descriptor_value_read(unsigned int handle, unsigned int offset);
    void on_characteristic_value_write(unsigned int handle, std::vector<unsigned char> const& data,
                                       unsigned int offset, bool response_needed);
    void on_descriptor_value_write(unsigned int handle, std::vector<unsigned char> const& data,
                                   unsigned int offset);

private:
    template <typename F>
    using handler_map = std::map<unsigned int, std::shared_ptr<F>>;
    template <typename F>
    using selector_list = std::list<std::pair<predicate, std::shared_ptr<F>>>;

    // By handle: replaces the handle's handler in place.
    template <typename F>
    utils::link register_handler(handler_map<F>& map, unsigned int handle, F const& handler);
    // By predicate: appended after the earlier ones.
    template <typename F>
    utils::link register_handler(selector_list<F>& list, predicate const& accepts,
                                 F const& handler);
    // Default: replaces the former default.
    template <typename F>
    utils::link register_handler(std::shared_ptr<F>& slot, F const& handler);
    // Exactly one handler of the three levels runs, or none.
    template <typename F, typename... Args>
    static void invoke_handler(handler_map<F> const& map, selector_list<F> const& list,
                               std::shared_ptr<F> const& fallback, unsigned int handle,
                               Args const&... args);

    // The common path of the three sending operations.
    utils::link send(std::string const& words, std::string const& request,
                     std::function<nlohmann::json()> const& body, result_handler const& handler);

    connection& owner;
    std::shared_ptr<utils::event_loop> event_loop;
    handler_map<read_handler> char_read_handlers;
    handler_map<read_handler> desc_read_handlers;
    handler_map<characteristic_write_handler> char_write_handlers;
    handler_map<descriptor_write_handler> desc_write_handlers;
    selector_list<read_handler> char_read_selectors;
    selector_list<read_handler> desc_read_selectors;
    selector_list<characteristic_write_handler> char_write_selectors;
    selector_list<descriptor_write_handler> desc_write_selectors;
    std::shared_ptr<read_handler> char_read_default;
    std::shared_ptr<read_handler> desc_read_default;
    std::shared_ptr<characteristic_write_handler> char_write_default;
    std::shared_ptr<descriptor_write_handler> desc_write_default;
};

}  // namespace zelvo::tavrin::impl
