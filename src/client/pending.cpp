// Operations whose behaviour has not arrived yet: each throws logic_error
// "Not implemented" before doing anything, in every state. Scanning stays
// this way for good.
#include <stdexcept>

#include "client/bt_ctrl.hpp"

namespace zelvo::tavrin::impl {

namespace {

[[noreturn]] void not_implemented() {
    throw std::logic_error("Not implemented");
}

}  // namespace

utils::link bt_ctrl::start_scan(std::set<phy> const&, bool, result_handler const&) {
    not_implemented();
}

utils::link bt_ctrl::stop_scan(result_handler const&) {
    not_implemented();
}

utils::link bt_ctrl::notify_on_scan_result(std::function<void(scan_result const&)> const&) const {
    not_implemented();
}

utils::link bt_ctrl::notify_on_scan_stopped(std::function<void()> const&) const {
    not_implemented();
}

std::shared_ptr<tavrin::bt_ctrl::advertiser> bt_ctrl::create_advertiser() {
    not_implemented();
}

utils::link bt_ctrl::get_advertiser_queue(
    std::function<void(advertiser_queue const&, std::error_code const&)> const&) const {
    not_implemented();
}

utils::link bt_ctrl::notify_on_advertiser_queue_changed(
    std::function<void(advertiser_queue const&)> const&) const {
    not_implemented();
}

utils::link bt_ctrl::notify_on_new_advertiser(
    std::function<void(std::shared_ptr<tavrin::bt_ctrl::advertiser const> const&)> const&) const {
    not_implemented();
}

}  // namespace zelvo::tavrin::impl
