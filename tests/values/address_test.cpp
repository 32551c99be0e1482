#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "tavrin/bt_ctrl/address.hpp"

namespace {

using zelvo::tavrin::bt_ctrl;
using type = bt_ctrl::addr_type;

auto const unknown = type::unknown;
auto const pub = type::public_address;
auto const rnd = type::random_address;

bt_ctrl::address make(type t, char const* mac) {
    return {t, zelvo::tavrin::utils::mac_address(std::string(mac))};
}

TEST(Address, ValidityAndTypePredicates) {
    struct row {
        type t;
        char const* mac;
        bool valid;
        char const* holds;  // u(nknown) p(ublic) r(andom) s(tatic) R(esolvable) n(on-res.)
    } const rows[] = {
        // clang-format off
        {pub, "00:00:00:00:00:00", false, "p"}, {pub, "FF:FF:FF:FF:FF:FF", false, "p"},
        {pub, "00:00:00:00:00:01", true, "p"},  {unknown, "00:00:00:00:00:00", true, "u"},
        {static_cast<type>(3), "12:34:56:78:9A:BC", false, ""},
        // static, non-resolvable: all six bytes count
        {rnd, "C0:00:00:00:00:00", false, "rs"}, {rnd, "FF:FF:FF:FF:FF:FF", false, "rs"},
        {rnd, "C0:00:00:00:00:01", true, "rs"},  {rnd, "00:00:00:00:00:00", false, "rn"},
        {rnd, "3F:FF:FF:FF:FF:FF", false, "rn"}, {rnd, "3F:FF:FF:FF:FF:FE", true, "rn"},
        // resolvable: the last three bytes are the hash
        {rnd, "40:00:00:12:34:56", false, "rR"}, {rnd, "7F:FF:FF:12:34:56", false, "rR"},
        {rnd, "40:00:01:00:00:00", true, "rR"},  {rnd, "7F:FF:FE:FF:FF:FF", true, "rR"},
        // reserved subtype bits 10: not judged
        {rnd, "80:00:00:00:00:00", true, "r"},
        // clang-format on
    };
    for (auto const& r : rows) {
        auto const a = make(r.t, r.mac);
        EXPECT_EQ(a.is_valid(), r.valid) << r.mac << " type " << int(r.t);
        std::string holds;
        for (auto [flag, letter] :
             {std::pair(a.is_type_unknown(), 'u'), std::pair(a.is_type_public(), 'p'),
              std::pair(a.is_type_random(), 'r'), std::pair(a.is_type_random_static(), 's'),
              std::pair(a.is_type_random_resolvable(), 'R'),
              std::pair(a.is_type_random_non_resolvable(), 'n')}) {
            holds += flag ? std::string(1, letter) : "";
        }
        EXPECT_EQ(holds, r.holds) << r.mac;
        EXPECT_EQ(static_cast<bool>(a), r.t != unknown) << r.mac;
    }
}

TEST(Address, TextAndDefault) {
    EXPECT_EQ(make(pub, "aa-bb-cc-dd-ee-0f").to_string(), "AA:BB:CC:DD:EE:0F-public");
    bt_ctrl::address assigned;
    EXPECT_EQ(assigned.to_string(), "00:00:00:00:00:00-unknown");
    assigned = make(rnd, "C0:11:22:33:44:55");
    EXPECT_EQ(assigned.to_string(), "C0:11:22:33:44:55-random");
    EXPECT_THAT(
        [] { make(static_cast<type>(3), "c0ffee123456").to_string(); },
        testing::ThrowsMessage<std::logic_error>(testing::StrEq("unknown bt address type")));
}

TEST(Address, OrdersByTypeAsSignedThenByMac) {
    std::vector<bt_ctrl::address> const ascending = {
        make(static_cast<type>(200), "FF:FF:FF:FF:FF:FF"),
        make(unknown, "FF:FF:FF:FF:FF:FF"),
        make(pub, "00:00:00:00:00:01"),
        make(pub, "01:00:00:00:00:00"),
        make(rnd, "00:00:00:00:00:00"),
    };
    for (std::size_t i = 0; i < ascending.size(); ++i) {
        for (std::size_t j = 0; j < ascending.size(); ++j) {
            EXPECT_EQ(ascending[i] < ascending[j], i < j) << i << " vs " << j;
            EXPECT_EQ(ascending[i] == ascending[j], i == j) << i << " vs " << j;
        }
    }
}

}  // namespace
