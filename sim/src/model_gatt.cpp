// The model's GATT server databases, one per interface.
#include "model.hpp"

namespace zelvo::tavrin::sim {

gatt_database& model::database(std::string const& interface) {
    return databases[interface];
}

void model::database_changed(std::string const& interface, std::set<unsigned> const& handles) {
    if (!handles.empty()) {
        emit(interface, "gattsDbUpdated", nlohmann::json{{"handles", handles}});
    }
}

}  // namespace zelvo::tavrin::sim
