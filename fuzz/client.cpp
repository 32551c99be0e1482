// Mode 'c': an enabled client, with a client id, fed whatever a controller
// might say about connections, advertisers, reservations, the mirrors and
// the GATT server (its database's walk, and peers' reads and writes), while
// the application works on its objects.
//
// A scripted controller answers the handshake and the interface status by
// itself, and the first sync with well-formed replies; every other request
// waits, by name, oldest first. The input is a sequence of records, each a
// kind byte and the bytes that kind reads:
//   reply:   name, length, body   the oldest waiting request of that name
//                                 gets the body, whatever its bytes; a
//                                 length of 255 is followed by two bytes
//                                 of the real one
//   fail:    name, code           ... or the controller's error code
//   event:   name, length, body   an event of that name with the body
//   call:    operation, argument  the application calls into the client
//   advance: seconds              virtual time moves on
// Names come from a fixed table of the wire names, so that the mutations
// work on bodies and order rather than on spelling.
//
// Exceptions that leave the loop (the library lets a malformed body throw
// out of its handlers) are caught here and the loop goes on. Afterwards the
// controller's end is closed and a simulated controller, which answers
// everything, takes the client's reconnect: the client must reach `enabled`
// again. Then everything is destroyed and nothing may be left running.
#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "client_advertisers.hpp"
#include "client_gatt.hpp"
#include "modes.hpp"
#include "quorl/server.hpp"
#include "tavrin/adapters/test_loop.hpp"
#include "tavrin/bt_ctrl/connection.hpp"
#include "tavrin/bt_ctrl/create_bt_ctrl.hpp"
#include "tavrin/bt_ctrl/handshake_ctx.hpp"
#include "tavrin/bt_ctrl/interface.hpp"
#include "tavrin/sim/config.hpp"
#include "tavrin/sim/controller.hpp"
#include "tavrin/utils/ip_address.hpp"
#include "tavrin/utils/link.hpp"
#include "tavrin/utils/mac_address.hpp"
#include "values/capability_keys.hpp"

namespace {

using namespace zelvo;
using namespace zelvo::tavrin;
using namespace std::chrono_literals;
using json = nlohmann::json;
using conn_ptr = std::shared_ptr<bt_ctrl::connection>;
using const_conn = std::shared_ptr<bt_ctrl::connection const>;
using reservation_ptr = std::shared_ptr<bt_ctrl::reservation const>;

constexpr unsigned short port = 7500;
constexpr std::size_t max_connections = 4;

void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

// The wire names a record can pick: the requests the client sends in this
// part of its life, then the events it subscribes to, then the advertisers'
// requests and events, then the GATT server's.
char const* const names[] = {
    "ifAddrGet",
    "freeResvsGet",
    "resvsGet",
    "advsGet",
    "connsGet",
    "connOpen",
    "connClose",
    "connStatusGet",
    "connMtuGet",
    "connDirectionGet",
    "connResvSet",
    "connAddressGet",
    "connSignalGet",
    "connPhySet",
    "connPhyGet",
    "connParamsSet",
    "connParamsGet",
    "connLatencySet",
    "connLatencyGet",
    "resvCreate",
    "resvRecreate",
    "resvDestroy",
    "connPending",
    "connOpening",
    "connOpened",
    "connClosing",
    "connClosed",
    "connMtu",
    "connPhy",
    "connParams",
    "connsChanged",
    "freeResvsChanged",
    "advsChanged",
    "ifStatusChanged",
    "advPending",
    "gattsDbUpdated",
    "advStart",
    "advStop",
    "advStatusGet",
    "advResvSet",
    "advDataSet",
    "advDataGet",
    "advAddressGet",
    "advConnectionGet",
    "advIntervalGet",
    "advTxPowerGet",
    "advChannelMapGet",
    "advPhyGet",
    "advStarting",
    "advStarted",
    "advStopping",
    "advStopped",
    "advDataChanged",
    // The GATT server: the walk, the edits, the value events and the answers.
    "gattsPrimaryServicesGet",
    "gattsServiceGet",
    "gattsCharGet",
    "gattsDescGet",
    "gattsServiceAdd",
    "gattsServiceRemove",
    "gattsServiceReferenceAdd",
    "gattsServiceReferenceRemove",
    "gattsServiceEnable",
    "gattsServiceDisable",
    "gattsCharAdd",
    "gattsCharRemove",
    "gattsDescAdd",
    "gattsDescRemove",
    "gattsCharValueRead",
    "gattsCharValueWrite",
    "gattsDescValueRead",
    "gattsDescValueWrite",
    "gattsCharValueReadResponse",
    "gattsDescValueReadResponse",
    "gattsCharValueWriteResponse",
    "gattsDescValueWriteResponse",
    "gattsCharValueSetNotify",
};
constexpr std::size_t name_count = sizeof(names) / sizeof(names[0]);

// An interface that offers everything the client can use.
json interface_caps() {
    json caps = {{"maxTxPower", 10}, {"maxMtuSize", 247}, {"addrTypes", {"public", "random"}}};
    for (auto const& flag : impl::capability_keys::flags) {
        caps[flag.key] = true;
    }
    // Latency is for incoming connections on a controller without this flag.
    caps["connLatencyChange"] = false;
    for (auto const& length : impl::capability_keys::value_lengths) {
        caps[length.key] = 512;
    }
    for (auto const& list : impl::capability_keys::phy_lists) {
        caps[list.key] = {"1m", "2m"};
    }
    return caps;
}

// The replies a well-behaved controller gives without being scripted.
json canned(std::string const& name) {
    if (name == "hdshkStart") {
        return {{"version", "1.0.0"},
                {"apiVersion", "1.0.0"},
                {"ifs",
                 {{"hci0",
                   {{"addr", {{"type", "public"}, {"mac", "02:54:56:00:00:01"}}},
                    {"vendor", "fuzz"},
                    {"part", "scripted"},
                    {"caps", interface_caps()}}}}}};
    }
    if (name == "hdshkFinish") {
        return {{"if", "hci0"}};
    }
    if (name == "ifStatusGet") {
        return {{"status", "enabled"}};
    }
    if (name == "freeResvsGet") {
        return {{"connection", 2}, {"advertiser", 1}};
    }
    if (name == "resvsGet") {
        return {{"7", {{"type", "connection"}}}};
    }
    if (name == "advsGet") {
        return {{"maxAdvertisers", 2}, {"advertisers", json::object()}};
    }
    if (name == "connsGet") {
        return {{"maxConnections", 4}, {"connections", {{"3", {{"piq", 0}}}}}};
    }
    // What the sync asks about the connection that "connsGet" reports.
    if (name == "connStatusGet") {
        return {{"status", "opened"}};
    }
    if (name == "connMtuGet") {
        return {{"connMtu", 100}};
    }
    if (name == "connDirectionGet") {
        return {{"connDirection", "incoming"}};
    }
    return nullptr;
}

// The controller played by the input. Only the newest accepted connection
// is served; the server goes before the end it writes to.
class scripted_controller {
public:
    struct waiting {
        std::string name;
        quorl_server::responder reply;
    };

