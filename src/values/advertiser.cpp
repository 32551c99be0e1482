#include "tavrin/bt_ctrl/advertiser.hpp"

#include <stdexcept>
#include <string>

#include "tavrin/misc/strings.hpp"
#include "values/enum_words.hpp"

namespace zelvo::tavrin {

namespace {

using advertiser = bt_ctrl::advertiser;
using impl::enum_word;

constexpr enum_word<advertiser::state> state_words[] = {
    {advertiser::state::stopped, "stopped"},   {advertiser::state::started, "started"},
    {advertiser::state::stopping, "stopping"}, {advertiser::state::starting, "starting"},
    {advertiser::state::pending, "pending"},
};

constexpr enum_word<advertiser::stop_reason> stop_reason_words[] = {
    {advertiser::stop_reason::unknown, "unknown"},
    {advertiser::stop_reason::user_requested, "userRequested"},
    {advertiser::stop_reason::connection_opened, "connectionOpened"},
    {advertiser::stop_reason::resource_rotation, "resourceRotation"},
    {advertiser::stop_reason::interface_unavailable, "interfaceUnavailable"},
};

}  // namespace

bt_ctrl::advertiser::~advertiser() = default;

std::string bt_ctrl::advertiser::to_string(state value) {
    return impl::word_of(state_words, value, "unknown advertiser state");
}

std::string bt_ctrl::advertiser::to_string(stop_reason value) {
    return impl::word_of(stop_reason_words, value, "unknown advertiser stop reason");
}

bt_ctrl::advertiser::state bt_ctrl::advertiser::to_state(std::string const& text) {
    if (auto const value = impl::value_of(state_words, misc::to_lower(text))) {
        return *value;
    }
    throw std::logic_error("unknown advertiser state str");
}

bt_ctrl::advertiser::stop_reason bt_ctrl::advertiser::to_stop_reason(std::string const& text) {
    return impl::value_of(stop_reason_words, text).value_or(stop_reason::unknown);
}

}  // namespace zelvo::tavrin
