#include "tavrin/bt_ctrl/interface.hpp"

#include "tavrin/bt_ctrl/handshake_ctx.hpp"

#include <stdexcept>
#include <string>

#include "tavrin/misc/strings.hpp"
#include "values/enum_words.hpp"

namespace zelvo::tavrin {

namespace {

using impl::enum_word;

constexpr enum_word<bt_ctrl::phy> phy_words[] = {
    {bt_ctrl::phy::unknown, "unknown"},
    {bt_ctrl::phy::coded, "coded"},
    {bt_ctrl::phy::m1, "1m"},
    {bt_ctrl::phy::m2, "2m"},
};

constexpr enum_word<bt_ctrl::addr_type> addr_type_words[] = {
    {bt_ctrl::addr_type::unknown, "unknown"},
    {bt_ctrl::addr_type::public_address, "public"},
    {bt_ctrl::addr_type::random_address, "random"},
};

constexpr enum_word<bt_ctrl::state> state_words[] = {
    {bt_ctrl::state::rebooting, "rebooting"},
    {bt_ctrl::state::disabled, "disabled"},
    {bt_ctrl::state::enabled, "enabled"},
};

}  // namespace

bt_ctrl::~bt_ctrl() = default;

bt_ctrl::handshake_ctx::~handshake_ctx() = default;

std::string bt_ctrl::to_string(phy value) {
    return impl::word_of(phy_words, value, "unknown bt phy");
}

std::string bt_ctrl::to_string(addr_type value) {
    return impl::word_of(addr_type_words, value, "unknown bt address type");
}

std::string bt_ctrl::to_string(state value) {
    return impl::word_of(state_words, value, "unknown BT ctrl state");
}

bt_ctrl::phy bt_ctrl::to_phy(std::string const& text) {
    auto const word = misc::to_lower(text);
    // Accepted for the controller's sake, never written.
    if (word == "m1") {
        return phy::m1;
    }
    if (word == "m2") {
        return phy::m2;
    }
    return impl::value_of(phy_words, word).value_or(phy::unknown);
}

bt_ctrl::addr_type bt_ctrl::to_addr_type(std::string const& text) {
    return impl::value_of(addr_type_words, misc::to_lower(text)).value_or(addr_type::unknown);
}

bt_ctrl::state bt_ctrl::to_state(std::string const& text) {
    if (auto const value = impl::value_of(state_words, misc::to_lower(text))) {
        return *value;
    }
    throw std::logic_error("unknown BT ctrl state str");
}

bool bt_ctrl::is_connectable(scan_packet_type type) {
    return type == scan_packet_type::adv_ind || type == scan_packet_type::adv_direct_ind;
}

bool bt_ctrl::is_scannable(scan_packet_type type) {
    return type == scan_packet_type::adv_ind || type == scan_packet_type::adv_scan_ind;
}

}  // namespace zelvo::tavrin
