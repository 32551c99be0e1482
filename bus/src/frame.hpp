// The frame: the unit of the bus's byte stream. Layout, fields and rules are
// those of docs/bus-protocol.md; this file is their one home in code.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "stravik/part_payload.hpp"

namespace zelvo::quorl_detail {

constexpr unsigned char frame_magic = 0x51;  // 'Q'
constexpr unsigned char frame_version = 4;
constexpr std::size_t frame_header_size = 20;

enum class frame_kind : unsigned char { request = 1, response = 2, event = 3, error = 4 };

// Which code space a response's status code belongs to.
enum class status_space : unsigned char { none = 0, application = 1, exchange = 2 };

// A decoded frame. name and payload point into the reader's buffer and are
// valid until the reader is next changed.
struct frame_view {
    frame_kind kind = frame_kind::request;
    stravik_part_payload::format format = stravik_part_payload::format::none;
    std::uint32_t id = 0;
    status_space space = status_space::none;
    std::int32_t code = 0;
    unsigned char const* name = nullptr;
    std::size_t name_size = 0;
    unsigned char const* payload = nullptr;
    std::size_t payload_size = 0;
    std::size_t total_size = 0;
};

// What a header says about the frame it starts.
enum class header_check { valid, malformed, too_large };

// Checks the 20 header bytes at `header` and fills every field of `frame`
// but the two pointers. too_large when the whole frame would exceed
// max_message bytes.
header_check check_header(unsigned char const* header, std::size_t max_message, frame_view& frame);

// Encodes one frame into `out`, replacing its content (its capacity is
// reused). Throws invalid_argument for a name longer than 65535 bytes; the
// other fields are the caller's to get right.
void encode_frame(std::vector<unsigned char>& out, frame_kind kind, std::uint32_t id,
                  status_space space, std::int32_t code, std::string const& name,
                  stravik_part_payload::format format, std::vector<unsigned char> const& payload);

}  // namespace zelvo::quorl_detail
