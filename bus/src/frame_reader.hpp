// frame_reader: reassembles frames from a byte stream delivered in chunks of
// any size. It holds the bytes not yet taken; a frame is taken only when all
// of its bytes are there, so a split anywhere, down to single bytes, and any
// coalescing of frames read the same.
#pragma once

#include <cstddef>
#include <vector>

#include "frame.hpp"

namespace zelvo::quorl_detail {

class frame_reader {
public:
    enum class result { frame, incomplete, malformed, too_large };

    void append(unsigned char const* bytes, std::size_t size);

    // Looks at the next frame without taking it. On result::frame, `frame`
    // points into the buffer until the next append() or take().
    result peek(std::size_t max_message, frame_view& frame) const;
    // Takes the frame that peek() returned. Its bytes stay in place, so a
    // view stays readable, until the next append() or compact().
    void take(frame_view const& frame) { start += frame.total_size; }
    // Frees the bytes taken so far.
    void compact();

    // Bytes held that no frame has taken.
    std::size_t buffered() const { return bytes.size() - start; }
    void clear();

private:
    std::vector<unsigned char> bytes;
    std::size_t start = 0;  // first byte not taken
};

}  // namespace zelvo::quorl_detail
