// bt_ctrl::connection: the local object of one Bluetooth connection.
//
// Objects that the application made with create_connection belong to it; the
// client keeps the others. This header declares the enumerations with their
// text forms and the state query.
//
// A state word the library doesn't know is an error (to_state throws), while
// an unknown direction or close reason is quietly `unknown`: those two are
// information, the state is what the object acts on. to_state ignores case,
// to_direction and to_close_reason take the exact words.
#pragma once

#include <string>

#include "tavrin/bt_ctrl/interface.hpp"
#include "tavrin/export.hpp"

namespace zelvo::tavrin {

class TAVRIN_API bt_ctrl::connection {
public:
    // At rest, running, going down, coming up, waiting for a slot; the same
    // order as advertiser::state.
    enum class state : unsigned char {
        closed = 0,
        opened = 1,
        closing = 2,
        opening = 3,
        pending = 4
    };
    enum class direction : unsigned char { unknown = 0, outgoing = 1, incoming = 2 };
    enum class close_reason : unsigned char {
        unknown = 0,
        user_requested = 1,
        resource_rotation = 2,
        interface_unavailable = 3,
    };

    connection() = default;
    connection(connection const&) = delete;
    connection& operator=(connection const&) = delete;
    virtual ~connection();

    // "closed", "opened", "closing", "opening", "pending".
    static std::string to_string(state value);
    // "unknown", "outgoing", "incoming".
    static std::string to_string(direction value);
    // "unknown", "userRequested", "resourceRotation", "interfaceUnavailable".
    static std::string to_string(close_reason value);

    // Throws logic_error "unknown connection state str" for any other word.
    static state to_state(std::string const& text);
    static direction to_direction(std::string const& text);
    static close_reason to_close_reason(std::string const& text);

    virtual state get_state() const = 0;

    // The connection is opened.
    explicit operator bool() const { return get_state() == state::opened; }
};

}  // namespace zelvo::tavrin
