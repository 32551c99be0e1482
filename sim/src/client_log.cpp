#include "client_log.hpp"

#include <chrono>
#include <utility>

namespace zelvo::tavrin::sim {

client_log::client_log(std::shared_ptr<utils::event_loop> loop) : loop(std::move(loop)) {}

client_log::~client_log() {
    if (window) {
        window->stop();
    }
}

void client_log::set_handler(handler handler, bool verbose) {
    sink = handler ? std::make_shared<client_log::handler const>(std::move(handler)) : nullptr;
    chatty = verbose;
}

void client_log::dropped(std::string const& line) {
    if (!window_open) {
        if (!window) {
            window = loop->create_timer();
            // The timer belongs to this object and stops with it, so the
            // handler never outlives what it touches.
            window->set_handler([this] { end_window(); });
        }
        window_open = true;
        in_window = 0;
        window->start(std::chrono::seconds(1));
    }
    if (in_window < burst) {
        ++in_window;
        write(line);
    } else {
        ++suppressed;
    }
}

void client_log::verbose(std::string const& line) {
    if (chatty) {
        write(line);
    }
}

void client_log::end_window() {
    window_open = false;
    if (suppressed > 0) {
        auto const count = std::exchange(suppressed, 0);
        write("dropped " + std::to_string(count) + " more client" + (count == 1 ? "" : "s") +
              " in the last second (not shown)");
    }
}

void client_log::write(std::string const& line) const {
    if (auto const target = sink) {  // a copy: it may replace itself
        (*target)(line);
    }
}

}  // namespace zelvo::tavrin::sim
