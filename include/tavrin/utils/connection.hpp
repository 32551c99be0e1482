// utils::connection: a byte stream on the application's event loop.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tavrin/export.hpp"

namespace zelvo::tavrin::utils {

// Every report (received bytes, state changes) comes on a turn of the loop of
// its own, never from inside a call on the connection: close() in particular
// is called from inside reply handlers whose caller the report of closed may
// destroy.
class TAVRIN_API connection {
public:
    enum class state { closed = 0, connecting = 1, connected = 2, closing = 3 };

    virtual ~connection();

    // Queues the bytes for the peer, in order. False when they can't be taken
    // (the connection is not connected).
    virtual bool send(std::vector<unsigned char> const& bytes) = 0;
    // Starts closing; harmless when closed. Bytes already queued are still
    // sent.
    virtual void close() = 0;
    // A name for logs.
    virtual std::string const& get_name() const = 0;
    virtual state get_state() const = 0;
    // Gets received bytes in arrival order, in chunks of any size.
    virtual void set_receive_handler(
        std::function<void(std::vector<unsigned char> const&)> const& handler) = 0;
    virtual void set_state_handler(std::function<void(state)> const& handler) = 0;
};

}  // namespace zelvo::tavrin::utils
