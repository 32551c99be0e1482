// The GATT file of `tavrin serve`: what a good file gives, with its
// defaults, and each bad entry refused with its path and why.
#include <gtest/gtest.h>

#include <string>

#include "gatt_file.hpp"

namespace zelvo::tavrin::cli {
namespace {

using permission = gatt::attribute_permission;
using property = gatt::characteristic::property;

std::string with_services(std::string const& services) {
    return R"({"services": [)" + services + "]}";
}

std::string many_services(int count) {
    std::string list = R"({"uuid": "180F"})";
    for (int i = 1; i < count; ++i) {
        list += R"(, {"uuid": "180F"})";
    }
    return list;
}

TEST(GattFile, AGoodFileGivesItsTreeWithTheDefaults) {
    auto const file = parse_gatt_file(with_services(R"(
        {"uuid": "180F", "includes": [1], "characteristics": [
            {"uuid": "2A19", "properties": ["read", "notify"], "hex": "64",
             "descriptors": [{"uuid": "2902"}, {"uuid": "2901", "text": "level"}]},
            {"uuid": "2A1A", "properties": ["writeNoResponse"], "permissions": []}]},
        {"uuid": "0000abcd-0000-1000-8000-00805f9b34fb", "primary": false,
         "characteristics": [{"uuid": "12345678", "properties": ["write", "read"],
                              "permissions": ["write"], "text": "hi"}]})"));
    ASSERT_EQ(file.services.size(), 2u);
    auto const& battery = file.services[0];
    EXPECT_EQ(battery.uuid, gatt::uuid("180f"));
    EXPECT_TRUE(battery.primary);
    EXPECT_EQ(battery.includes, std::vector<std::size_t>{1});
    ASSERT_EQ(battery.characteristics.size(), 2u);
    auto const& level = battery.characteristics[0];
    EXPECT_EQ(level.properties, (std::set<property>{property::read, property::notify}));
    // Without "permissions", what the properties let a peer do.
    EXPECT_EQ(level.permissions, std::set<permission>{permission::read});
    EXPECT_EQ(level.value, std::vector<unsigned char>{0x64});
    ASSERT_EQ(level.descriptors.size(), 2u);
    EXPECT_EQ(level.descriptors[0].uuid, cccd_uuid);
    EXPECT_EQ(level.descriptors[0].permissions,
              (std::set<permission>{permission::read, permission::write}));
    EXPECT_TRUE(level.descriptors[0].value.empty());
    EXPECT_EQ(level.descriptors[1].permissions, std::set<permission>{permission::read});
    EXPECT_EQ(level.descriptors[1].value, (std::vector<unsigned char>{'l', 'e', 'v', 'e', 'l'}));
    EXPECT_TRUE(battery.characteristics[1].permissions.empty());

    auto const& secondary = file.services[1];
    EXPECT_FALSE(secondary.primary);
    EXPECT_EQ(secondary.characteristics[0].permissions, std::set<permission>{permission::write});
    EXPECT_EQ(secondary.characteristics[0].value, (std::vector<unsigned char>{'h', 'i'}));
    // Only primary services with a 16-bit UUID are advertised.
    EXPECT_EQ(advertised_uuids(file), std::vector<unsigned short>{0x180F});
    EXPECT_EQ(parse_gatt_file(with_services(many_services(256))).services.size(), 256u);
}

TEST(GattFile, EachBadEntryIsNamedWithWhy) {
    std::string const level = R"("uuid": "2A19", "properties": ["read"])";
    struct {
        std::string text;
        std::string error;
    } const cases[] = {
        {R"({"services": [)", "line 1, column 15: syntax error"},
        {R"([])", "(document): expected an object"},
        {R"({})", "services: missing"},
        {R"({"services": []})", "services: expected 1 to 256 services"},
        {with_services(many_services(257)), "services: expected 1 to 256 services"},
        {R"({"services": [], "extra": 1})", "(document).extra: unknown key"},
        {with_services("{}"), "services[0].uuid: missing"},
        {with_services(R"({"uuid": 180})"), "services[0].uuid: expected a string"},
        {with_services(R"({"uuid": "18F"})"),
         "services[0].uuid: \"18F\" is not a UUID (4, 8 or 32 hexadecimal digits, such as "
         "\"180F\")"},
        {with_services(R"({"uuid": "180F", "primary": "yes"})"),
         "services[0].primary: expected true or false"},
        {with_services(R"({"uuid": "180F", "includes": [1]})"),
         "services[0].includes[0]: expected the position of a service in \"services\", 0 to 0"},
        {with_services(
             R"({"uuid": "180F", "includes": [1, 1]}, {"uuid": "180A", "primary": false})"),
         "services[0].includes[1]: service 1 is included twice"},
        {with_services(R"({"uuid": "180F", "includes": [1]}, {"uuid": "180A"})"),
         "services[1]: a primary service is included by none: set \"primary\": false"},
        {with_services(R"({"uuid": "180F"}, {"uuid": "180A", "primary": false})"),
         "services[1]: a secondary service must be included by another service"},
        {with_services(R"({"uuid": "180F", "includes": [1]},
                          {"uuid": "180A", "primary": false, "includes": [2]},
                          {"uuid": "180B", "primary": false, "includes": [1]})"),
         "services[2].includes: including services[1] makes a service include itself"},
        {with_services(R"({"uuid": "180F", "characteristics": [{"uuid": "2A19"}]})"),
         "services[0].characteristics[0].properties: missing"},
        {with_services(R"({"uuid": "180F", "characteristics": [{"uuid": "2A19",
                           "properties": ["Read"]}]})"),
         "services[0].characteristics[0].properties[0]: unknown property \"Read\""},
        {with_services(R"({"uuid": "180F", "characteristics": [{)" + level +
                       R"(, "permissions": ["read", "exec"]}]})"),
         "services[0].characteristics[0].permissions[1]: unknown permission \"exec\" (read, "
         "write)"},
        {with_services(R"({"uuid": "180F", "characteristics": [{)" + level + R"(, "hex": "6"}]})"),
         "services[0].characteristics[0].hex: \"6\" is not whole bytes of hexadecimal digits"},
        {with_services(R"({"uuid": "180F", "characteristics": [{)" + level +
                       R"(, "hex": "64", "text": "d"}]})"),
         "services[0].characteristics[0]: give the value as \"hex\" or as \"text\", not both"},
        {with_services(R"({"uuid": "180F", "characteristics": [{)" + level + R"(, "text": ")" +
                       std::string(513, 'x') + R"("}]})"),
         "services[0].characteristics[0].text: the value has 513 bytes, more than the 512 "
         "allowed"},
        {with_services(R"({"uuid": "180F", "characteristics": [{"uuid": "2A19",
                           "properties": ["notify"]}]})"),
         "services[0].characteristics[0].descriptors: notify or indicate needs a 2902 "
         "descriptor, by which peers subscribe"},
        {with_services(R"({"uuid": "180F", "characteristics": [{)" + level +
                       R"(, "descriptors": [{"uuid": "2902"}]}]})"),
         "services[0].characteristics[0].descriptors: a 2902 descriptor needs the property "
         "notify or indicate"},
        {with_services(R"({"uuid": "180F", "characteristics": [{"uuid": "2A19",
                           "properties": ["indicate"],
                           "descriptors": [{"uuid": "2902"}, {"uuid": "2902"}]}]})"),
         "services[0].characteristics[0].descriptors: more than one 2902 descriptor"},
        {with_services(R"({"uuid": "180F", "characteristics": [{"uuid": "2A19",
                           "properties": ["notify"],
                           "descriptors": [{"uuid": "2902", "hex": "0100"}]}]})"),
         "services[0].characteristics[0].descriptors[0]: a 2902 descriptor takes no value"},
        {with_services(R"({"uuid": "180F", "characteristics": [{"uuid": "2A19",
                           "properties": ["notify"],
                           "descriptors": [{"uuid": "2902", "permissions": ["read"]}]}]})"),
         "services[0].characteristics[0].descriptors[0].permissions: a 2902 descriptor needs "
         "\"write\""},
        {with_services(R"({"uuid": "180F", "characteristics": [{)" + level +
                       R"(, "descriptors": [{"uuid": "2901", "value": "x"}]}]})"),
         "services[0].characteristics[0].descriptors[0].value: unknown key"},
    };
    for (auto const& c : cases) {
        try {
            parse_gatt_file(c.text);
            ADD_FAILURE() << "accepted: " << c.text;
        } catch (gatt_file_error const& failure) {
            EXPECT_EQ(std::string(failure.what()).rfind(c.error, 0), 0u)
                << "got:      " << failure.what() << "\nexpected: " << c.error;
        }
    }
}

}  // namespace
}  // namespace zelvo::tavrin::cli
