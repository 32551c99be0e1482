// Coverage-guided fuzzing entry point: dispatches on the input's first byte.
#include <cstddef>
#include <cstdint>

#include "modes.hpp"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size == 0) {
        return -1;
    }
    switch (data[0]) {
        case 'f':
            return fuzz_frames(data + 1, size - 1);
        case 's':
            return fuzz_sim_session(data + 1, size - 1);
        case 'c':
            return fuzz_client(data + 1, size - 1);
        default:
            return -1;
    }
}
