// Scanning, which the library doesn't offer: each operation throws
// logic_error "Not implemented" before doing anything, in every state.
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

}  // namespace zelvo::tavrin::impl
