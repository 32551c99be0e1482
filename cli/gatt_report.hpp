// GATT for people: UUIDs, values and a built database as readable text.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "gatt_builder.hpp"
#include "tavrin/gatt/uuid.hpp"

namespace zelvo::tavrin::cli {

// "2a19", or the 36-character form of a UUID outside the Bluetooth base.
std::string uuid_text(gatt::uuid const& uuid);

// "64", "68690A", with the text in quotes after it when there are two bytes
// or more and every one is printable ASCII: "6869 \"hi\""; "(empty)" for no
// bytes.
std::string value_text(std::vector<unsigned char> const& value);

// The database as a tree, one line per attribute, each line starting with
// `indent`:
//   service 180f [1]
//     characteristic 2a19 [2] read notify, value 64
//       descriptor 2902 [3] read write
void print_layout(std::ostream& out, gatt_layout const& layout, gatt_file const& file,
                  std::string const& indent);

}  // namespace zelvo::tavrin::cli
