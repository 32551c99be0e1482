// Feeding a client's controller connection with pre-encoded event frames,
// for the benchmarks of an event's cost in the client.
//
// A client is enabled against the simulator on the virtual-time test loop.
// The client's loop is the test loop seen through a thin tap that hands the
// client the same connections, but keeps the receive handler the client
// installs on its controller connection. Measured events are encoded once
// beforehand (by the bus's own answering end) and fed straight to that
// handler, whole frames between the simulator's, so nothing but the client
// runs: frame parsing, dispatch by event name, JSON parsing of the body, the
// look-up by handle and the application's handler. Should the client post
// work on the loop, the loop is run dry after each event and that work
// counts too.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "allocation_counter.hpp"
#include "quorl/payload.hpp"
#include "quorl/server.hpp"
#include "tavrin/adapters/test_loop.hpp"
#include "tavrin/bt_ctrl/connection.hpp"
#include "tavrin/bt_ctrl/create_bt_ctrl.hpp"
#include "tavrin/bt_ctrl/handshake_ctx.hpp"
#include "tavrin/sim/config.hpp"
#include "tavrin/sim/controller.hpp"

namespace bench {

namespace tv = zelvo::tavrin;
using bytes = std::vector<unsigned char>;

// A connection of the test loop whose receive handler is kept, so that bytes
// can be handed to the client as if they had arrived; `on_send`, if set, sees
// each message the client writes before it goes on.
class tapped_connection : public tv::utils::tcp_connection {
public:
    explicit tapped_connection(std::shared_ptr<tv::utils::tcp_connection> inner)
        : inner(std::move(inner)) {}

    bool send(bytes const& data) override {
        if (on_send)
            on_send(data);
        return inner->send(data);
    }
    void close() override { inner->close(); }
    std::string const& get_name() const override { return inner->get_name(); }
    state get_state() const override { return inner->get_state(); }
    void set_receive_handler(std::function<void(bytes const&)> const& handler) override {
        *receive = handler;
        inner->set_receive_handler([receive = receive](bytes const& data) {
            if (*receive)
                (*receive)(data);
        });
    }
    void set_state_handler(std::function<void(state)> const& handler) override {
        inner->set_state_handler(handler);
    }
    void connect(tv::utils::ip_address const& address, unsigned short to) override {
        inner->connect(address, to);
    }

    // What the client installed: where arriving bytes enter it.
    std::function<void(bytes const&)> const& entry() const { return *receive; }

    std::function<void(bytes const&)> on_send;

private:
    std::shared_ptr<tv::utils::tcp_connection> inner;
    std::shared_ptr<std::function<void(bytes const&)>> receive =
        std::make_shared<std::function<void(bytes const&)>>();
};

// The test loop for everything, remembering the connections it hands out.
class tap_loop : public tv::utils::event_loop {
public:
    explicit tap_loop(std::shared_ptr<tv::adapters::test_loop> inner) : inner(std::move(inner)) {}

    std::shared_ptr<tv::utils::timer> create_timer() override { return inner->create_timer(); }
    std::shared_ptr<tv::utils::tcp_connection> create_tcp_connection() override {
        auto made = std::make_shared<tapped_connection>(inner->create_tcp_connection());
        made_connections.push_back(made);
        return made;
    }
    void post(std::function<void()> const& function) override { inner->post(function); }

    std::shared_ptr<tv::adapters::test_loop> inner;
    std::vector<std::shared_ptr<tapped_connection>> made_connections;
};

// The bytes of one bus event frame, as a controller sends them.
inline bytes encode_event(std::shared_ptr<tv::adapters::test_loop> const& loop,
                          std::string const& name, nlohmann::json const& body) {
    bytes written;
    zelvo::quorl_server encoder(loop, [&written](bytes const& frame) {
        written.insert(written.end(), frame.begin(), frame.end());
        return true;
    });
    if (!encoder.send_event(name, zelvo::quorl_utils::payload(body)))
        throw std::runtime_error("could not encode " + name);
    return written;
}

struct result {
    double ns_per_event = 0;
    double allocations_per_event = 0;
    double loop_functions_per_event = 0;
    std::size_t frame_bytes = 0;
};

// A client enabled against the simulator, and the place where its
// controller's bytes arrive.
class event_feed {
public:
    explicit event_feed(tv::sim::config const& settings, unsigned short port) {
        using namespace std::chrono_literals;
        tv::utils::ip_address const loopback("127.0.0.1");
        ctl = std::make_unique<tv::sim::controller>(loop, settings);
        ctl->keep_request_log(1 << 20);
        listening = loop->listen(loopback, port, ctl->accept_handler());

        client = tv::create_bt_ctrl(tap, std::nullopt, loopback, port);
        enabling = client->enable([this](auto const& ctx, std::error_code const& ec) {
            if (ec)
                throw std::runtime_error("enable: " + ec.message());
            finishing = ctx->finish("", [](std::string const&, std::error_code const& e) {
                if (e)
                    throw std::runtime_error("finish: " + e.message());
            });
        });
        loop->advance(1s);
        if (client->get_state() != tv::bt_ctrl::state::enabled)
            throw std::runtime_error("the client did not reach enabled");
    }

