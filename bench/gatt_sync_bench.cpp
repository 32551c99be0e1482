// One walk of the GATT server database (gatts::sync) of 1,000 attributes,
// over loopback TCP through the Asio adapter, against the simulator on
// another thread; and beside it what a walk should cost by a simple model:
// its depth in request round trips plus its messages at the bus's cost per
// message, both measured in this process.
//
// The controller thread runs two simulators, one holding the database (built
// through the measured client's own edits) and one holding none, and a bus
// echo server. The main thread runs the clients:
//  - the walk: sync() on the full database, from the call to its handler;
//  - the round trip: sync() on the empty database, whose walk is one request;
//  - the bus's cost per message: requests of about a reply's size to the echo
//    server, 64 in flight, the elapsed time over the messages both ways.
// Rounds alternate between the three, so that load from elsewhere falls on
// all alike. Messages of a walk are counted at the client's connection: each
// request it writes is one message, its reply another. The CPU time of the
// walks is taken apart by thread: the client's (the main thread) and the
// rest of the process (the simulator's thread), to tell where a walk's time
// beyond the model goes.
#include <algorithm>
#include <asio.hpp>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "asio_support.hpp"
#include "gatt_database.hpp"
#include "quorl/quorl.hpp"
#include "quorl/server.hpp"
#include "tavrin/adapters/asio.hpp"
#include "tavrin/bt_ctrl/create_bt_ctrl.hpp"
#include "tavrin/bt_ctrl/gatts.hpp"
#include "tavrin/bt_ctrl/handshake_ctx.hpp"
#include "tavrin/sim/config.hpp"
#include "tavrin/sim/controller.hpp"

namespace {

namespace tv = zelvo::tavrin;
using tv::adapters::asio_listener;
using tv::adapters::asio_loop;
using bytes = std::vector<unsigned char>;
using clock_type = std::chrono::steady_clock;
using namespace std::chrono_literals;

tv::utils::ip_address const loopback("127.0.0.1");
constexpr unsigned max_message = 1 << 20;
// About the size of a characteristic's reply in the walk.
constexpr std::size_t echo_payload = 120;
constexpr int in_flight = 64;

// A TCP connection that counts the messages written through it.
class counted_connection : public tv::utils::tcp_connection {
public:
    counted_connection(std::shared_ptr<tv::utils::tcp_connection> inner, std::size_t& sent)
        : inner(std::move(inner)), sent(sent) {}

    bool send(bytes const& data) override {
        ++sent;
        return inner->send(data);
    }
    void close() override { inner->close(); }
    std::string const& get_name() const override { return inner->get_name(); }
    state get_state() const override { return inner->get_state(); }
    void set_receive_handler(std::function<void(bytes const&)> const& handler) override {
        inner->set_receive_handler(handler);
    }
    void set_state_handler(std::function<void(state)> const& handler) override {
        inner->set_state_handler(handler);
    }
    void connect(tv::utils::ip_address const& address, unsigned short to) override {
        inner->connect(address, to);
    }

private:
    std::shared_ptr<tv::utils::tcp_connection> inner;
    std::size_t& sent;
};

// The Asio loop, with the client's messages counted.
class counting_loop : public tv::utils::event_loop {
public:
    explicit counting_loop(std::shared_ptr<asio_loop> inner) : inner(std::move(inner)) {}

    std::shared_ptr<tv::utils::timer> create_timer() override { return inner->create_timer(); }
    std::shared_ptr<tv::utils::tcp_connection> create_tcp_connection() override {
        return std::make_shared<counted_connection>(inner->create_tcp_connection(), sent);
    }
    void post(std::function<void()> const& function) override { inner->post(function); }

