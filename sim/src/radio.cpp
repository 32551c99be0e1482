#include "tavrin/sim/radio.hpp"

namespace zelvo::tavrin::sim {

radio::~radio() = default;

std::optional<bt_ctrl::capabilities> radio::capabilities(std::string const& name) const {
    if (auto const* kept = find_capabilities(name)) {
        return *kept;
    }
    for (auto const& description : interfaces()) {
        if (description.name == name) {
            return description.caps;
        }
    }
    return std::nullopt;
}

bt_ctrl::capabilities const* radio::find_capabilities(std::string const&) const {
    return nullptr;
}

}  // namespace zelvo::tavrin::sim
