// Builds the database of a GATT file at the controller, through the
// client's bt_ctrl::gatts editing, one request at a time, and checks the
// outcome with a sync. The controller hands out the handles; the layout
// records them, with the values each attribute starts with.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "gatt_file.hpp"
#include "tavrin/bt_ctrl/gatts.hpp"
#include "tavrin/utils/link.hpp"

namespace zelvo::tavrin::cli {

// The attributes of a built database by controller handle.
struct gatt_layout {
    struct attribute {
        bool is_characteristic = false;
        gatt::uuid uuid;
        std::set<gatt::characteristic::property> properties;
        std::set<gatt::attribute_permission> permissions;
        // The value the file gives.
        std::vector<unsigned char> value;
        // A characteristic's service; a descriptor's characteristic.
        unsigned int owner = 0;
        // A characteristic's 2902 descriptor, 0 if it has none.
        unsigned int cccd = 0;
    };
    std::map<unsigned int, attribute> attributes;
    // The handles of the file's services, in file order.
    std::vector<unsigned int> services;

    attribute const* find(unsigned int handle) const;
    // The handle of the first characteristic with this UUID, 0 if none.
    unsigned int find_characteristic(gatt::uuid const& uuid) const;
};

// One build; the object must outlive it, and dropping it abandons the rest.
class gatt_builder {
public:
    using say_type = std::function<void(std::string const&)>;
    // An empty text on success, else what failed.
    using done_type = std::function<void(std::string const&)>;

    gatt_builder(bt_ctrl::gatts& server, gatt_file file, say_type say, done_type done);
    gatt_builder(gatt_builder const&) = delete;
    gatt_builder& operator=(gatt_builder const&) = delete;

    // Adds the services (disabled), their inclusions, characteristics and
    // descriptors, enables the services, and syncs the mirror to compare it
    // with the file. `say` hears what the check could not look at, and
    // services at the controller that the file does not describe.
    void start();

    gatt_layout const& layout() const { return built; }

private:
    using step = std::function<void()>;

    void plan();
    void next();
    void fail(std::string const& what, std::error_code const& ec);
    std::function<void(unsigned int, std::error_code const&)> adding(std::string what,
                                                                     std::function<void(unsigned)>);
    std::function<void(std::error_code const&)> doing(std::string what);
    void check_mirror();

    bt_ctrl::gatts& server;
    gatt_file file;
    say_type say;
    done_type done;
    gatt_layout built;
    std::vector<step> steps;
    std::size_t at = 0;
    // The controller's handles of the file's characteristics, by service and
    // position.
    std::vector<std::vector<unsigned int>> characteristics;
    utils::scoped_link pending;
};

}  // namespace zelvo::tavrin::cli
