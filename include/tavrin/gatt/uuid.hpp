// gatt::uuid: the type of an attribute (service, characteristic, descriptor).
//
// A value is always held at full width, as 16 bytes in the order in which the
// UUID is written: byte 0 is the first byte of the text. The 16-bit and 32-bit
// short forms exist only at the edges: they are expanded through the Bluetooth
// base UUID 00000000-0000-1000-8000-00805f9b34fb on the way in and cut out of
// it again on request on the way out, so "2a00", "00002a00" and the full text
// give equal values. Short forms are taken as written, most significant byte
// first; no byte is ever swapped.
//
// Every failing construction or assignment throws and leaves the object's old
// value in place. A plain value: no sharing, no references kept.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tavrin/export.hpp"
#include "tavrin/utils/comparator.hpp"

namespace zelvo::tavrin::gatt {

class TAVRIN_API uuid : public utils::comparator<uuid> {
public:
    // The base UUID itself, whose short form is "0000".
    uuid();
    uuid(uuid const& other);
    // The source is left holding the base UUID.
    uuid(uuid&& other);
    // A 2-, 4- or 16-byte value; other sizes throw runtime_error
    // "invalid bluetooth uuid size [N]".
    uuid(std::vector<unsigned char> const& value);
    // As above; the source is moved from first, so it ends empty even when its
    // size is refused.
    uuid(std::vector<unsigned char>&& value);
    // 4, 8 or 32 hexadecimal digits in either case; '-' may stand anywhere and
    // is ignored. Bad digits or an odd count throw the runtime_error of
    // misc::from_hex_string, a wrong count of bytes the size error above.
    uuid(std::string const& text);
    ~uuid() override;

    void assign(uuid const& other);
    // Exchanges the two values.
    void assign(uuid&& other);
    void assign(std::vector<unsigned char> const& value);
    void assign(std::vector<unsigned char>&& value);
    void assign(std::string const& text);

    uuid& operator=(uuid const& other);
    uuid& operator=(uuid&& other);
    uuid& operator=(std::vector<unsigned char> const& value);
    uuid& operator=(std::vector<unsigned char>&& value);
    uuid& operator=(std::string const& text);

    // The 16 bytes of the base UUID; built on first use, never changed.
    static std::vector<unsigned char> const& get_raw_base();
    // Expands a 2- or 4-byte short form in place to 16 bytes and returns it;
    // 16 bytes are left untouched. Other sizes throw the size error, leaving
    // `value` as it was.
    static std::vector<unsigned char>& adjust(std::vector<unsigned char>& value);

    // Whether bytes 4 to 15 are those of the base UUID.
    bool is_reserved() const;
    // With `full`, always 16. Otherwise the width of the shortest form: 2 for a
    // reserved value whose bytes 0 and 1 are zero, 4 for any other reserved
    // value, 16 for the rest.
    std::size_t size(bool full) const;
    // The first byte of the form that size(full) measures: the 16-bit form is
    // bytes 2 and 3, the 32-bit form bytes 0 to 3.
    unsigned char const* data(bool full) const;
    unsigned char* data(bool full);
    // Lower-case hexadecimal. A short form has no hyphens ("2a00",
    // "12345678"); a full value has the 8-4-4-4-12 grouping. The controller
    // is always given to_string(true).
    std::string to_string(bool full) const;

    bool is_equal(uuid const& other) const override;
    // Unsigned bytewise order, first byte most significant.
    bool is_less(uuid const& other) const override;

private:
    std::vector<unsigned char> value;
};

}  // namespace zelvo::tavrin::gatt
