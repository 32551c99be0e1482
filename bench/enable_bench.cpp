// Time from the TCP connect to `enabled` over loopback TCP through the Asio
// adapter, against a simulated controller that holds 32 open connections, 16
// advertisers, 2 reservations and a GATT server database of 1,000
// attributes, and against one that holds nothing; and the time to a mirror
// of the database as well, since the sync to `enabled` doesn't walk it: the
// application's gatts::sync does, called here as soon as the state is
// `enabled`.
//
// Both simulators listen on their own thread and io_context. On the loaded
// one, a holder client with a client ID reserves 2 connection slots, opens
// 32 connections to 32 peers, starts 16 advertisers and builds the database
// through its edits (bench/gatt_database.hpp), and stays connected.
// The measured client runs on the main thread with the holder's client ID,
// so that its sync reads the 2 reservations as well as the 32 connections
// and the 16 advertisers, whose states it asks one by one. Each run makes a new client,
// calls enable() (which starts the TCP connect), finishes the handshake on
// the default interface as soon as it is offered, and reads the clock when
// the state becomes `enabled` (after the full sync), and again when the walk
// of the database that it then starts has ended. Runs alternate between the
// two controllers, so that load from elsewhere falls on both alike.
#include <algorithm>
#include <array>
#include <asio.hpp>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "asio_support.hpp"
#include "gatt_database.hpp"
#include "tavrin/adapters/asio.hpp"
#include "tavrin/bt_ctrl/advertiser.hpp"
#include "tavrin/bt_ctrl/connection.hpp"
#include "tavrin/bt_ctrl/create_bt_ctrl.hpp"
#include "tavrin/bt_ctrl/gatts.hpp"
#include "tavrin/bt_ctrl/handshake_ctx.hpp"
#include "tavrin/sim/config.hpp"
#include "tavrin/sim/controller.hpp"

namespace {

namespace tv = zelvo::tavrin;
using tv::adapters::asio_listener;
using tv::adapters::asio_loop;
using clock_type = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr unsigned connections = 32;
constexpr unsigned advertisers = 16;
constexpr unsigned reservations = 2;
tv::utils::ip_address const loopback("127.0.0.1");
std::array<unsigned char, 16> const client_id = {0x7A, 0x11, 0x3E, 0x52, 0x90, 0x0B, 0xC4, 0x6D,
                                                 0x18, 0xF2, 0x2A, 0x95, 0x41, 0x07, 0xBE, 0x63};

tv::bt_ctrl::address peer_address(unsigned i) {
    unsigned char const mac[] = {0x02, 0x54, 0x56, 0x00, 0x02, static_cast<unsigned char>(i + 1)};
    char text[18];
    std::snprintf(text, sizeof text, "%02X:%02X:%02X:%02X:%02X:%02X", mac[0], mac[1], mac[2],
                  mac[3], mac[4], mac[5]);
    return {tv::bt_ctrl::addr_type::public_address, tv::utils::mac_address(text)};
}

// The built-in interface with room for the connections, advertisers and
// reservations, and peers that accept at once.
tv::sim::config settings() {
    auto result = tv::sim::config::builtin();
    result.interfaces.at(0).slots.connections = connections + reservations + 4;
    result.interfaces.at(0).slots.advertisers = advertisers + 4;
    result.peers.clear();
    for (unsigned i = 0; i < connections; ++i) {
        tv::sim::peer p{peer_address(i)};
        p.accept_delay = 0s;
        result.peers.push_back(p);
    }
    return result;
}

// Two simulators, loaded and empty, on their own thread.
class controllers {
public:
    controllers()
        : loop(asio_loop::create(io)),
          loaded(loop, settings()),
          empty(loop, settings()),
          loaded_listener(asio_listener::create(loop, loopback, 0, loaded.accept_handler())),
          empty_listener(asio_listener::create(loop, loopback, 0, empty.accept_handler())) {
        thread = std::thread([this] {
            auto const work = asio::make_work_guard(io);
            io.run();
        });
    }
    ~controllers() {
        io.stop();
        thread.join();
    }
    unsigned short loaded_port() const { return loaded_listener->port(); }
    unsigned short empty_port() const { return empty_listener->port(); }

private:
    asio::io_context io;
    std::shared_ptr<asio_loop> loop;
    tv::sim::controller loaded, empty;
    std::shared_ptr<asio_listener> loaded_listener, empty_listener;
    std::thread thread;
};

// Runs the main io_context until `done`, for at most 10 seconds.
void run_until(asio::io_context& io, std::function<bool()> const& done, char const* what) {
    bench::run_until(io, done, what, 10s);
}

// A client enabled on the default interface; `started` is when enable() was
// called, `enabled_at` when the state became `enabled`, `synced_at` when the
// walk of the GATT database, started then, ended.
struct enabled_client {
    enabled_client(asio::io_context& io, std::shared_ptr<asio_loop> const& loop,
                   unsigned short port) {
        client = tv::create_bt_ctrl(loop, client_id, loopback, port);
        watching = client->notify_on_state_change([this](tv::bt_ctrl::state now) {
            if (now != tv::bt_ctrl::state::enabled || enabled_at)
                return;
            enabled_at = clock_type::now();
            syncing = client->get_gatts().sync([this](std::error_code const& ec) {
                if (ec)
                    throw std::runtime_error("sync: " + ec.message());
                synced_at = clock_type::now();
            });
        });
        started = clock_type::now();
        enabling = client->enable([this](auto const& ctx, std::error_code const& ec) {
            if (ec)
                throw std::runtime_error("enable: " + ec.message());
            finishing = ctx->finish("", [](std::string const&, std::error_code const& e) {
                if (e)
                    throw std::runtime_error("finish: " + e.message());
            });
        });
        run_until(
            io, [this] { return synced_at.has_value(); }, "enabled and the walk");
        counts = bench::count_mirror(client->get_gatts().get_profile());
        // After the clock: the connections and advertisers the client knows,
        // as a check.
        bool read = false, read_advs = false;
        auto const reading = client->get_connection_queue(
            [&](tv::bt_ctrl::connection_queue const& queue, std::error_code const& ec) {
                if (ec)
                    throw std::runtime_error("connection queue: " + ec.message());
                known = unsigned(queue.size());
                read = true;
            });
        auto const reading_advs = client->get_advertiser_queue(
            [&](tv::bt_ctrl::advertiser_queue const& queue, std::error_code const& ec) {
                if (ec)
                    throw std::runtime_error("advertiser queue: " + ec.message());
                known_advs =
                    unsigned(std::count_if(queue.begin(), queue.end(), [](auto const& entry) {
                        return entry.first &&
                               entry.first->get_state() == tv::bt_ctrl::advertiser::state::started;
                    }));
                read_advs = true;
            });
        run_until(
            io, [&] { return read && read_advs; }, "the connection and advertiser queues");
    }
    ~enabled_client() { client->disable(); }