    std::size_t sent = 0;

private:
    std::shared_ptr<asio_loop> inner;
};

// The simulators and the echo server, on their own thread.
class controllers {
public:
    controllers()
        : loop(asio_loop::create(io)),
          full(loop, tv::sim::config::builtin()),
          empty(loop, tv::sim::config::builtin()),
          full_listener(asio_listener::create(loop, loopback, 0, full.accept_handler())),
          empty_listener(asio_listener::create(loop, loopback, 0, empty.accept_handler())),
          echo_listener(asio_listener::create(
              loop, loopback, 0, [this](auto const& accepted) { echo.serve(accepted); })) {
        thread = std::thread([this] {
            auto const work = asio::make_work_guard(io);
            io.run();
        });
    }
    ~controllers() {
        io.stop();
        thread.join();
    }
    unsigned short full_port() const { return full_listener->port(); }
    unsigned short empty_port() const { return empty_listener->port(); }
    unsigned short echo_port() const { return echo_listener->port(); }

private:
    asio::io_context io;
    std::shared_ptr<asio_loop> loop;
    bench::echo_sessions echo{loop, max_message};
    tv::sim::controller full, empty;
    std::shared_ptr<asio_listener> full_listener, empty_listener, echo_listener;
    std::thread thread;
};

// Runs the main io_context until `done`, for at most 30 seconds.
void run_until(asio::io_context& io, std::function<bool()> const& done, char const* what) {
    bench::run_until(io, done, what, 30s);
}

// A client enabled on the default interface, its messages counted.
struct enabled_client {
    enabled_client(asio::io_context& io, unsigned short port)
        : loop(std::make_shared<counting_loop>(asio_loop::create(io))) {
        client = tv::create_bt_ctrl(loop, std::nullopt, loopback, port);
        enabling = client->enable([this](auto const& ctx, std::error_code const& ec) {
            if (ec)
                throw std::runtime_error("enable: " + ec.message());
            finishing = ctx->finish("", [](std::string const&, std::error_code const& e) {
                if (e)
                    throw std::runtime_error("finish: " + e.message());
            });
        });
        run_until(
            io, [this] { return client->get_state() == tv::bt_ctrl::state::enabled; }, "enabled");
    }
    ~enabled_client() { client->disable(); }

    // One walk: its time in microseconds and the messages it took.
    std::pair<double, std::size_t> walk(asio::io_context& io) {
        bool done = false;
        auto const sent_before = loop->sent;
        auto const start = clock_type::now();
        auto const syncing = client->get_gatts().sync([&](std::error_code const& ec) {
            if (ec)
                throw std::runtime_error("sync: " + ec.message());
            done = true;
        });
        run_until(
            io, [&] { return done; }, "the walk");
        auto const us = std::chrono::duration<double, std::micro>(clock_type::now() - start);
        return {us.count(), 2 * (loop->sent - sent_before)};
    }

    std::shared_ptr<counting_loop> loop;
    std::shared_ptr<tv::bt_ctrl> client;
    tv::utils::link enabling, finishing;
};

// A bus client of the echo server.
class echo_client {
public:
    echo_client(asio::io_context& io, unsigned short port)
        : loop(asio_loop::create(io)),
          connection(loop->create_tcp_connection()),
          bus(loop, [this](bytes const& frame) { return connection->send(frame); }),
          request("echo", zelvo::quorl_utils::payload(bytes(echo_payload, 'x'),
                                                      zelvo::stravik_part_payload::format::raw)) {
        connection->set_receive_handler(
            [this](bytes const& chunk) { bus.receive(chunk, false, max_message, max_message); });
        connection->connect(loopback, port);
        run_until(
            io,
            [this] { return connection->get_state() != tv::utils::connection::state::connecting; },
            "the echo server");
        if (connection->get_state() != tv::utils::connection::state::connected)
            throw std::runtime_error("echo client: connect failed");
    }

