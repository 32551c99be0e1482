// Serving a built database to the peer of one connection, through the
// connection's bt_ctrl::connection::gatts: reads are answered from the
// stored values (from their offset on), writes are stored and answered when
// the peer waits for an answer, a write of a characteristic's 2902
// descriptor is the peer's subscription, and a characteristic whose value
// changes is pushed to a peer that subscribed to it. Every peer operation,
// and every push, becomes one line.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "gatt_builder.hpp"
#include "tavrin/bt_ctrl/connection.hpp"
#include "tavrin/bt_ctrl/connection_gatts.hpp"
#include "tavrin/utils/link.hpp"

namespace zelvo::tavrin::cli {

// The current values of a database's characteristics and descriptors (2902
// descriptors aside), by handle; they outlive connections, so that what one
// peer writes the next one reads.
using gatt_values = std::map<unsigned int, std::vector<unsigned char>>;

// The values a layout starts with.
gatt_values initial_values(gatt_layout const& layout);

// One connection's serving. `conn`, `layout` and `values` must outlive the
// object; its handlers are registered on the connection while it lives, and
// answers still under way are dropped with it.
class gatt_session {
public:
    using say_type = std::function<void(std::string const&)>;

    // Lines go to `say`, each starting with `prefix`.
    gatt_session(bt_ctrl::connection const& conn, gatt_layout const& layout, gatt_values& values,
                 std::string prefix, say_type say);
    gatt_session(gatt_session const&) = delete;
    gatt_session& operator=(gatt_session const&) = delete;

    // Stores a characteristic's new value as the application's own change,
    // and pushes it to the peer if it subscribed; `sent`, when set, hears
    // the controller's answer to the push, or runs at once with no error
    // when the peer has not subscribed.
    void change_value(unsigned int handle, std::vector<unsigned char> const& value,
                      std::function<void(std::error_code const&)> sent = nullptr);

private:
    // The peer's 2902 bits: 1 notifications, 2 indications.
    using subscription = unsigned;

    void on_read(unsigned int handle, unsigned int offset, bool characteristic);
    void on_write(unsigned int handle, std::vector<unsigned char> const& data, unsigned int offset,
                  bool response_needed, bool characteristic);
    // The status to answer a write with; success stores the value, with
    // its text in `line` and whether it differs in `changed`.
    error::gatt_proto write_value(unsigned int handle, std::vector<unsigned char> const& data,
                                  unsigned int offset, gatt_layout::attribute const* attribute,
                                  std::string& line, bool& changed);
    // The status to answer a 2902 write with; success keeps the
    // subscription and tells of it.
    error::gatt_proto subscribe(gatt_layout::attribute const& cccd,
                                std::vector<unsigned char> const& data, unsigned int offset);
    // False when the peer has not subscribed to the characteristic.
    bool push(unsigned int handle, std::function<void(std::error_code const&)> sent = nullptr);
    std::function<void(std::error_code const&)> reporting(std::string what);
    void keep(utils::link link);
    void line(std::string const& label, std::string const& text);

    bt_ctrl::connection const& conn;
    bt_ctrl::connection::gatts& server;
    gatt_layout const& layout;
    gatt_values& values;
    std::string prefix;
    say_type say;
    // By characteristic handle.
    std::map<unsigned int, subscription> subscriptions;
    std::vector<utils::scoped_link> handlers;
    std::vector<utils::scoped_link> answers;
};

}  // namespace zelvo::tavrin::cli
