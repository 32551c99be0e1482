// What became of the client's last attempt to reach its controller, in words
// for a failure message: an event loop for the client that makes its
// connections on an Asio loop and watches them.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "tavrin/adapters/asio.hpp"
#include "tavrin/utils/event_loop.hpp"
#include "tavrin/utils/tcp_connection.hpp"
#include "tavrin/utils/timer.hpp"

namespace zelvo::tavrin::cli {

class link_watch : public utils::event_loop {
public:
    explicit link_watch(std::shared_ptr<adapters::asio_loop> loop);

    std::shared_ptr<utils::timer> create_timer() override;
    std::shared_ptr<utils::tcp_connection> create_tcp_connection() override;
    void post(std::function<void()> const& function) override;

    // The last attempt, as seen now: "connection refused" (or another reason
    // a connect failed, in the system's words), "timed out" while still
    // connecting, "closed during the handshake" when the link was up and
    // ended, "no handshake reply" while it is up. "" before any attempt.
    std::string last_attempt() const;

private:
    struct record {
        std::weak_ptr<adapters::asio_connection> connection;
        // The present or last session got connected.
        bool connected = false;
    };

    std::shared_ptr<adapters::asio_loop> loop;
    std::shared_ptr<record> seen = std::make_shared<record>();
};

}  // namespace zelvo::tavrin::cli
