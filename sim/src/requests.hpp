// sim::requests: what the controller answers to each request it serves, as
// functions of the request's body, the radio, the session's handshake and
// the slot model. They know nothing of the bus, of faults or of delays: the
// controller decides whether and when an outcome is sent. What they change
// in the model, it reports as events after the reply.
#pragma once

#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <variant>

#include "model.hpp"
#include "tavrin/sim/config.hpp"
#include "tavrin/sim/ctrl_error.hpp"
#include "tavrin/sim/radio.hpp"

namespace zelvo::tavrin::sim::requests {

// Where a session stands in its handshake. A new "hdshkStart" goes back to
// `started` from anywhere and unbinds.
struct handshake_state {
    enum class phase { none, started, bound };
    phase stage = phase::none;
    std::string bound_interface;  // set in `bound` only
    std::string client_id;        // as "hdshkStart" gave it, or empty
};

struct context {
    sim::radio& radio;
    version_info const& versions;
    handshake_state& handshake;
    sim::model& resources;
    unsigned session;  // the id of the session that sent the request
};

// The reply's body, or the code the request is refused with.
using outcome = std::variant<nlohmann::json, ctrl_error>;
// `body` is empty when the request carried no JSON.
using handler = outcome (*)(std::optional<nlohmann::json> const& body, context const& ctx);

using handler_table = std::map<std::string, handler>;

// Every request name the controller serves, with its handler.
handler_table const& table();

// The families of requests on a bound interface, each adding its own.
void add_reservation_requests(handler_table& handlers);
void add_connection_requests(handler_table& handlers);
void add_connection_property_requests(handler_table& handlers);
void add_advertiser_requests(handler_table& handlers);
void add_advertiser_property_requests(handler_table& handlers);
void add_gatt_requests(handler_table& handlers);
void add_peer_gatt_requests(handler_table& handlers);

// Shared checks, in the order every request on a bound interface makes
// them: the body's shape first (malformed_request), then the session's
// handshake (inappropriate_state), then the interface's status
// (interface_inappropriate_state).
bool is_empty_object(std::optional<nlohmann::json> const& body);
std::optional<ctrl_error> refuse_unready(context const& ctx);
// The holder of what this session reserves.
model::holder holder_of(context const& ctx);
// A peer's address as a request gives it, {"type", "mac"}, checked as the
// interface's capabilities require: bad_address_type for a type word that is
// not "public" or "random", bad_address for a MAC that does not parse or an
// address that is not valid for its type, unsupported_address for a type the
// interface does not offer.
std::variant<bt_ctrl::address, ctrl_error> read_peer_address(nlohmann::json const& value,
                                                             context const& ctx);
// The bound interface's capabilities.
bt_ctrl::capabilities capabilities_of(context const& ctx);
// Its `gattSrv`, read without a copy where the radio allows.
bool has_gatt_server(context const& ctx);
// Whether the body is an object with all the required keys and no key
// beyond these and the optional ones.
bool has_shape(std::optional<nlohmann::json> const& body, std::set<std::string> const& required,
               std::set<std::string> const& optional);
// The connection a request names by "connHandle", after the checks above
// with `optional` the body's keys beside it: connection_inappropriate_state
// for a handle the interface has no connection for (any more).
std::variant<model::connection const*, ctrl_error> named_connection(
    std::optional<nlohmann::json> const& body, context const& ctx,
    std::set<std::string> const& optional = {});
// Whether the holder may use the reservation for a connection to the peer
// (the connection `handle`, if it exists already): unknown_resource_reservation
// for one that is not the holder's, unexpected_resource_type for an
// advertiser's, unexpected_resource_target for one held for another peer,
// busy_resource for one another connection uses.
std::optional<ctrl_error> refuse_reservation(context const& ctx, unsigned short id,
                                             bt_ctrl::address const& peer,
                                             std::optional<unsigned short> handle);
// A PHY's word: unsupported_phy for a word that is none, or a PHY the
// interface does not offer for connections.
std::variant<bt_ctrl::phy, ctrl_error> read_phy(nlohmann::json const& value, context const& ctx);
// The advertiser a request names by "advHandle", after the checks above
// with `optional` the body's keys beside it, and unsupported_functionality
// without the `adv` capability: advertiser_inappropriate_state for a handle
// the interface has no advertiser for, or only a stopped one unless
// `stopped_too`.
std::variant<model::advertiser const*, ctrl_error> named_advertiser(
    std::optional<nlohmann::json> const& body, context const& ctx,
    std::set<std::string> const& optional = {}, bool stopped_too = false);
// Advertising data as a request gives them, checked against the size the
// interface allows: malformed_request for the wrong shape,
// advertiser_data_limit_exceeded beyond the limit.
std::variant<adv_data::advertising_data, ctrl_error> read_adv_data(nlohmann::json const& value,
                                                                   context const& ctx);
// An unsigned 16-bit number under the key, if the object has one.
std::optional<unsigned short> read_u16(nlohmann::json const& object, char const* key);

}  // namespace zelvo::tavrin::sim::requests
