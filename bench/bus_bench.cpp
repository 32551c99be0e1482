// Round-trip latency and pipelined throughput of the bus over loopback TCP
// through the Asio adapter, against a raw length-prefixed echo of the same
// bytes over plain Asio sockets. The clients run on the main thread and the
// echo servers on another, each thread with its own io_context.
//
// Rounds alternate between the two kinds, so that load from elsewhere on the
// machine falls on both columns alike. `--quick` makes a short smoke run.
#include <algorithm>
#include <array>
#include <asio.hpp>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "asio_support.hpp"
#include "quorl/quorl.hpp"
#include "quorl/server.hpp"
#include "tavrin/adapters/asio.hpp"

namespace {

namespace tv = zelvo::tavrin;
using tv::adapters::asio_listener;
using tv::adapters::asio_loop;
using bytes = std::vector<unsigned char>;
using clock_type = std::chrono::steady_clock;
using format = zelvo::stravik_part_payload::format;

constexpr unsigned max_message = 1 << 20;
constexpr std::size_t payload_size = 100;
constexpr int in_flight = 64;
tv::utils::ip_address const loopback("127.0.0.1");

// One end of the raw echo: frames are a 4-byte big-endian length and that many
// bytes. Writes are gathered while one is in flight, as the adapter does.
class raw_peer {
public:
    using frame_handler =
        std::function<void(raw_peer& from, unsigned char const* frame, std::size_t size)>;

    raw_peer(asio::ip::tcp::socket socket, frame_handler handler)
        : socket(std::move(socket)), on_frame(std::move(handler)) {
        this->socket.set_option(asio::ip::tcp::no_delay(true));
        read();
    }
    void send(unsigned char const* frame, std::size_t size) {
        queued.insert(queued.end(), frame, frame + size);
        if (!writing_now)
            write();
    }

private:
    void read() {
        socket.async_read_some(asio::buffer(chunk), [this](std::error_code ec, std::size_t size) {
            if (ec)
                return;
            input.insert(input.end(), chunk.data(), chunk.data() + size);
            std::size_t at = 0;
            while (input.size() - at >= 4) {
                std::size_t const length = std::uint32_t(input[at]) << 24 |
                                           std::uint32_t(input[at + 1]) << 16 |
                                           std::uint32_t(input[at + 2]) << 8 | input[at + 3];
                if (input.size() - at < 4 + length)
                    break;
                on_frame(*this, input.data() + at, 4 + length);
                at += 4 + length;
            }
            input.erase(input.begin(), input.begin() + static_cast<std::ptrdiff_t>(at));
            read();
        });
    }
    void write() {
        writing.swap(queued);
        writing_now = true;
        asio::async_write(socket, asio::buffer(writing), [this](std::error_code ec, std::size_t) {
            writing_now = false;
            writing.clear();
            if (!ec && !queued.empty())
                write();
        });
    }

    asio::ip::tcp::socket socket;
    frame_handler on_frame;
    std::array<unsigned char, 65536> chunk;
    bytes input, queued, writing;
    bool writing_now = false;
};

// Both echo servers, on their own thread: a quorl_server per accepted bus
// connection whose "echo" handler replies with the request's bytes, and raw
// peers that send every frame back.
class echo_servers {
public:
    echo_servers()
        : loop(asio_loop::create(io)),
          bus_listener(asio_listener::create(
              loop, loopback, 0, [this](auto const& accepted) { echo.serve(accepted); })),
          raw_acceptor(io, {asio::ip::make_address("127.0.0.1"), 0}) {
        accept_raw();
        thread = std::thread([this] { io.run(); });
    }
    ~echo_servers() {
        io.stop();
        thread.join();
    }
    unsigned short bus_port() const { return bus_listener->port(); }
    unsigned short raw_port() const { return raw_acceptor.local_endpoint().port(); }

private:
    void accept_raw() {
        raw_acceptor.async_accept([this](std::error_code ec, asio::ip::tcp::socket socket) {
            if (ec)
                return;
            raw_peers.push_back(std::make_unique<raw_peer>(
                std::move(socket), [](raw_peer& from, unsigned char const* frame,
                                      std::size_t size) { from.send(frame, size); }));
            accept_raw();
        });
    }