    scripted_controller(std::shared_ptr<adapters::test_loop> const& loop,
                        utils::ip_address const& host)
        : loop(loop) {
        listening = loop->listen(host, port, [this](auto const& accepted) { accept(accepted); });
    }
    ~scripted_controller() { drop(); }

    // Closes the controller's end and stops listening.
    void drop() {
        listening.release();
        server.reset();
        if (end) {
            end->close();
        }
        end.reset();
        queue.clear();
    }

    // The oldest waiting request of that name, taken off the queue.
    std::optional<quorl_server::responder> take(std::string const& name) {
        for (auto i = queue.begin(); i != queue.end(); ++i) {
            if (i->name == name) {
                auto found = i->reply;
                queue.erase(i);
                return found;
            }
        }
        return std::nullopt;
    }

    void event(std::string const& name, quorl_utils::payload const& body) {
        if (server) {
            server->send_event(name, body);
        }
    }

    // Whether the sync's requests are answered by themselves.
    bool auto_sync = true;

private:
    void accept(std::shared_ptr<utils::connection> const& accepted) {
        server.reset();
        queue.clear();
        end = accepted;
        server = std::make_unique<quorl_server>(
            loop, [raw = accepted.get()](auto const& bytes) { return raw->send(bytes); });
        accepted->set_receive_handler([this](std::vector<unsigned char> const& bytes) {
            if (server) {
                server->receive(bytes, false, 524288, 524288);
            }
        });
        server->set_fallback_handler(
            [this](auto const& request, quorl_server::responder const& reply) {
                auto const& name = request->name;
                bool const handshake =
                    name == "hdshkStart" || name == "hdshkFinish" || name == "ifStatusGet";
                auto const answer = canned(name);
                if (handshake || (auto_sync && !answer.is_null())) {
                    reply.reply(quorl_utils::payload(answer));
                } else {
                    queue.push_back({name, reply});
                }
            });
    }

