// Mode 's': one client's bytes, whatever they are, to a whole simulator
// session over the in-memory network: frames, requests and bodies alike.
//
// The first byte paces the client: its low bits give the size of the chunks
// it sends, one chunk per turn, and its high bit has it stall four virtual
// seconds after each chunk, so that the idle and half-frame timeouts fire in
// the middle of the stream. Checked beyond "no crash, no sanitizer report":
// the controller holds one session at most and no more logged requests than
// its bound; its log lines stay short whatever the bytes; the session ends
// with its connection; and the controller still answers the next client's
// handshake.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "modes.hpp"
#include "tavrin/adapters/test_loop.hpp"
#include "tavrin/sim/config.hpp"
#include "tavrin/sim/controller.hpp"
#include "tavrin/utils/ip_address.hpp"

namespace {

using namespace zelvo::tavrin;
using namespace std::chrono_literals;

constexpr unsigned short port = 7400;
constexpr std::size_t log_bound = 16 * 1024;

void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

// A request frame for "hdshkStart" with the body {}.
std::vector<unsigned char> handshake_start() {
    std::string const name = "hdshkStart";
    std::vector<unsigned char> frame = {
        0x51, 4, 1, 2, 0, 0, 0, 1, 0, 0, 0, static_cast<unsigned char>(name.size()),
        0,    0, 0, 0, 0, 0, 0, 2};
    frame.insert(frame.end(), name.begin(), name.end());
    frame.push_back('{');
    frame.push_back('}');
    return frame;
}

void check_log(sim::controller const& controller) {
    std::size_t bytes = 0;
    for (auto const& request : controller.requests()) {
        bytes += request.size;
    }
    require(bytes <= log_bound);
}

}  // namespace

int fuzz_sim_session(std::uint8_t const* data, std::size_t size) {
    if (size == 0) {
        return -1;
    }
    std::size_t const chunk = (data[0] & 0x7f) + 1;
    bool const stall = (data[0] & 0x80) != 0;
    ++data;
    --size;

    auto const loop = adapters::test_loop::create();
    utils::ip_address const host{"127.0.0.1"};
    sim::controller controller(loop, sim::config::builtin());
    controller.keep_request_log(log_bound);
    controller.set_log_handler(
        [](std::string const& line) { require(!line.empty() && line.size() <= 300); }, true);
    auto const listening = loop->listen(host, port, controller.accept_handler());

    auto const client = loop->create_tcp_connection();
    client->set_receive_handler([](std::vector<unsigned char> const&) {});
    client->connect(host, port);
    loop->run();
    for (std::size_t offset = 0; offset < size; offset += chunk) {
        std::size_t const length = std::min(chunk, size - offset);
        client->send({data + offset, data + offset + length});
        loop->run();
        require(controller.session_count() <= 1);
        if (stall) {
            loop->advance(4s);
        }
    }
    loop->advance(1s);
    check_log(controller);
    client->close();
    loop->run();
    require(controller.session_count() == 0);

    // Whatever the first client did, the next one is served.
    std::vector<unsigned char> reply;
    auto const next = loop->create_tcp_connection();
    next->set_receive_handler([&reply](std::vector<unsigned char> const& bytes) {
        reply.insert(reply.end(), bytes.begin(), bytes.end());
    });
    next->connect(host, port);
    loop->run();
    next->send(handshake_start());
    loop->run();
    // A response (kind 2) to request 1 with no error (space 0).
    require(reply.size() > 20 && reply[0] == 0x51 && reply[2] == 2 && reply[7] == 1 &&
            reply[8] == 0);
    return 0;
}