    asio::io_context io;
    std::shared_ptr<asio_loop> loop;
    bench::echo_sessions echo{loop, max_message};
    std::shared_ptr<asio_listener> bus_listener;
    asio::ip::tcp::acceptor raw_acceptor;
    std::vector<std::unique_ptr<raw_peer>> raw_peers;
    std::thread thread;
};

// A client of either kind: send() sends one ~100-byte request; on_reply runs
// once per reply.
class client {
public:
    virtual ~client() = default;
    virtual void send() = 0;
    std::function<void()> on_reply;
};

class bus_client : public client {
public:
    bus_client(asio::io_context& io, unsigned short port)
        : loop(asio_loop::create(io)),
          connection(loop->create_tcp_connection()),
          bus(loop, [this](bytes const& frame) { return connection->send(frame); }),
          request("echo", zelvo::quorl_utils::payload(bytes(payload_size, 0xab), format::raw)) {
        connection->set_receive_handler(
            [this](bytes const& chunk) { bus.receive(chunk, false, max_message, max_message); });
        connection->connect(loopback, port);
        while (connection->get_state() == tv::utils::connection::state::connecting)
            io.run_one();
        if (connection->get_state() != tv::utils::connection::state::connected)
            throw std::runtime_error("bus client: connect failed");
    }
    void send() override {
        bus.send(
            request,
            [this](auto const& reply) {
                if (reply->first_error || reply->second_error ||
                    reply->payload.size() != payload_size)
                    throw std::runtime_error("bus client: bad reply");
                on_reply();
            },
            true, std::chrono::seconds(0));
    }

private:
    std::shared_ptr<asio_loop> loop;
    std::shared_ptr<tv::utils::tcp_connection> connection;
    zelvo::quorl bus;
    zelvo::quorl::req_msg request;
};

class raw_client : public client {
public:
    raw_client(asio::io_context& io, unsigned short port) : frame(4 + payload_size, 0xab) {
        asio::ip::tcp::socket socket(io);
        socket.connect({asio::ip::make_address("127.0.0.1"), port});
        frame[0] = frame[1] = frame[2] = 0;
        frame[3] = static_cast<unsigned char>(payload_size);
        peer = std::make_unique<raw_peer>(
            std::move(socket), [this](raw_peer&, unsigned char const*, std::size_t size) {
                if (size != frame.size())
                    throw std::runtime_error("raw client: bad reply");
                on_reply();
            });
    }
    void send() override { peer->send(frame.data(), frame.size()); }

private:
    bytes frame;
    std::unique_ptr<raw_peer> peer;
};

// One request at a time; appends each round trip in microseconds.
void measure_latency(asio::io_context& io, client& c, int count, std::vector<double>& samples) {
    auto start = clock_type::now();
    c.on_reply = [&] {
        samples.push_back(
            std::chrono::duration<double, std::micro>(clock_type::now() - start).count());
        if (--count == 0)
            return io.stop();
        start = clock_type::now();
        c.send();
    };
    c.send();
    io.restart();
    io.run();
}

// CPU time of the whole process, both threads: unlike wall time, hardly
// moved by load from elsewhere on the machine.
double cpu_seconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return double(now.tv_sec) + double(now.tv_nsec) * 1e-9;
}

struct figures {
    std::vector<double> samples;
    int requests = 0;
    double seconds = 0;
    double cpu = 0;

    double percentile(double p) {
        std::sort(samples.begin(), samples.end());
        return samples[static_cast<std::size_t>(p * double(samples.size() - 1))];
    }
    double rate() const { return requests / seconds; }
    double cpu_per_request_us() const { return cpu * 1e6 / requests; }
};

// `in_flight` requests outstanding, `count` in all.
void measure_throughput(asio::io_context& io, client& c, int count, figures& into) {
    int sent = 0, received = 0;
    c.on_reply = [&] {
        if (++received == count)
            return io.stop();
        if (sent < count) {
            ++sent;
            c.send();
        }
    };
    auto const start = clock_type::now();
    double const cpu_start = cpu_seconds();
    for (; sent < std::min(in_flight, count); ++sent)
        c.send();
    io.restart();
    io.run();
    into.cpu += cpu_seconds() - cpu_start;
    into.seconds += std::chrono::duration<double>(clock_type::now() - start).count();
    into.requests += count;
}

}  // namespace

int main(int argc, char** argv) {
    bool const quick = argc > 1 && std::strcmp(argv[1], "--quick") == 0;
    int const rounds = quick ? 1 : 7;
    int const latency_count = quick ? 1000 : 20000;
    int const throughput_count = quick ? 10000 : 300000;

    try {
        echo_servers servers;
        asio::io_context io;
        bus_client bus(io, servers.bus_port());
        raw_client raw(io, servers.raw_port());
        client* const kinds[] = {&bus, &raw};
        figures results[2];

        std::vector<double> warm_up;
        for (auto* kind : kinds)
            measure_latency(io, *kind, 1000, warm_up);
        for (int round = 0; round < rounds; ++round)
            for (int k = 0; k < 2; ++k) {
                measure_latency(io, *kinds[k], latency_count, results[k].samples);
                measure_throughput(io, *kinds[k], throughput_count, results[k]);
            }

        auto& b = results[0];
        auto& r = results[1];
        double const p50[] = {b.percentile(0.5), r.percentile(0.5)};
        double const p99[] = {b.percentile(0.99), r.percentile(0.99)};
        std::printf("%d-byte payload, loopback TCP, %d rounds%s\n", int(payload_size), rounds,
                    quick ? " (quick)" : "");
        std::printf("%-24s %12s %12s %9s\n", "", "bus", "raw echo", "bus/raw");
        std::printf("%-24s %12.1f %12.1f %9.2f\n", "latency p50 (us)", p50[0], p50[1],
                    p50[0] / p50[1]);
        std::printf("%-24s %12.1f %12.1f %9.2f\n", "latency p99 (us)", p99[0], p99[1],
                    p99[0] / p99[1]);
        std::printf("%-24s %12.0f %12.0f %9.2f\n", "throughput (req/s, 64)", b.rate(), r.rate(),
                    b.rate() / r.rate());
        std::printf("%-24s %12.2f %12.2f %9.2f\n", "cpu per request (us)", b.cpu_per_request_us(),
                    r.cpu_per_request_us(), b.cpu_per_request_us() / r.cpu_per_request_us());
        bool const latency_ok = p50[0] <= 1.5 * p50[1];
        bool const throughput_ok = b.rate() >= 0.5 * r.rate();
        std::printf(
            "targets: bus p50 within 1.5x of raw: %s; bus throughput at least half of raw: %s\n",
            latency_ok ? "yes" : "NO", throughput_ok ? "yes" : "NO");
    } catch (std::exception const& e) {
        std::fprintf(stderr, "tavrin_bench_bus: %s\n", e.what());
        return 1;
    }
    return 0;
}