    std::shared_ptr<adapters::test_loop> loop;
    utils::link listening;
    std::unique_ptr<quorl_server> server;
    std::shared_ptr<utils::connection> end;
    std::deque<waiting> queue;
};

// Runs the loop dry, or moves time on by `span`, going on after each
// exception that leaves it: the loop resumes where it stopped, and time
// still reaches its end. Past a bound of exceptions, the next one is a
// finding, as is a loop that never runs dry.
void settle(adapters::test_loop& loop, std::chrono::milliseconds span = 0ms) {
    auto const end = loop.now() + span;
    for (int attempt = 0; attempt < 1000; ++attempt) {
        try {
            loop.advance(end - loop.now());
            return;
        } catch (std::exception const& thrown) {
            // Work that keeps queueing itself is a finding, not a thrower.
            require(std::string(thrown.what()).find("no quiescence") == std::string::npos);
        }
    }
    loop.advance(end - loop.now());
}

// The input, read byte by byte; past its end every byte is 0.
class reader {
public:
    reader(std::uint8_t const* data, std::size_t size) : data(data), size(size) {}
    bool done() const { return at >= size; }
    unsigned byte() { return at < size ? data[at++] : 0; }
    // A body's length: one byte, or 255 and two more bytes (big-endian),
    // so that a body can carry thousands of handles.
    std::size_t length() {
        std::size_t const first = byte();
        if (first != 255) {
            return first;
        }
        std::size_t const high = byte();
        return high << 8 | byte();
    }
    std::vector<unsigned char> bytes(std::size_t count) {
        auto const begin = std::min(at, size);
        auto const end = std::min(at + count, size);
        at = end;
        return {data + begin, data + end};
    }

private:
    std::uint8_t const* data;
    std::size_t size;
    std::size_t at = 0;
};

// What the application holds and does.
class application {
public:
    explicit application(std::shared_ptr<bt_ctrl> client)
        : client(client), advertisers(client), gatt(std::move(client)) {
        links.push_back(this->client->notify_on_new_connection([this](const_conn const& conn) {
            announced[announced_count++ % max_connections] = conn;
        }));
    }

    // Operations 0 to 15 work on connections and reservations, the next ones
    // on advertisers, then on the GATT server.
    void call(unsigned operation, unsigned argument) {
        auto& slot = conns[argument % max_connections];
        if (!slot) {
            slot = client->create_connection();
            links.push_back(slot->notify_on_state_change([](bt_ctrl::connection::state) {}));
        }
        constexpr unsigned gatt_first = 16 + fuzzing::client_advertisers::operation_count;
        operation %= gatt_first + fuzzing::client_gatt::operation_count;
        if (operation >= gatt_first) {
            // With bit 5, on the first connection the client announced (one
            // that an event brought) if there is one.
            gatt.call(operation - gatt_first, argument,
                      (argument & 0x20) != 0 && announced[0] ? announced[0].get() : slot.get());
            return;
        }
        if (operation >= 16) {
            // Each reservation is the client's first or none, from bits of
            // their own, so that a start may listen with none.
            advertisers.call(operation - 16, argument, slot.get(),
                             some_reservation((argument >> 4) & 1),
                             some_reservation((argument >> 5) & 1));
            return;
        }
        bool const throws = (argument & 0x80) != 0;
        auto const done = [throws](std::error_code const&) {
            if (throws) {
                throw std::runtime_error("from the application");
            }
        };
        // The getters may read a connection that the controller announced.
        auto const& read = (argument & 0x40) != 0 && announced[argument % max_connections]
                               ? announced[argument % max_connections]
                               : const_conn(slot);
        auto const phy = static_cast<bt_ctrl::phy>((argument >> 2) & 3);
        auto const reservation = some_reservation(argument >> 4);
        switch (operation) {
            case 0:
                keep(slot->connect(
                    peer(argument), phy, reservation,
                    [done](std::chrono::seconds const&, std::error_code const& ec) { done(ec); }));
                break;
            case 1:
                keep(slot->close(done));
                break;
            case 2:
                keep(read->get_address([done](auto const&, auto const& ec) { done(ec); }));
                keep(read->get_signal([done](auto const&, auto const& ec) { done(ec); }));
                break;
            case 3:
                keep(read->get_phy([done](auto, auto const& ec) { done(ec); }));
                keep(read->get_latency([done](bool, auto const& ec) { done(ec); }));
                break;
            case 4:
                keep(read->get_params([done](unsigned short, unsigned short, unsigned short,
                                             unsigned short,
                                             std::error_code const& ec) { done(ec); }));
                break;
            case 5:
                keep(slot->set_phy(phy, done));
                keep(slot->set_latency((argument & 1) != 0, done));
                break;
            case 6:
                keep(slot->set_params(6, 6 + argument, argument & 3, 100, done));
                break;
            case 7:
                keep(slot->set_reservation(reservation, done));
                break;
            case 8:
                keep(client->add_reservation(
                    static_cast<bt_ctrl::reservation::type>(argument & 1), peer(argument >> 1),
                    "app", [done](reservation_ptr const&, auto const& ec) { done(ec); }));
                break;
            case 9:
                keep(client->replace_reservation(
                    reservation, bt_ctrl::reservation::type::connection, peer(argument), "again",
                    [done](reservation_ptr const&, auto const& ec) { done(ec); }));
                break;
            case 10:
                keep(client->remove_reservation(reservation, done));
                break;
            case 11:
                keep(client->get_connection_queue(
                    [done](auto const&, auto const& ec) { done(ec); }));
                break;
            case 12:
                // Read everything the client shows.
                (void)read->get_state();
                (void)read->get_mtu();
                (void)read->get_direction();
                (void)read->get_close_reason();
                (void)client->get_connection_max_cnt();
                (void)client->get_free_reservation_cnt();
                (void)client->get_address();
                break;
            case 13:
                // The application lets go of the object, maybe mid-operation.
                slot.reset();
                break;
            case 14:
                // Released links call nothing.
                release();
                break;
            default:
                keep(client->reset([](std::error_code const&) {}));
                break;
        }
    }