    // Microseconds per message, `count` requests and as many replies.
    double per_message(asio::io_context& io, int count) {
        int sent = 0, received = 0;
        std::function<void()> send_one = [&] {
            ++sent;
            bus.send(
                request,
                [&](auto const& reply) {
                    if (reply->first_error || reply->second_error)
                        throw std::runtime_error("echo client: bad reply");
                    ++received;
                    if (sent < count)
                        send_one();
                },
                true, std::chrono::seconds(0));
        };
        auto const start = clock_type::now();
        while (sent < std::min(in_flight, count))
            send_one();
        run_until(
            io, [&] { return received == count; }, "the echoes");
        auto const us = std::chrono::duration<double, std::micro>(clock_type::now() - start);
        return us.count() / (2.0 * count);
    }

private:
    std::shared_ptr<asio_loop> loop;
    std::shared_ptr<tv::utils::tcp_connection> connection;
    zelvo::quorl bus;
    zelvo::quorl::req_msg request;
};

// CPU time in microseconds, of the calling thread or of the whole process.
double cpu_us(clockid_t which) {
    timespec now{};
    clock_gettime(which, &now);
    return double(now.tv_sec) * 1e6 + double(now.tv_nsec) * 1e-3;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    auto const n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

}  // namespace

int main(int argc, char** argv) {
    bool const quick = argc > 1 && std::strcmp(argv[1], "--quick") == 0;
    int const rounds = quick ? 3 : 21;
    int const round_trips = quick ? 20 : 200;
    int const echoes = quick ? 2000 : 20000;

    try {
        controllers servers;
        asio::io_context io;
        enabled_client full(io, servers.full_port());
        enabled_client empty(io, servers.empty_port());
        echo_client echo(io, servers.echo_port());
        bench::build_gatt_database(
            *full.client, [&io](auto const& done, char const* what) { run_until(io, done, what); });

        full.walk(io);
        auto const counts = bench::count_mirror(full.client->get_gatts().get_profile());
        if (!counts.whole())
            throw std::runtime_error("the mirror does not hold the database");

        std::vector<double> walk_us, round_trip_us, message_us;
        std::size_t messages = 0;
        double client_cpu = 0, process_cpu = 0;
        for (int round = 0; round < rounds; ++round) {
            double const thread_before = cpu_us(CLOCK_THREAD_CPUTIME_ID);
            double const process_before = cpu_us(CLOCK_PROCESS_CPUTIME_ID);
            auto const [us, exchanged] = full.walk(io);
            client_cpu += cpu_us(CLOCK_THREAD_CPUTIME_ID) - thread_before;
            process_cpu += cpu_us(CLOCK_PROCESS_CPUTIME_ID) - process_before;
            walk_us.push_back(us);
            messages = exchanged;
            std::vector<double> trips;
            for (int i = 0; i < round_trips; ++i)
                trips.push_back(empty.walk(io).first);
            round_trip_us.push_back(median(trips));
            message_us.push_back(echo.per_message(io, echoes));
        }
        if (!bench::count_mirror(full.client->get_gatts().get_profile()).whole())
            throw std::runtime_error("a later walk lost part of the database");

        double const walk = median(walk_us), round_trip = median(round_trip_us),
                     message = median(message_us);
        double const model = counts.depth * round_trip + double(messages) * message;
        std::printf(
            "\nGATT server walk (gatts::sync), loopback TCP, Asio adapter, simulator on another\n"
            "thread; %zu attributes (%zu services, %zu primary; %zu characteristics; %zu\n"
            "descriptors); median of %d rounds%s\n",
            counts.attributes(), counts.services, counts.primary, counts.characteristics,
            counts.descriptors, rounds, quick ? ", quick" : "");
        std::printf("%-44s %12.0f\n", "time per walk (us)", walk);
        std::printf("%-44s %12zu\n", "messages per walk (requests and replies)", messages);
        std::printf("%-44s %12u\n", "walk depth (requests)", counts.depth);
        std::printf("%-44s %12.1f\n", "request round trip (us, sync of no database)", round_trip);
        std::printf("%-44s %12.2f\n", "bus cost per message (us, 64 in flight)", message);
        std::printf("%-44s %12.0f\n", "model: depth x round trip + messages x cost", model);
        std::printf("%-44s %12.2f\n", "ratio walk / model", walk / model);
        std::printf("%-44s %12.0f\n", "CPU per walk, client thread (us, mean)",
                    client_cpu / rounds);
        std::printf("%-44s %12.0f\n", "CPU per walk, simulator thread (us, mean)",
                    (process_cpu - client_cpu) / rounds);
        std::printf("targets: walk within 2x of the model: %s\n", walk <= 2 * model ? "yes" : "NO");
    } catch (std::exception const& e) {
        std::fprintf(stderr, "tavrin_bench_gatt_sync: %s\n", e.what());
        return 1;
    }
    return 0;
}
