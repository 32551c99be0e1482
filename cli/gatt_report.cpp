#include "gatt_report.hpp"

#include <algorithm>
#include <cstdio>

namespace zelvo::tavrin::cli {

namespace {

std::string words(gatt_layout::attribute const& attribute) {
    std::string text;
    for (auto const property : attribute.properties) {
        text += " " + gatt::characteristic::to_string(property);
    }
    if (!attribute.is_characteristic) {
        for (auto const permission : attribute.permissions) {
            text += " " + gatt::to_string(permission);
        }
    }
    return text;
}

}  // namespace

std::string uuid_text(gatt::uuid const& uuid) {
    return uuid.to_string(uuid.size(false) == 16);
}

std::string value_text(std::vector<unsigned char> const& value) {
    if (value.empty()) {
        return "(empty)";
    }
    std::string text;
    char digits[3];
    for (auto const byte : value) {
        std::snprintf(digits, sizeof digits, "%02X", byte);
        text += digits;
    }
    auto const printable = [](unsigned char c) { return c >= 0x20 && c < 0x7F; };
    // A single byte is more often a number than a letter.
    if (value.size() > 1 && std::all_of(value.begin(), value.end(), printable)) {
        text += " \"" + std::string(value.begin(), value.end()) + "\"";
    }
    return text;
}

void print_layout(std::ostream& out, gatt_layout const& layout, gatt_file const& file,
                  std::string const& indent) {
    for (std::size_t i = 0; i < file.services.size(); ++i) {
        auto const handle = layout.services[i];
        out << indent << "service " << uuid_text(file.services[i].uuid) << " [" << handle << "]"
            << (file.services[i].primary ? "" : " secondary");
        for (auto const included : file.services[i].includes) {
            out << (included == file.services[i].includes.front() ? ", includes [" : " [")
                << layout.services[included] << "]";
        }
        out << '\n';
        for (auto const& [char_handle, attribute] : layout.attributes) {
            if (!attribute.is_characteristic || attribute.owner != handle) {
                continue;
            }
            out << indent << "  characteristic " << uuid_text(attribute.uuid) << " [" << char_handle
                << "]" << words(attribute);
            if (!attribute.value.empty()) {
                out << ", value " << value_text(attribute.value);
            }
            out << '\n';
            for (auto const& [desc_handle, descriptor] : layout.attributes) {
                if (descriptor.is_characteristic || descriptor.owner != char_handle) {
                    continue;
                }
                out << indent << "    descriptor " << uuid_text(descriptor.uuid) << " ["
                    << desc_handle << "]" << words(descriptor);
                if (!descriptor.value.empty()) {
                    out << ", value " << value_text(descriptor.value);
                }
                out << '\n';
            }
        }
    }
}

}  // namespace zelvo::tavrin::cli
