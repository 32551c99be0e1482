// The model's GATT server databases, one per interface.
#include "model.hpp"

namespace zelvo::tavrin::sim {

gatt_database& model::database(std::string const& interface) {
    return databases[interface];
}

gatt_database const* model::find_database(std::string const& interface) const {
    auto const found = databases.find(interface);
    return found == databases.end() ? nullptr : &found->second;
}

void model::database_changed(std::string const& interface, std::set<unsigned> const& handles) {
    if (!handles.empty()) {
        emit(interface, "gattsDbUpdated", nlohmann::json{{"handles", handles}});
    }
}

}  // namespace zelvo::tavrin::sim
