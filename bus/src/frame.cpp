#include "frame.hpp"

#include <cstring>
#include <stdexcept>

namespace zelvo::quorl_detail {

namespace {

std::uint32_t read32(unsigned char const* at) {
    return std::uint32_t(at[0]) << 24 | std::uint32_t(at[1]) << 16 | std::uint32_t(at[2]) << 8 |
           std::uint32_t(at[3]);
}

void write32(unsigned char* at, std::uint32_t value) {
    at[0] = static_cast<unsigned char>(value >> 24);
    at[1] = static_cast<unsigned char>(value >> 16);
    at[2] = static_cast<unsigned char>(value >> 8);
    at[3] = static_cast<unsigned char>(value);
}

// The per-kind rules: which fields a kind may use.
bool fields_fit_kind(frame_view const& frame) {
    bool const no_status = frame.space == status_space::none && frame.code == 0;
    switch (frame.kind) {
        case frame_kind::request:
            return no_status && frame.name_size > 0;
        case frame_kind::response:
            // Of the exchange codes, only those an answering end sends may
            // come over the wire: aborted and the other local outcomes can't.
            return frame.id != 0 && frame.name_size == 0 &&
                   (frame.space == status_space::none
                        ? frame.code == 0
                        : frame.payload_size == 0 &&
                              frame.format == stravik_part_payload::format::none &&
                              (frame.space == status_space::application || frame.code == 4 ||
                               frame.code == 5));
        case frame_kind::event:
            return no_status && frame.id == 0 && frame.name_size > 0;
        case frame_kind::error:
            return frame.id == 0 && frame.space == status_space::none && frame.name_size == 0 &&
                   frame.payload_size == 0 && frame.format == stravik_part_payload::format::none &&
                   frame.code >= 0 && frame.code <= 2;
    }
    return false;
}

}  // namespace

header_check check_header(unsigned char const* header, std::size_t max_message, frame_view& frame) {
    if (header[0] != frame_magic || header[1] != frame_version || header[2] < 1 || header[2] > 4 ||
        header[3] > 2 || header[8] > 2 || header[9] != 0) {
        return header_check::malformed;
    }
    frame.kind = static_cast<frame_kind>(header[2]);
    frame.format = static_cast<stravik_part_payload::format>(header[3]);
    frame.id = read32(header + 4);
    frame.space = static_cast<status_space>(header[8]);
    frame.name_size = std::size_t(header[10]) << 8 | header[11];
    frame.code = static_cast<std::int32_t>(read32(header + 12));
    frame.payload_size = read32(header + 16);
    if (frame.format == stravik_part_payload::format::none && frame.payload_size != 0) {
        return header_check::malformed;
    }
    if (!fields_fit_kind(frame)) {
        return header_check::malformed;
    }
    // 64-bit sum: a 32-bit payload size plus the rest can't overflow it.
    std::uint64_t const total =
        std::uint64_t(frame_header_size) + frame.name_size + frame.payload_size;
    if (total > max_message) {
        return header_check::too_large;
    }
    frame.total_size = static_cast<std::size_t>(total);
    return header_check::valid;
}

void encode_frame(std::vector<unsigned char>& bytes, frame_kind kind, std::uint32_t id,
                  status_space space, std::int32_t code, std::string const& name,
                  stravik_part_payload::format format, std::vector<unsigned char> const& payload) {
    if (name.size() > 0xffff) {
        throw std::invalid_argument("quorl: name longer than 65535 bytes");
    }
    if (payload.size() > 0xffffffff) {
        throw std::invalid_argument("quorl: payload of 4 GiB or more");
    }
    unsigned char header[frame_header_size];
    header[0] = frame_magic;
    header[1] = frame_version;
    header[2] = static_cast<unsigned char>(kind);
    header[3] = static_cast<unsigned char>(format);
    write32(header + 4, id);
    header[8] = static_cast<unsigned char>(space);
    header[9] = 0;
    header[10] = static_cast<unsigned char>(name.size() >> 8);
    header[11] = static_cast<unsigned char>(name.size());
    write32(header + 12, static_cast<std::uint32_t>(code));
    write32(header + 16, static_cast<std::uint32_t>(payload.size()));

    bytes.resize(frame_header_size + name.size() + payload.size());
    std::memcpy(bytes.data(), header, frame_header_size);
    if (!name.empty()) {
        std::memcpy(bytes.data() + frame_header_size, name.data(), name.size());
    }
    if (!payload.empty()) {
        std::memcpy(bytes.data() + frame_header_size + name.size(), payload.data(), payload.size());
    }
}

}  // namespace zelvo::quorl_detail
