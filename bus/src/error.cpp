#include "quorl/error.hpp"

#include <stdexcept>

namespace zelvo::quorl_utils {

char const* describe(local_error value) {
    switch (value) {
        case local_error::malformed_frame:
            return "malformed frame";
        case local_error::message_too_large:
            return "message too large";
        case local_error::buffer_overflow:
            return "receive buffer overflow";
        case local_error::write_refused:
            return "writer refused the bytes";
        case local_error::truncated_stream:
            return "stream ended inside a frame";
    }
    return "unknown local error";
}

char const* describe(remote_error value) {
    switch (value) {
        case remote_error::malformed_frame:
            return "peer received a malformed frame";
        case remote_error::message_too_large:
            return "peer received a message too large";
        case remote_error::buffer_overflow:
            return "peer receive buffer overflow";
    }
    return "unknown remote error";
}

char const* describe(exchange_error value) {
    switch (value) {
        case exchange_error::aborted:
            return "aborted";
        case exchange_error::timed_out:
            return "reply timed out";
        case exchange_error::not_sent:
            return "request not sent";
        case exchange_error::unknown_request:
            return "unknown request";
        case exchange_error::unanswered:
            return "request left unanswered";
    }
    return "unknown exchange error";
}

char const* describe(app_error) {
    return "application error";
}

error::error() : space(&typeid(app_error)) {}

error::error(int code, std::type_info const& type, std::string text)
    : has_code(true), number(code), message(std::move(text)), space(&type) {}

int error::code() const {
    if (!has_code) {
        throw std::runtime_error("bad_optional_access");
    }
    return number;
}

}  // namespace zelvo::quorl_utils
