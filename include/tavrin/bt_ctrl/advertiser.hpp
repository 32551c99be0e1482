// bt_ctrl::advertiser: the local object of one advertising set.
//
// Objects that the application made with create_advertiser belong to it; the
// client keeps the others. This header declares the enumerations with their
// text forms and the state query.
//
// A state word the library doesn't know is an error (to_state throws, ignoring
// case), while an unknown stop reason is quietly `unknown` (to_stop_reason
// takes the exact words).
#pragma once

#include <string>

#include "tavrin/bt_ctrl/interface.hpp"
#include "tavrin/export.hpp"

namespace zelvo::tavrin {

class TAVRIN_API bt_ctrl::advertiser {
public:
    // At rest, running, going down, coming up, waiting for a slot; the same
    // order as connection::state.
    enum class state : unsigned char {
        stopped = 0,
        started = 1,
        stopping = 2,
        starting = 3,
        pending = 4,
    };
    enum class stop_reason : unsigned char {
        unknown = 0,
        user_requested = 1,
        connection_opened = 2,
        resource_rotation = 3,
        interface_unavailable = 4,
    };

    advertiser() = default;
    advertiser(advertiser const&) = delete;
    advertiser& operator=(advertiser const&) = delete;
    virtual ~advertiser();

    // "stopped", "started", "stopping", "starting", "pending".
    static std::string to_string(state value);
    // "unknown", "userRequested", "connectionOpened", "resourceRotation",
    // "interfaceUnavailable".
    static std::string to_string(stop_reason value);

    // Throws logic_error "unknown advertiser state str" for any other word.
    static state to_state(std::string const& text);
    static stop_reason to_stop_reason(std::string const& text);

    virtual state get_state() const = 0;

    // The advertiser is started.
    explicit operator bool() const { return get_state() == state::started; }
};

}  // namespace zelvo::tavrin
