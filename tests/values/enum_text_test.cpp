// The text forms of every enumeration, checked through one table: the words by
// value, what to_string says for a value outside the enumeration, whether the
// parser ignores case, and what it does with a word it doesn't know. Then the
// predicates on scan packet types.
#include <functional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>

#include "tavrin/bt_ctrl.hpp"
#include "tavrin/misc/strings.hpp"

namespace {

using testing::StrEq;
using testing::ThrowsMessage;
using zelvo::tavrin::bt_ctrl;
using conn = bt_ctrl::connection;
using adv = bt_ctrl::advertiser;

struct family {
    std::vector<std::string> words;  // words[i] is the word of value i
    char const* write_failure;
    bool ignores_case;
    std::string read_failure;  // "{}" stands for the word; empty: unknown words give 0
    std::function<std::string(unsigned char)> write;
    std::function<unsigned(std::string const&)> read;
};

template <typename Enum>
family make(std::vector<std::string> words, char const* write_failure, bool ignores_case,
            std::string read_failure, std::string (*write)(Enum),
            Enum (*read)(std::string const&)) {
    return {std::move(words),
            write_failure,
            ignores_case,
            std::move(read_failure),
            [write](unsigned char value) { return write(static_cast<Enum>(value)); },
            [read](std::string const& word) { return static_cast<unsigned>(read(word)); }};
}

std::vector<family> const families = {
    make<bt_ctrl::phy>({"unknown", "coded", "1m", "2m"}, "unknown bt phy", true, "",
                       bt_ctrl::to_string, bt_ctrl::to_phy),
    make<bt_ctrl::addr_type>({"unknown", "public", "random"}, "unknown bt address type", true, "",
                             bt_ctrl::to_string, bt_ctrl::to_addr_type),
    make<bt_ctrl::state>({"rebooting", "disabled", "enabled"}, "unknown BT ctrl state", true,
                         "unknown BT ctrl state str", bt_ctrl::to_string, bt_ctrl::to_state),
    make<bt_ctrl::reservation::type>({"connection", "advertiser"}, "unknown reservation type", true,
                                     "unknown reservation type [{}]", bt_ctrl::to_string,
                                     bt_ctrl::to_reservation_type),
    make<conn::state>({"closed", "opened", "closing", "opening", "pending"},
                      "unknown connection state", true, "unknown connection state str",
                      conn::to_string, conn::to_state),
    make<conn::direction>({"unknown", "outgoing", "incoming"}, "unknown connection direction",
                          false, "", conn::to_string, conn::to_direction),
    make<conn::close_reason>(
        {"unknown", "userRequested", "resourceRotation", "interfaceUnavailable"},
        "unknown connection close reason", false, "", conn::to_string, conn::to_close_reason),
    make<adv::state>({"stopped", "started", "stopping", "starting", "pending"},
                     "unknown advertiser state", true, "unknown advertiser state str",
                     adv::to_string, adv::to_state),
    make<adv::stop_reason>({"unknown", "userRequested", "connectionOpened", "resourceRotation",
                            "interfaceUnavailable"},
                           "unknown advertiser stop reason", false, "", adv::to_string,
                           adv::to_stop_reason),
};

TEST(EnumText, WordsRoundTripAndFailuresFollowEachFamilysRules) {
    for (auto const& f : families) {
        SCOPED_TRACE(f.words[1]);
        for (unsigned value = 0; value < f.words.size(); ++value) {
            auto const& word = f.words[value];
            EXPECT_EQ(f.write(static_cast<unsigned char>(value)), word);
            EXPECT_EQ(f.read(word), value);
            EXPECT_EQ(f.read(zelvo::tavrin::misc::to_upper(word)), f.ignores_case ? value : 0U);
        }
        for (auto value : {f.words.size(), std::size_t{255}}) {
            EXPECT_THAT([&] { f.write(static_cast<unsigned char>(value)); },
                        ThrowsMessage<std::logic_error>(StrEq(f.write_failure)));
        }
        // Unknown words throw for states and fall back to zero otherwise.
        for (std::string word : {"", "Bogus", "unknown", " opened"}) {
            if (f.read_failure.empty()) {
                EXPECT_EQ(f.read(word), 0U) << word;
                continue;
            }
            auto expected = f.read_failure;
            if (auto const at = expected.find("{}"); at != std::string::npos) {
                expected.replace(at, 2, word);
            }
            EXPECT_THAT([&] { f.read(word); }, ThrowsMessage<std::logic_error>(StrEq(expected)));
        }
    }
}

TEST(EnumText, PhyAlsoAcceptsM1AndM2) {
    EXPECT_EQ(bt_ctrl::to_phy("m1"), bt_ctrl::phy::m1);
    EXPECT_EQ(bt_ctrl::to_phy("M2"), bt_ctrl::phy::m2);
}

TEST(ScanPacketType, ConnectableAndScannableKinds) {
    std::tuple<int, bool, bool> const kinds[] = {{0, false, false}, {1, true, true},
                                                 {2, true, false},  {3, false, true},
                                                 {4, false, false}, {255, false, false}};
    for (auto const& [value, connectable, scannable] : kinds) {
        auto const type = static_cast<bt_ctrl::scan_packet_type>(value);
        EXPECT_EQ(bt_ctrl::is_connectable(type), connectable) << value;
        EXPECT_EQ(bt_ctrl::is_scannable(type), scannable) << value;
    }
}

}  // namespace
