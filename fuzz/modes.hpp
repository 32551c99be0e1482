// The fuzz target's modes. The first byte of an input names its mode; each
// mode gets the rest. A mode returns 0, or -1 for an input it cannot use
// (libFuzzer then keeps it out of the corpus). Any property a mode checks
// fails by abort(), so that libFuzzer reports the input.
#pragma once

#include <cstddef>
#include <cstdint>

// 'f': the bus's frame decoder and both bus endpoints.
int fuzz_frames(std::uint8_t const* data, std::size_t size);
// 's': one client's bytes to a whole simulator session.
int fuzz_sim_session(std::uint8_t const* data, std::size_t size);
// 'c': an enabled client fed a controller's replies and events, then a
// clean reconnect.
int fuzz_client(std::uint8_t const* data, std::size_t size);
