#include "frame_reader.hpp"

namespace zelvo::quorl_detail {

void frame_reader::append(unsigned char const* data, std::size_t size) {
    // Drop what was taken once it is at least half the buffer, so that the
    // buffer stays within twice what is held and the move is amortised.
    if (start > 0 && (start == bytes.size() || start >= bytes.size() / 2)) {
        compact();
    }
    bytes.insert(bytes.end(), data, data + size);
}

frame_reader::result frame_reader::peek(std::size_t max_message, frame_view& frame) const {
    if (buffered() < frame_header_size) {
        return result::incomplete;
    }
    unsigned char const* const header = bytes.data() + start;
    switch (check_header(header, max_message, frame)) {
        case header_check::malformed:
            return result::malformed;
        case header_check::too_large:
            return result::too_large;
        case header_check::valid:
            break;
    }
    if (buffered() < frame.total_size) {
        return result::incomplete;
    }
    frame.name = header + frame_header_size;
    frame.payload = frame.name + frame.name_size;
    return result::frame;
}

void frame_reader::compact() {
    bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(start));
    start = 0;
}

void frame_reader::clear() {
    bytes.clear();
    start = 0;
}

}  // namespace zelvo::quorl_detail