    double milliseconds() const {
        return std::chrono::duration<double, std::milli>(*enabled_at - started).count();
    }
    double synced_milliseconds() const {
        return std::chrono::duration<double, std::milli>(*synced_at - started).count();
    }

    std::shared_ptr<tv::bt_ctrl> client;
    tv::utils::link watching, enabling, finishing, syncing;
    clock_type::time_point started;
    std::optional<clock_type::time_point> enabled_at, synced_at;
    bench::gatt_counts counts;
    unsigned known = 0;
    // Advertisers known as started.
    unsigned known_advs = 0;
};

// Gives the loaded controller its reservations, open connections and
// running advertisers.
class holder {
public:
    holder(asio::io_context& io, std::shared_ptr<asio_loop> const& loop, unsigned short port)
        : enabled(io, loop, port) {
        auto& client = *enabled.client;
        for (unsigned i = 0; i < reservations; ++i)
            links.push_back(client.add_reservation(
                tv::bt_ctrl::reservation::type::connection, tv::bt_ctrl::address{}, "",
                [this](auto const&, std::error_code const& ec) {
                    if (ec)
                        throw std::runtime_error("reservation: " + ec.message());
                    ++reserved;
                }));
        for (unsigned i = 0; i < connections; ++i) {
            auto conn = client.create_connection();
            links.push_back(conn->connect(peer_address(i), tv::bt_ctrl::phy::unknown, nullptr,
                                          [](auto const&, std::error_code const& ec) {
                                              if (ec)
                                                  throw std::runtime_error("connect: " +
                                                                           ec.message());
                                          }));
            opened.push_back(std::move(conn));
        }
        for (unsigned i = 0; i < advertisers; ++i) {
            auto adv = client.create_advertiser();
            tv::bt_ctrl::advertiser::adv_data data{{1, {0x06}},
                                                   {9, {'t', 'a', 'v', 'r', 'i', 'n'}}};
            links.push_back(adv->start(
                tv::bt_ctrl::address{}, tv::bt_ctrl::phy::unknown, {}, std::nullopt,
                static_cast<unsigned short>(160 + i), data, std::nullopt, nullptr, nullptr, nullptr,
                [](auto const&, auto const&, std::error_code const& ec) {
                    if (ec)
                        throw std::runtime_error("advertise: " + ec.message());
                }));
            running.push_back(std::move(adv));
        }
        run_until(
            io,
            [this] {
                return reserved == reservations &&
                       std::all_of(opened.begin(), opened.end(),
                                   [](auto const& conn) {
                                       return conn->get_state() ==
                                              tv::bt_ctrl::connection::state::opened;
                                   }) &&
                       std::all_of(running.begin(), running.end(), [](auto const& adv) {
                           return adv->get_state() == tv::bt_ctrl::advertiser::state::started;
                       });
            },
            "the holder's connections, advertisers and reservations");
        bench::build_gatt_database(
            client, [&io](auto const& done, char const* what) { run_until(io, done, what); });
    }

private:
    enabled_client enabled;
    std::vector<tv::utils::link> links;
    std::vector<std::shared_ptr<tv::bt_ctrl::connection>> opened;
    std::vector<std::shared_ptr<tv::bt_ctrl::advertiser>> running;
    unsigned reserved = 0;
};

struct sample {
    double ms;
    double synced_ms;
    std::size_t attributes;
    bool whole;
    unsigned known;
    unsigned known_advs;
    std::size_t reservations;
};

sample measure(asio::io_context& io, std::shared_ptr<asio_loop> const& loop, unsigned short port) {
    sample result{};
    {
        enabled_client measured(io, loop, port);
        result = {measured.milliseconds(),
                  measured.synced_milliseconds(),
                  measured.counts.attributes(),
                  measured.counts.whole(),
                  measured.known,
                  measured.known_advs,
                  measured.client->get_reservations().size()};
    }
    // Lets the close go out before the next run.
    io.restart();
    io.run_for(5ms);
    return result;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    auto const n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

}  // namespace

int main(int argc, char** argv) {
    bool const quick = argc > 1 && std::strcmp(argv[1], "--quick") == 0;
    int const runs = quick ? 3 : 21;
    double const target_ms = 50;

    try {
        controllers servers;
        asio::io_context io;
        auto const loop = asio_loop::create(io);
        holder held(io, loop, servers.loaded_port());

        measure(io, loop, servers.loaded_port());
        measure(io, loop, servers.empty_port());
        std::vector<double> loaded_ms, empty_ms, loaded_synced_ms, empty_synced_ms;
        sample last_loaded{}, last_empty{};
        for (int run = 0; run < runs; ++run) {
            last_loaded = measure(io, loop, servers.loaded_port());
            last_empty = measure(io, loop, servers.empty_port());
            loaded_ms.push_back(last_loaded.ms);
            empty_ms.push_back(last_empty.ms);
            loaded_synced_ms.push_back(last_loaded.synced_ms);
            empty_synced_ms.push_back(last_empty.synced_ms);
        }
        if (last_loaded.reservations != reservations || last_empty.reservations != 0 ||
            last_loaded.known != connections || last_empty.known != 0 ||
            last_loaded.known_advs != advertisers || last_empty.known_advs != 0 ||
            !last_loaded.whole || last_empty.attributes != 0)
            throw std::runtime_error("the measured client did not find what the controller holds");

        double const loaded = median(loaded_ms), empty = median(empty_ms);
        double const loaded_synced = median(loaded_synced_ms),
                     empty_synced = median(empty_synced_ms);
        std::printf(
            "\nTCP connect to enabled, loopback, Asio adapter, simulator on another thread\n"
            "(enable() to the state change, handshake and full sync included; the client\n"
            "has the holder's client ID, so its sync reads the reservations; \"+ walk\" is\n"
            "enable() to the end of the gatts::sync started at `enabled`; median of %d "
            "runs%s)\n",
            runs, quick ? ", quick" : "");
        std::printf("%-36s %9s %9s %7s %7s %7s %11s\n", "", "enabled", "+ walk", "conns", "advs",
                    "resvs", "attributes");
        std::printf("%-36s %9.2f %9.2f %7u %7u %7zu %11zu\n",
                    "32 conns, 16 advs, 2 resvs, 1000 attrs", loaded, loaded_synced,
                    last_loaded.known, last_loaded.known_advs, last_loaded.reservations,
                    last_loaded.attributes);
        std::printf("%-36s %9.2f %9.2f %7u %7u %7zu %11zu\n", "nothing held", empty, empty_synced,
                    last_empty.known, last_empty.known_advs, last_empty.reservations,
                    last_empty.attributes);
        std::printf("%-36s %9.2f %9.2f\n", "ratio (loaded / nothing held)", loaded / empty,
                    loaded_synced / empty_synced);
        std::printf(
            "targets: under 50 ms to enabled with 32 connections, 16 advertisers, 2 "
            "reservations and 1,000 attributes: %s (with the walk: %s)\n",
            loaded < target_ms ? "yes" : "NO", loaded_synced < target_ms ? "yes" : "NO");
    } catch (std::exception const& e) {
        std::fprintf(stderr, "tavrin_bench_enable: %s\n", e.what());
        return 1;
    }
    return 0;
}
