#include "tavrin/bt_ctrl/reservation.hpp"

#include <stdexcept>
#include <string>

#include "tavrin/misc/strings.hpp"
#include "values/enum_words.hpp"

namespace zelvo::tavrin {

namespace {

constexpr impl::enum_word<bt_ctrl::reservation::type> reservation_type_words[] = {
    {bt_ctrl::reservation::type::connection, "connection"},
    {bt_ctrl::reservation::type::advertiser, "advertiser"},
};

}  // namespace

bt_ctrl::reservation::~reservation() = default;

std::string bt_ctrl::to_string(reservation::type value) {
    return impl::word_of(reservation_type_words, value, "unknown reservation type");
}

bt_ctrl::reservation::type bt_ctrl::to_reservation_type(std::string const& text) {
    if (auto const value = impl::value_of(reservation_type_words, misc::to_lower(text))) {
        return *value;
    }
    throw std::logic_error("unknown reservation type [" + text + "]");
}

}  // namespace zelvo::tavrin