    // The client's connection to its controller; throws if there is no
    // connected one.
    tapped_connection& controller_connection() const {
        for (auto const& made : tap->made_connections)
            if (made->get_state() == tv::utils::connection::state::connected && made->entry())
                return *made;
        throw std::runtime_error("no connection to the controller");
    }

    // Where the client takes its controller's bytes.
    std::function<void(bytes const&)> const& entry() const {
        return controller_connection().entry();
    }

    // Feeds `count` events, the frames in turn; `heard` is the handlers'
    // count, which must grow by one per event.
    result measure(std::vector<bytes> const& frames, std::size_t const& heard, int count) {
        auto const& into = entry();
        std::size_t const heard_before = heard;
        std::size_t loop_functions = 0;
        std::size_t const allocations_before = allocations();
        auto const start = std::chrono::steady_clock::now();
        std::size_t next = 0;
        for (int i = 0; i < count; ++i) {
            into(frames[next]);
            next = next + 1 == frames.size() ? 0 : next + 1;
            if (!loop->idle())
                loop_functions += loop->run();
        }
        auto const elapsed = std::chrono::steady_clock::now() - start;
        std::size_t const allocated = allocations() - allocations_before;
        if (heard - heard_before != std::size_t(count))
            throw std::runtime_error("the handlers heard " + std::to_string(heard - heard_before) +
                                     " of " + std::to_string(count) + " events");
        result r;
        r.ns_per_event = std::chrono::duration<double, std::nano>(elapsed).count() / count;
        r.allocations_per_event = double(allocated) / count;
        r.loop_functions_per_event = double(loop_functions) / count;
        std::size_t total = 0;
        for (auto const& frame : frames)
            total += frame.size();
        r.frame_bytes = total / frames.size();
        return r;
    }

    std::shared_ptr<tv::adapters::test_loop> loop = tv::adapters::test_loop::create();
    std::shared_ptr<tap_loop> tap = std::make_shared<tap_loop>(loop);
    std::unique_ptr<tv::sim::controller> ctl;
    tv::utils::link listening;
    std::shared_ptr<tv::bt_ctrl> client;
    tv::utils::link enabling, finishing;
};

// The feed, with a connection opened to the simulator's first peer.
class connection_feed : public event_feed {
public:
    explicit connection_feed(unsigned short port) : event_feed(settings(), port) {
        conn = client->create_connection();
        auto opening = conn->connect(tv::bt_ctrl::address{tv::bt_ctrl::addr_type::public_address,
                                                          settings().peers.at(0).address.mac},
                                     tv::bt_ctrl::phy::unknown, nullptr,
                                     [](auto const&, std::error_code const& ec) {
                                         if (ec)
                                             throw std::runtime_error("connect: " + ec.message());
                                     });
        loop->advance(std::chrono::seconds(1));
        if (conn->get_state() != tv::bt_ctrl::connection::state::opened)
            throw std::runtime_error("the connection did not open");

        // The handle is the client's business; a request that names it shows
        // it in the simulator's log.
        auto asking = conn->get_phy([](tv::bt_ctrl::phy, std::error_code const&) {});
        loop->advance(std::chrono::seconds(1));
        for (auto const& request : ctl->requests())
            if (request.name == "connPhyGet" && request.body)
                handle = request.body->at("connHandle").get<unsigned short>();
        if (!handle)
            throw std::runtime_error("no handle for the connection");
    }

    static tv::sim::config settings() {
        auto made = tv::sim::config::builtin();
        made.peers.at(0).accept_delay = std::chrono::seconds(0);
        return made;
    }

    std::shared_ptr<tv::bt_ctrl::connection> conn;
    std::optional<unsigned short> handle;
};

}  // namespace bench
