// Mode 'f': arbitrary bytes to the frame decoder and to both bus endpoints.
//
// Two properties are checked beyond "no crash, no sanitizer report":
// decoding the input in one chunk and in chunks of a size taken from the
// input gives the same frames and the same verdict; and every frame the
// reader hands out lies within the limit it was given.
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "frame_reader.hpp"
#include "modes.hpp"
#include "quorl/quorl.hpp"
#include "quorl/server.hpp"

namespace {

using zelvo::quorl_detail::frame_reader;
using zelvo::quorl_detail::frame_view;

constexpr std::size_t max_message = 4096;

using record = std::tuple<int, std::uint32_t, int, std::int32_t, std::string, std::string>;

struct decoded {
    std::vector<record> frames;
    frame_reader::result verdict = frame_reader::result::incomplete;
};

decoded decode(std::uint8_t const* data, std::size_t size, std::size_t chunk) {
    decoded out;
    frame_reader reader;
    for (std::size_t offset = 0; offset < size; offset += chunk) {
        reader.append(data + offset, std::min(chunk, size - offset));
        frame_view frame;
        while ((out.verdict = reader.peek(max_message, frame)) == frame_reader::result::frame) {
            if (frame.total_size > max_message) {
                std::abort();
            }
            out.frames.emplace_back(static_cast<int>(frame.kind), frame.id,
                                    static_cast<int>(frame.space), frame.code,
                                    std::string(frame.name, frame.name + frame.name_size),
                                    std::string(frame.payload, frame.payload + frame.payload_size));
            reader.take(frame);
        }
        if (out.verdict != frame_reader::result::incomplete) {
            break;
        }
    }
    return out;
}

// A loop that runs posted work when asked and fires timers on demand.
class fuzz_loop : public zelvo::quorl_utils::event_loop {
public:
    fuzz_loop() : event_loop(&post_hook_of, &timer_hook_of) {}

    void run() {
        while (!queue.empty()) {
            auto next = std::move(queue.front());
            queue.pop_front();
            try {
                next();
            } catch (...) {
            }
        }
    }

    void fire_timers() {
        for (auto& weak : timers) {
            if (auto timer = weak.lock(); timer && timer->running) {
                timer->running = false;
                try {
                    timer->handler();
                } catch (...) {
                }
            }
        }
        run();
    }

private:
    struct manual_timer : zelvo::quorl_utils::timer {
        void set_handler(std::function<void()> const& function) override { handler = function; }
        void start(std::chrono::seconds const&) override { running = true; }
        void stop() override { running = false; }
        std::function<void()> handler;
        bool running = false;
    };

    static void post_hook_of(event_loop& loop, std::function<void()> const& function) {
        static_cast<fuzz_loop&>(loop).queue.push_back(function);
    }
    static std::shared_ptr<zelvo::quorl_utils::timer> timer_hook_of(event_loop& loop) {
        auto timer = std::make_shared<manual_timer>();
        static_cast<fuzz_loop&>(loop).timers.push_back(timer);
        return timer;
    }

    std::deque<std::function<void()>> queue;
    std::vector<std::weak_ptr<manual_timer>> timers;
};

template <typename Endpoint>
void feed(Endpoint& endpoint, fuzz_loop& loop, std::uint8_t const* data, std::size_t size,
          std::size_t chunk) {
    for (std::size_t offset = 0; offset < size; offset += chunk) {
        std::size_t const length = std::min(chunk, size - offset);
        try {
            endpoint.receive({data + offset, data + offset + length}, offset + length == size, 4096,
                             2048);
        } catch (...) {
        }
        loop.run();
    }
}

}  // namespace

int fuzz_frames(std::uint8_t const* data, std::size_t size) {
    if (size == 0) {
        return -1;
    }
    std::size_t const chunk = data[0] % 31 + 1;
    ++data;
    --size;

    decoded const whole = decode(data, size, size == 0 ? 1 : size);
    decoded const pieces = decode(data, size, chunk);
    if (whole.frames != pieces.frames || whole.verdict != pieces.verdict) {
        std::abort();
    }

    auto loop = std::make_shared<fuzz_loop>();
    auto const writer = [](std::vector<unsigned char> const& bytes) {
        return bytes.size() % 7 != 0;
    };
    {
        zelvo::quorl client(loop, writer);
        zelvo::quorl_utils::payload const body({'{', '}'},
                                               zelvo::stravik_part_payload::format::json);
        for (int i = 0; i < 3; ++i) {
            client.send(
                {"req", body}, [](auto const&) { throw 1; }, true, std::chrono::seconds(1));
        }
        client.set_event_handler("e", [](auto const& event) {
            if (event->payload.size() % 2 == 1) {
                throw 2;
            }
        });
        client.set_reply_check_handler([](auto const& reply) { return reply->error.no_code(); });
        client.set_error_handler([](auto const&) {});
        feed(client, *loop, data, size, chunk);
        loop->fire_timers();
    }
    loop->run();
    {
        zelvo::quorl_server server(loop, writer);
        server.set_request_handler("req", [](auto const& request, auto const& responder) {
            responder.reply({std::vector<unsigned char>(request->payload),
                             zelvo::stravik_part_payload::format::raw});
        });
        server.set_fallback_handler([](auto const&, auto const& responder) { responder.fail(7); });
        feed(server, *loop, data, size, chunk);
    }
    loop->run();
    return 0;
}
