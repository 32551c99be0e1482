// What a virtual peer sees of the GATT server on a connection: the outcome
// of each of its ATT operations and the values pushed to it; and the steps of
// a scripted central. Value types.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "tavrin/gatt/uuid.hpp"

namespace zelvo::tavrin::sim {

// What the peer saw of one ATT operation. `status` is the client's status
// word ("success", "readNotPermitted", ...), or one of the controller's own:
// "timeout" when no answer came within the ATT transaction time,
// "disconnected" when the connection ended first. `data` is a read's value,
// empty unless the read succeeded.
struct att_outcome {
    std::string status;
    std::vector<unsigned char> data;
};

// A notification or an indication that reached the peer.
struct peer_value {
    unsigned int handle = 0;
    std::vector<unsigned char> data;
    bool indication = false;
};

using att_handler = std::function<void(att_outcome const&)>;

// Per connection: the peer's operations waiting for the client's answer (one
// more is refused), and the values it keeps (the oldest is forgotten).
constexpr std::size_t max_pending_operations = 8;
constexpr std::size_t max_peer_values = 64;
// How long the peer waits for the client's answer: the ATT transaction time.
constexpr std::chrono::seconds att_transaction_time{30};

// One step of a scripted central: that long after its connection opened, it
// reads, writes or subscribes to the first attribute of the UUID in the
// interface's database (the first characteristic for a subscription).
struct gatt_step {
    enum class action { read, write, subscribe };
    // The most steps one central's script holds.
    static constexpr unsigned max_steps = 32;

    std::chrono::seconds after{0};
    action what = action::read;
    gatt::uuid type;
    std::vector<unsigned char> data;  // a write's value
    bool with_response = true;        // a write: request (true) or command
    bool indications = false;         // a subscription: indications, else notifications
};

}  // namespace zelvo::tavrin::sim
