#include "link_watch.hpp"

#include <cctype>
#include <system_error>
#include <utility>
#include <vector>

namespace zelvo::tavrin::cli {

namespace {

// The connection that the client gets: the Asio one, with each state change
// noted before the client hears of it.
template <typename Record>
class watched : public utils::tcp_connection {
public:
    watched(std::shared_ptr<adapters::asio_connection> inner, std::shared_ptr<Record> seen)
        : inner(std::move(inner)), seen(std::move(seen)) {}

    void connect(utils::ip_address const& address, unsigned short port) override {
        inner->connect(address, port);
    }
    bool send(std::vector<unsigned char> const& bytes) override { return inner->send(bytes); }
    void close() override { inner->close(); }
    std::string const& get_name() const override { return inner->get_name(); }
    state get_state() const override { return inner->get_state(); }
    void set_receive_handler(
        std::function<void(std::vector<unsigned char> const&)> const& handler) override {
        inner->set_receive_handler(handler);
    }
    void set_state_handler(std::function<void(state)> const& handler) override {
        if (!handler) {
            return inner->set_state_handler(handler);
        }
        // The record, not this object: the handler outlives neither.
        inner->set_state_handler([seen = seen, handler](state now) {
            if (now == state::connecting) {
                seen->connected = false;
            } else if (now == state::connected) {
                seen->connected = true;
            }
            handler(now);
        });
    }

private:
    std::shared_ptr<adapters::asio_connection> inner;
    std::shared_ptr<Record> seen;
};

std::string connect_failure(std::error_code const& ec) {
    if (ec == asio::error::connection_refused) {
        return "connection refused";
    }
    if (ec == asio::error::timed_out) {
        return "timed out";
    }
    auto text = ec.message();
    if (!text.empty()) {
        text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
    }
    return text;
}

}  // namespace

link_watch::link_watch(std::shared_ptr<adapters::asio_loop> loop) : loop(std::move(loop)) {}

std::shared_ptr<utils::timer> link_watch::create_timer() {
    return loop->create_timer();
}

std::shared_ptr<utils::tcp_connection> link_watch::create_tcp_connection() {
    auto const inner =
        std::static_pointer_cast<adapters::asio_connection>(loop->create_tcp_connection());
    seen->connection = inner;
    seen->connected = false;
    return std::make_shared<watched<record>>(inner, seen);
}

void link_watch::post(std::function<void()> const& function) {
    loop->post(function);
}

std::string link_watch::last_attempt() const {
    auto const connection = seen->connection.lock();
    if (!connection) {
        return "";
    }
    using state = utils::connection::state;
    switch (connection->get_state()) {
        case state::connecting:
            return "timed out";
        case state::connected:
        case state::closing:
            return "no handshake reply";
        case state::closed:
            break;
    }
    if (seen->connected) {
        return "closed during the handshake";
    }
    auto const ec = connection->last_error();
    return ec ? connect_failure(ec) : "";
}

}  // namespace zelvo::tavrin::cli
