// The words of error::gatt_proto on the wire: the status of an answer to a
// peer's read or write. One table serves the client, which sends them, and
// the simulated controller, which reads them.
#pragma once

#include <optional>
#include <string>

#include "tavrin/error.hpp"

namespace zelvo::tavrin::impl {

// Throws logic_error "Unknown GATT proto error" for a value above `unknown`.
std::string to_word(error::gatt_proto status);
// The status of exactly that word, if any.
std::optional<error::gatt_proto> gatt_proto_of(std::string const& word);

}  // namespace zelvo::tavrin::impl
