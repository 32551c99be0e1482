#include "tavrin/bt_ctrl/connection.hpp"

#include <stdexcept>
#include <string>

#include "tavrin/bt_ctrl/connection_gatts.hpp"
#include "tavrin/misc/strings.hpp"
#include "values/enum_words.hpp"

namespace zelvo::tavrin {

namespace {

using connection = bt_ctrl::connection;
using impl::enum_word;

constexpr enum_word<connection::state> state_words[] = {
    {connection::state::closed, "closed"},   {connection::state::opened, "opened"},
    {connection::state::closing, "closing"}, {connection::state::opening, "opening"},
    {connection::state::pending, "pending"},
};

constexpr enum_word<connection::direction> direction_words[] = {
    {connection::direction::unknown, "unknown"},
    {connection::direction::outgoing, "outgoing"},
    {connection::direction::incoming, "incoming"},
};

constexpr enum_word<connection::close_reason> close_reason_words[] = {
    {connection::close_reason::unknown, "unknown"},
    {connection::close_reason::user_requested, "userRequested"},
    {connection::close_reason::resource_rotation, "resourceRotation"},
    {connection::close_reason::interface_unavailable, "interfaceUnavailable"},
};

}  // namespace

bt_ctrl::connection::~connection() = default;
bt_ctrl::connection::gatts::~gatts() = default;
bt_ctrl::connection::gattc::~gattc() = default;

std::string bt_ctrl::connection::to_string(state value) {
    return impl::word_of(state_words, value, "unknown connection state");
}

std::string bt_ctrl::connection::to_string(direction value) {
    return impl::word_of(direction_words, value, "unknown connection direction");
}

std::string bt_ctrl::connection::to_string(close_reason value) {
    return impl::word_of(close_reason_words, value, "unknown connection close reason");
}

bt_ctrl::connection::state bt_ctrl::connection::to_state(std::string const& text) {
    if (auto const value = impl::value_of(state_words, misc::to_lower(text))) {
        return *value;
    }
    throw std::logic_error("unknown connection state str");
}

bt_ctrl::connection::direction bt_ctrl::connection::to_direction(std::string const& text) {
    return impl::value_of(direction_words, text).value_or(direction::unknown);
}

bt_ctrl::connection::close_reason bt_ctrl::connection::to_close_reason(std::string const& text) {
    return impl::value_of(close_reason_words, text).value_or(close_reason::unknown);
}

}  // namespace zelvo::tavrin
