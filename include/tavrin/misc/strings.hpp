// String helpers of the wire code: case mapping of key words, trimming,
// splitting, fixed-size chunking and wall-clock time stamps. Pure functions;
// to_lower and to_upper follow the process locale.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "tavrin/export.hpp"

namespace zelvo::tavrin::misc {

TAVRIN_API std::string to_lower(std::string const& text);
TAVRIN_API std::string to_upper(std::string const& text);

// Removes the characters of `chars` from both ends of `text`.
TAVRIN_API std::string& trim(std::string& text, std::string const& chars);
TAVRIN_API std::string trim(std::string const& text, std::string const& chars);

// Cuts `text` at every occurrence of `delimiter`, matched as a whole. Empty
// fields are kept, including a last one after a trailing delimiter; an empty
// text gives no field at all. An empty delimiter throws invalid_argument.
TAVRIN_API std::vector<std::string> split(std::string const& text, std::string const& delimiter);

// Cuts `text` into pieces of exactly `size` characters; throws runtime_error
// "Chunk: Invalid string size" unless the length is a multiple of `size`.
TAVRIN_API std::vector<std::string> chunk(std::string const& text, unsigned size);

// Milliseconds since the system clock's epoch, truncated toward zero.
TAVRIN_API std::int64_t get_timestamp(std::chrono::system_clock::time_point const& time);

}  // namespace zelvo::tavrin::misc
