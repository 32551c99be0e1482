// The client's two outlets: log lines with a fixed prefix, and the exception
// handler that hears of application handlers that threw.
#include <memory>
#include <string>

#include "client/bt_ctrl.hpp"
#include "tavrin/misc/create_link.hpp"

namespace zelvo::tavrin::impl {

utils::link bt_ctrl::set_log_handler(
    std::function<void(log_level, std::string const&)> const& handler, std::string const& name) {
    log_prefix = "tavrin: ";
    if (!name.empty()) {
        log_prefix += name + ": ";
    }
    log_handler = std::make_shared<std::function<void(log_level, std::string const&)>>(
        make_exception_wrapper(handler, "Failed log handler"));
    return misc::create_link(log_handler, [this] { log_handler.reset(); });
}

utils::link bt_ctrl::set_exception_handler(std::function<void(std::string const&)> const& handler) {
    exception_handler = std::make_shared<std::function<void(std::string const&)>>(handler);
    return misc::create_link(exception_handler, [this] { exception_handler.reset(); });
}

void bt_ctrl::handle_exception(std::string const& text) const {
    if (!exception_handler || !*exception_handler) {
        return;
    }
    // A copy: the handler may replace or release itself while it runs.
    auto const handler = *exception_handler;
    handler(text);
}

bt_ctrl::log bt_ctrl::log_debug() const {
    return log(*this, log_level::debug);
}

bt_ctrl::log bt_ctrl::log_info() const {
    return log(*this, log_level::info);
}

bt_ctrl::log bt_ctrl::log_warning() const {
    return log(*this, log_level::warning);
}

bt_ctrl::log bt_ctrl::log_error() const {
    return log(*this, log_level::error);
}

bt_ctrl::log::log(bt_ctrl const& ctrl, log_level level) : ctrl(ctrl), level(level) {}

bt_ctrl::log::log(log&& source)
    : ctrl(source.ctrl), level(source.level), text(std::move(source.text)) {
    // Only the last holder delivers.
    source.text.str("");
}

bt_ctrl::log::~log() {
    if (!ctrl.log_handler) {
        return;
    }
    auto line = text.str();
    if (line.empty()) {
        return;
    }
    // A copy of the function, as for exceptions: the handler may release
    // its link (which must then find no other owner) or destroy the client.
    auto const handler = *ctrl.log_handler;
    handler(level, ctrl.log_prefix + line);
}

}  // namespace zelvo::tavrin::impl
