// The GATT database file of `tavrin serve`: services, their characteristics
// and descriptors, with the values they start with. The format is in
// docs/gatt-file.md. Reading checks everything that the controller would
// otherwise refuse half-way through building, and names the bad entry by its
// path ("services[1].characteristics[0].uuid") or, for broken JSON, by line
// and column.
#pragma once

#include <cstddef>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "tavrin/gatt/attribute_permission.hpp"
#include "tavrin/gatt/characteristic.hpp"
#include "tavrin/gatt/uuid.hpp"

namespace zelvo::tavrin::cli {

// The client characteristic configuration descriptor: a peer subscribes by
// writing it. Its value belongs to each connection, not to the file.
extern gatt::uuid const cccd_uuid;

// A value longer than this is refused, in the file and from peers: the
// attribute protocol's limit of an attribute value.
constexpr std::size_t max_value_size = 512;

struct gatt_file {
    struct descriptor {
        gatt::uuid uuid;
        std::set<gatt::attribute_permission> permissions;
        std::vector<unsigned char> value;
    };
    struct characteristic {
        gatt::uuid uuid;
        std::set<gatt::characteristic::property> properties;
        std::set<gatt::attribute_permission> permissions;
        std::vector<unsigned char> value;
        std::vector<descriptor> descriptors;
    };
    struct service {
        gatt::uuid uuid;
        // A secondary service is included by at least one other service.
        bool primary = true;
        // Positions in `services` of the services that this one includes.
        std::vector<std::size_t> includes;
        std::vector<characteristic> characteristics;
    };
    std::vector<service> services;
};

// What is wrong with a file, as one line for the user.
class gatt_file_error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Reads a description from JSON text. Throws gatt_file_error "PATH: PROBLEM"
// or "line L, column C: PROBLEM".
gatt_file parse_gatt_file(std::string const& text);

// Reads the file at `path`; the error's text starts with the file's name.
gatt_file load_gatt_file(std::string const& path);

// The 16-bit UUIDs of the primary services, in file order and without
// repeats, for advertising.
std::vector<unsigned short> advertised_uuids(gatt_file const& file);

}  // namespace zelvo::tavrin::cli
