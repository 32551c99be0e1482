// quorl_utils::error and the code spaces of the bus.
//
// An error is a numeric code together with the enumeration it belongs to, so
// that code 1 of one space never equals code 1 of another. Four spaces exist:
//   local_error    faults this bus instance found in its own stream or writer;
//   remote_error   faults the peer found in what we sent, and told us about;
//   exchange_error faults of one request and its reply;
//   app_error      the codes with which the peer's application refuses a
//                  request. A default-made error carries this space.
// Every value is listed, with its meaning, in docs/bus-protocol.md.
#pragma once

#include <string>
#include <type_traits>
#include <typeinfo>

#include "quorl/export.hpp"

namespace zelvo::quorl_utils {

// Values 0, 1 and 2 are the faults after which the byte stream can no longer
// be trusted: the instance stops reading, and its owner should drop the link.
enum class local_error : int {
    malformed_frame = 0,
    message_too_large = 1,
    buffer_overflow = 2,
    write_refused = 3,     // the writer did not take the bytes of a frame
    truncated_stream = 4,  // the stream ended inside a frame
};

// What the peer reported through an error frame: the values of its own
// local_error for a stream fault in the bytes we sent.
enum class remote_error : int {
    malformed_frame = 0,
    message_too_large = 1,
    buffer_overflow = 2,
};

enum class exchange_error : int {
    aborted = 1,          // the instance ended before the reply; only this
    timed_out = 2,        // no reply within the reply timeout
    not_sent = 3,         // the writer did not take the request
    unknown_request = 4,  // the peer has no handler for the request's name
    unanswered = 5,       // the peer's handler dropped the request unanswered
};

// The peer application's own numeric codes; any int is a value.
enum class app_error : int {};

QUORL_API char const* describe(local_error value);
QUORL_API char const* describe(remote_error value);
QUORL_API char const* describe(exchange_error value);
QUORL_API char const* describe(app_error value);

class QUORL_API error {
public:
    // No error; the space is app_error.
    error();
    // An error of the enumeration's space, with its description as text.
    template <typename Enum, typename = std::enable_if_t<std::is_enum_v<Enum>>>
    error(Enum value) : error(static_cast<int>(value), typeid(Enum), describe(value)) {}
    error(int code, std::type_info const& type, std::string text);

    // True when there is no numeric code, which is the case exactly when there
    // is no error.
    bool no_code() const { return !has_code; }
    // Throws runtime_error "bad_optional_access" when no_code().
    int code() const;
    std::string const& text() const { return message; }
    std::type_info const& type() const { return *space; }

    explicit operator bool() const { return has_code; }

    template <typename Enum, typename = std::enable_if_t<std::is_enum_v<Enum>>>
    bool operator==(Enum value) const {
        return has_code && *space == typeid(Enum) && number == static_cast<int>(value);
    }
    template <typename Enum, typename = std::enable_if_t<std::is_enum_v<Enum>>>
    bool operator!=(Enum value) const {
        return !(*this == value);
    }

private:
    bool has_code = false;
    int number = 0;
    std::string message;
    std::type_info const* space;
};

}  // namespace zelvo::quorl_utils
