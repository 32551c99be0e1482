#include "gatt_file.hpp"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <optional>
#include <utility>

#include <nlohmann/json.hpp>

namespace zelvo::tavrin::cli {

gatt::uuid const cccd_uuid("2902");

namespace {

using json = nlohmann::json;
using property = gatt::characteristic::property;

// A file is written by hand; anything bigger is a mistake. The bound on
// services also bounds the depth of the inclusion check's recursion.
constexpr std::size_t max_file_size = 1024 * 1024;
constexpr std::size_t max_services = 256;

[[noreturn]] void fail(std::string const& path, std::string const& problem) {
    throw gatt_file_error(path + ": " + problem);
}

void refuse_unknown_keys(json const& object, std::string const& path,
                         std::set<std::string> const& known) {
    for (auto const& item : object.items()) {
        if (!known.count(item.key())) {
            fail(path + "." + item.key(), "unknown key");
        }
    }
}

json const& object_at(json const& value, std::string const& path) {
    if (!value.is_object()) {
        fail(path, "expected an object");
    }
    return value;
}

json const& array_at(json const& value, std::string const& path) {
    if (!value.is_array()) {
        fail(path, "expected an array");
    }
    return value;
}

std::string string_at(json const& value, std::string const& path) {
    if (!value.is_string()) {
        fail(path, "expected a string");
    }
    return value.get<std::string>();
}

gatt::uuid read_uuid(json const& parent, std::string const& path) {
    if (!parent.contains("uuid")) {
        fail(path + ".uuid", "missing");
    }
    auto const text = string_at(parent.at("uuid"), path + ".uuid");
    try {
        return gatt::uuid(text);
    } catch (std::exception const&) {
        fail(path + ".uuid", "\"" + text +
                                 "\" is not a UUID (4, 8 or 32 hexadecimal digits, such as "
                                 "\"180F\")");
    }
}

std::vector<unsigned char> read_hex(std::string const& text, std::string const& path) {
    auto const digit = [](unsigned char c) { return std::isxdigit(c) != 0; };
    if (text.size() % 2 != 0 || !std::all_of(text.begin(), text.end(), digit)) {
        fail(path, "\"" + text + "\" is not whole bytes of hexadecimal digits");
    }
    std::vector<unsigned char> bytes;
    for (std::size_t at = 0; at < text.size(); at += 2) {
        bytes.push_back(static_cast<unsigned char>(std::stoul(text.substr(at, 2), nullptr, 16)));
    }
    return bytes;
}

// "hex" or "text", at most one of them; neither is an empty value.
std::vector<unsigned char> read_value(json const& parent, std::string const& path) {
    bool const hex = parent.contains("hex");
    if (hex && parent.contains("text")) {
        fail(path, "give the value as \"hex\" or as \"text\", not both");
    }
    std::vector<unsigned char> value;
    if (hex) {
        value = read_hex(string_at(parent.at("hex"), path + ".hex"), path + ".hex");
    } else if (parent.contains("text")) {
        auto const text = string_at(parent.at("text"), path + ".text");
        value.assign(text.begin(), text.end());
    }
    if (value.size() > max_value_size) {
        fail(path + (hex ? ".hex" : ".text"), "the value has " + std::to_string(value.size()) +
                                                  " bytes, more than the " +
                                                  std::to_string(max_value_size) + " allowed");
    }
    return value;
}

// The words exactly as the controller spells them.
std::map<std::string, property> const& property_words() {
    static std::map<std::string, property> const words{
        {"broadcast", property::broadcast},
        {"read", property::read},
        {"writeNoResponse", property::write_no_response},
        {"write", property::write},
        {"notify", property::notify},
        {"indicate", property::indicate},
        {"signedWrite", property::signed_write},
        {"extendedProps", property::extended_props}};
    return words;
}

std::set<property> read_properties(json const& parent, std::string const& path) {
    if (!parent.contains("properties")) {
        fail(path + ".properties", "missing");
    }
    auto const& list = array_at(parent.at("properties"), path + ".properties");
    std::set<property> properties;
    for (std::size_t i = 0; i < list.size(); ++i) {
        auto const where = path + ".properties[" + std::to_string(i) + "]";
        auto const word = string_at(list[i], where);
        auto const found = property_words().find(word);
        if (found == property_words().end()) {
            fail(where, "unknown property \"" + word +
                            "\" (broadcast, read, writeNoResponse, write, notify, indicate, "
                            "signedWrite, extendedProps)");
        }
        properties.insert(found->second);
    }
    return properties;
}

std::optional<std::set<gatt::attribute_permission>> read_permissions(json const& parent,
                                                                     std::string const& path) {
    if (!parent.contains("permissions")) {
        return std::nullopt;
    }
    auto const& list = array_at(parent.at("permissions"), path + ".permissions");
    std::set<gatt::attribute_permission> permissions;
    for (std::size_t i = 0; i < list.size(); ++i) {
        auto const where = path + ".permissions[" + std::to_string(i) + "]";
        auto const word = string_at(list[i], where);
        if (word == "read") {
            permissions.insert(gatt::attribute_permission::read);
        } else if (word == "write") {
            permissions.insert(gatt::attribute_permission::write);
        } else {
            fail(where, "unknown permission \"" + word + "\" (read, write)");
        }
    }
    return permissions;
}

gatt_file::descriptor read_descriptor(json const& value, std::string const& path) {
    refuse_unknown_keys(object_at(value, path), path, {"uuid", "permissions", "hex", "text"});
    gatt_file::descriptor read;
    read.uuid = read_uuid(value, path);
    bool const cccd = read.uuid == cccd_uuid;
    if (cccd && (value.contains("hex") || value.contains("text"))) {
        fail(path, "a 2902 descriptor takes no value: each connection's starts at 0000");
    }
    read.value = read_value(value, path);
    using permission = gatt::attribute_permission;
    read.permissions =
        read_permissions(value, path)
            .value_or(cccd ? std::set<permission>{permission::read, permission::write}
                           : std::set<permission>{permission::read});
    if (cccd && !read.permissions.count(permission::write)) {
        fail(path + ".permissions", "a 2902 descriptor needs \"write\": peers subscribe by it");
    }
    return read;
}

gatt_file::characteristic read_characteristic(json const& value, std::string const& path) {
    refuse_unknown_keys(object_at(value, path), path,
                        {"uuid", "properties", "permissions", "hex", "text", "descriptors"});
    gatt_file::characteristic read;
    read.uuid = read_uuid(value, path);
    read.properties = read_properties(value, path);
    read.value = read_value(value, path);
    if (auto permissions = read_permissions(value, path)) {
        read.permissions = std::move(*permissions);
    } else {
        // What the properties let a peer do.
        if (read.properties.count(property::read)) {
            read.permissions.insert(gatt::attribute_permission::read);
        }
        for (auto const writing :
             {property::write, property::write_no_response, property::signed_write}) {
            if (read.properties.count(writing)) {
                read.permissions.insert(gatt::attribute_permission::write);
            }
        }
    }
    std::size_t cccds = 0;
    if (value.contains("descriptors")) {
        auto const& list = array_at(value.at("descriptors"), path + ".descriptors");
        for (std::size_t i = 0; i < list.size(); ++i) {
            read.descriptors.push_back(
                read_descriptor(list[i], path + ".descriptors[" + std::to_string(i) + "]"));
            cccds += read.descriptors.back().uuid == cccd_uuid ? 1 : 0;
        }
    }
    bool const pushes =
        read.properties.count(property::notify) || read.properties.count(property::indicate);
    if (pushes && cccds == 0) {
        fail(path + ".descriptors",
             "notify or indicate needs a 2902 descriptor, by which peers subscribe");
    }
    if (!pushes && cccds > 0) {
        fail(path + ".descriptors", "a 2902 descriptor needs the property notify or indicate");
    }
    if (cccds > 1) {
        fail(path + ".descriptors", "more than one 2902 descriptor");
    }
    return read;
}

gatt_file::service read_service(json const& value, std::string const& path, std::size_t services) {
    refuse_unknown_keys(object_at(value, path), path,
                        {"uuid", "primary", "includes", "characteristics"});
    gatt_file::service read;
    read.uuid = read_uuid(value, path);
    if (value.contains("primary")) {
        if (!value.at("primary").is_boolean()) {
            fail(path + ".primary", "expected true or false");
        }
        read.primary = value.at("primary").get<bool>();
    }
    if (value.contains("includes")) {
        auto const& list = array_at(value.at("includes"), path + ".includes");
        for (std::size_t i = 0; i < list.size(); ++i) {
            auto const where = path + ".includes[" + std::to_string(i) + "]";
            if (!list[i].is_number_unsigned() || list[i].get<std::size_t>() >= services) {
                fail(where, "expected the position of a service in \"services\", 0 to " +
                                std::to_string(services - 1));
            }
            auto const included = list[i].get<std::size_t>();
            if (std::find(read.includes.begin(), read.includes.end(), included) !=
                read.includes.end()) {
                fail(where, "service " + std::to_string(included) + " is included twice");
            }
            read.includes.push_back(included);
        }
    }
    if (value.contains("characteristics")) {
        auto const& list = array_at(value.at("characteristics"), path + ".characteristics");
        for (std::size_t i = 0; i < list.size(); ++i) {
            read.characteristics.push_back(
                read_characteristic(list[i], path + ".characteristics[" + std::to_string(i) + "]"));
        }
    }
    return read;
}

// Secondary services are those that others include, primary ones those that
// none does; an inclusion never leads back to where it started.
void check_inclusions(gatt_file const& file) {
    auto const name = [](std::size_t at) { return "services[" + std::to_string(at) + "]"; };
    std::vector<std::size_t> includers(file.services.size(), 0);
    for (auto const& service : file.services) {
        for (auto const included : service.includes) {
            ++includers[included];
        }
    }
    for (std::size_t at = 0; at < file.services.size(); ++at) {
        if (file.services[at].primary && includers[at] > 0) {
            fail(name(at), "a primary service is included by none: set \"primary\": false");
        }
        if (!file.services[at].primary && includers[at] == 0) {
            fail(name(at), "a secondary service must be included by another service");
        }
    }
    // Depth-first from each service; `on_path` marks the services being
    // walked, so that meeting one again is a cycle.
    std::vector<char> state(file.services.size(), 0);  // 0 new, 1 on path, 2 done
    std::function<void(std::size_t)> visit = [&](std::size_t at) {
        state[at] = 1;
        for (auto const included : file.services[at].includes) {
            if (state[included] == 1) {
                fail(name(at) + ".includes",
                     "including " + name(included) + " makes a service include itself");
            }
            if (state[included] == 0) {
                visit(included);
            }
        }
        state[at] = 2;
    };
    for (std::size_t at = 0; at < file.services.size(); ++at) {
        if (state[at] == 0) {
            visit(at);
        }
    }
}

}  // namespace

gatt_file parse_gatt_file(std::string const& text) {
    json document;
    try {
        document = json::parse(text);
    } catch (json::parse_error const& failure) {
        // The library's text is "[json.exception.parse_error.101] parse error
        // at line 3, column 5: ..."; the part from "line" on is the user's.
        std::string const what = failure.what();
        auto const at = what.find("line ");
        throw gatt_file_error(at == std::string::npos ? what : what.substr(at));
    }
    refuse_unknown_keys(object_at(document, "(document)"), "(document)", {"services"});
    if (!document.contains("services")) {
        fail("services", "missing");
    }
    auto const& list = array_at(document.at("services"), "services");
    if (list.empty() || list.size() > max_services) {
        fail("services", "expected 1 to " + std::to_string(max_services) + " services");
    }
    gatt_file file;
    for (std::size_t i = 0; i < list.size(); ++i) {
        file.services.push_back(
            read_service(list[i], "services[" + std::to_string(i) + "]", list.size()));
    }
    check_inclusions(file);
    return file;
}

gatt_file load_gatt_file(std::string const& path) {
    std::ifstream stream(path, std::ios::binary);
    if (!stream) {
        throw gatt_file_error(path + ": cannot be opened");
    }
    std::string text;
    char chunk[4096];
    while (stream.read(chunk, sizeof chunk) || stream.gcount() > 0) {
        text.append(chunk, static_cast<std::size_t>(stream.gcount()));
        if (text.size() > max_file_size) {
            throw gatt_file_error(path + ": larger than " + std::to_string(max_file_size) +
                                  " bytes");
        }
    }
    try {
        return parse_gatt_file(text);
    } catch (gatt_file_error const& failure) {
        throw gatt_file_error(path + ": " + failure.what());
    }
}

std::vector<unsigned short> advertised_uuids(gatt_file const& file) {
    std::vector<unsigned short> uuids;
    for (auto const& service : file.services) {
        if (!service.primary || service.uuid.size(false) != 2) {
            continue;
        }
        auto const* const bytes = service.uuid.data(false);
        auto const value = static_cast<unsigned short>(bytes[0] << 8 | bytes[1]);
        if (std::find(uuids.begin(), uuids.end(), value) == uuids.end()) {
            uuids.push_back(value);
        }
    }
    return uuids;
}

}  // namespace zelvo::tavrin::cli
