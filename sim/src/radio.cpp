#include "tavrin/sim/radio.hpp"

namespace zelvo::tavrin::sim {

radio::~radio() = default;

std::optional<bt_ctrl::capabilities> radio::capabilities(std::string const& name) const {
    for (auto const& description : interfaces()) {
        if (description.name == name) {
            return description.caps;
        }
    }
    return std::nullopt;
}

}  // namespace zelvo::tavrin::sim