    void release() {
        for (auto& link : links) {
            link.release();
        }
        links.clear();
    }

    void clear() {
        release();
        advertisers.clear();
        gatt.clear();
        for (auto& slot : conns) {
            slot.reset();
        }
        for (auto& conn : announced) {
            conn.reset();
        }
    }

private:
    static bt_ctrl::address peer(unsigned which) {
        return {
            (which & 1) ? bt_ctrl::addr_type::random_address : bt_ctrl::addr_type::public_address,
            utils::mac_address((which & 2) ? "C2:BB:CC:DD:EE:02" : "AA:BB:CC:DD:EE:01")};
    }

    // One of the client's reservations, or none.
    reservation_ptr some_reservation(unsigned which) const {
        auto const& all = client->get_reservations();
        if (which == 0 || all.empty()) {
            return nullptr;
        }
        auto found = all.begin();
        std::advance(found, which % all.size());
        return *found;
    }

    // Kept, so that a later call can release them all; past 64 a link is
    // let go, and its completion still runs.
    void keep(utils::link link) {
        if (links.size() < 64) {
            links.push_back(std::move(link));
        }
    }

    std::shared_ptr<bt_ctrl> client;
    fuzzing::client_advertisers advertisers;
    fuzzing::client_gatt gatt;
    conn_ptr conns[max_connections];
    const_conn announced[max_connections];
    std::size_t announced_count = 0;
    std::vector<utils::link> links;
};

}  // namespace

int fuzz_client(std::uint8_t const* data, std::size_t size) {
    auto const loop = adapters::test_loop::create();
    utils::ip_address const host{"127.0.0.1"};
    auto controller = std::make_unique<scripted_controller>(loop, host);

    std::array<unsigned char, 16> const id = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                                              0x88, 0x99, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff};
    auto client = create_bt_ctrl(loop, id, host, port);
    auto const log = client->set_log_handler(
        [](bt_ctrl::log_level, std::string const& line) { require(!line.empty()); }, "");
    auto const contained = client->set_exception_handler([](std::string const&) {});
    auto app = std::make_unique<application>(client);
    client->enable(
        [](std::shared_ptr<bt_ctrl::handshake_ctx> const& context, std::error_code const& ec) {
            if (context && !ec) {
                context->finish("hci0", [](std::string const&, std::error_code const&) {});
            }
        });
    settle(*loop);
    require(client->get_state() == bt_ctrl::state::enabled);
    controller->auto_sync = false;

    reader input(data, size);
    while (!input.done()) {
        auto const kind = input.byte() % 5;
        switch (kind) {
            case 0:
            case 2: {
                std::string const name = names[input.byte() % name_count];
                auto body = input.bytes(input.length());
                auto const format = body.empty() ? stravik_part_payload::format::none
                                                 : stravik_part_payload::format::json;
                quorl_utils::payload payload(std::move(body), format);
                if (kind == 2) {
                    controller->event(name, payload);
                } else if (auto const reply = controller->take(name)) {
                    reply->reply(payload);
                }
                break;
            }
            case 1: {
                std::string const name = names[input.byte() % name_count];
                auto const code = static_cast<int>(input.byte());
                if (auto const reply = controller->take(name)) {
                    reply->fail(code);
                }
                break;
            }
            case 3: {
                auto const operation = input.byte();
                app->call(operation, input.byte());
                break;
            }
            default:
                settle(*loop, std::chrono::seconds(input.byte() % 64));
                break;
        }
        settle(*loop);
    }

    // The controller goes away; one that answers everything takes the
    // reconnect, whatever state the input left behind.
    controller->drop();
    settle(*loop);
    {
        sim::controller simulator(loop, sim::config::builtin());
        auto listening = loop->listen(host, port, simulator.accept_handler());
        settle(*loop, 31s);
        require(client->get_state() == bt_ctrl::state::enabled);

        // Everything goes; nothing is left to run.
        app->clear();
        app.reset();
        client.reset();
        controller.reset();
        settle(*loop, 1s);
        listening.release();
    }
    settle(*loop, 1s);
    require(loop->idle() && loop->running_timers() == 0);
    return 0;
}
