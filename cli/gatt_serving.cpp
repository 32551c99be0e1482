#include "gatt_serving.hpp"

#include <algorithm>

#include "gatt_report.hpp"

namespace zelvo::tavrin::cli {

namespace {

using status = error::gatt_proto;
using property = gatt::characteristic::property;

constexpr unsigned notifications = 1;
constexpr unsigned indications = 2;

// The words of the statuses this server answers with, as the controller
// spells them.
std::string word(status value) {
    switch (value) {
        case status::success:
            return "success";
        case status::invalid_handle:
            return "invalidHandle";
        case status::read_not_permitted:
            return "readNotPermitted";
        case status::write_not_permitted:
            return "writeNotPermitted";
        case status::invalid_offset:
            return "invalidOffset";
        case status::invalid_attribute_value_length:
            return "invalidAttributeValueLength";
        case status::cccd_improperly_configured:
            return "cccdImproperlyConfigured";
        default:
            return "status " + std::to_string(static_cast<int>(value));
    }
}

std::string name(unsigned int handle, gatt_layout::attribute const* attribute) {
    return (attribute ? uuid_text(attribute->uuid) + " " : std::string("handle ")) + "[" +
           std::to_string(handle) + "]";
}

}  // namespace

gatt_values initial_values(gatt_layout const& layout) {
    gatt_values values;
    for (auto const& [handle, attribute] : layout.attributes) {
        if (attribute.is_characteristic || attribute.uuid != cccd_uuid) {
            values[handle] = attribute.value;
        }
    }
    return values;
}

gatt_session::gatt_session(bt_ctrl::connection const& conn, gatt_layout const& layout,
                           gatt_values& values, std::string prefix, say_type say)
    : conn(conn),
      server(conn.get_gatts()),
      layout(layout),
      values(values),
      prefix(std::move(prefix)),
      say(std::move(say)) {
    handlers.emplace_back(server.set_characteristic_value_read_handler(
        [this](unsigned int handle, unsigned int offset) { on_read(handle, offset, true); }));
    handlers.emplace_back(server.set_descriptor_value_read_handler(
        [this](unsigned int handle, unsigned int offset) { on_read(handle, offset, false); }));
    handlers.emplace_back(server.set_characteristic_value_write_handler(
        [this](unsigned int handle, std::vector<unsigned char> const& data, unsigned int offset,
               bool response_needed) { on_write(handle, data, offset, response_needed, true); }));
    handlers.emplace_back(server.set_descriptor_value_write_handler(
        [this](unsigned int handle, std::vector<unsigned char> const& data, unsigned int offset) {
            on_write(handle, data, offset, true, false);
        }));
}

void gatt_session::change_value(unsigned int handle, std::vector<unsigned char> const& value,
                                std::function<void(std::error_code const&)> sent) {
    values[handle] = value;
    line("changed", name(handle, layout.find(handle)) + ": " + value_text(value));
    if (!push(handle, sent) && sent) {
        sent({});
    }
}

void gatt_session::on_read(unsigned int handle, unsigned int offset, bool characteristic) {
    auto const* const attribute = layout.find(handle);
    auto result = status::success;
    std::vector<unsigned char> data;
    if (!attribute || attribute->is_characteristic != characteristic) {
        result = status::invalid_handle;
    } else if (!attribute->permissions.count(gatt::attribute_permission::read)) {
        result = status::read_not_permitted;
    } else {
        std::vector<unsigned char> value;
        if (!characteristic && attribute->uuid == cccd_uuid) {
            auto const bits = subscriptions[attribute->owner];
            value = {static_cast<unsigned char>(bits & 0xFF),
                     static_cast<unsigned char>(bits >> 8)};
        } else {
            value = values[handle];
        }
        if (offset > value.size()) {
            result = status::invalid_offset;
        } else {
            // A read response carries at most MTU - 1 bytes; the peer reads
            // on from a later offset.
            auto const room = std::max<std::size_t>(conn.get_mtu(), 23) - 1;
            auto const size = std::min(value.size() - offset, room);
            data.assign(value.begin() + offset, value.begin() + offset + size);
        }
    }
    auto const where = name(handle, attribute) + (offset ? " from " + std::to_string(offset) : "");
    line("read",
         where + ": " +
             (result == status::success ? value_text(data) : "refused (" + word(result) + ")"));
    auto const answered = reporting("answer to read of " + name(handle, attribute));
    keep(characteristic
             ? server.respond_on_characteristic_value_read(handle, data, result, answered)
             : server.respond_on_descriptor_value_read(handle, data, result, answered));
}

void gatt_session::on_write(unsigned int handle, std::vector<unsigned char> const& data,
                            unsigned int offset, bool response_needed, bool characteristic) {
    auto const* const attribute = layout.find(handle);
    auto result = status::success;
    std::string text;
    bool changed = false;
    if (!attribute || attribute->is_characteristic != characteristic) {
        result = status::invalid_handle;
    } else if (!attribute->permissions.count(gatt::attribute_permission::write)) {
        result = status::write_not_permitted;
    } else if (!characteristic && attribute->uuid == cccd_uuid) {
        result = subscribe(*attribute, data, offset);
    } else {
        result = write_value(handle, data, offset, attribute, text, changed);
    }
    if (result != status::success) {
        text = "refused (" + word(result) + ")";
    }
    if (!text.empty()) {
        line("write",
             name(handle, attribute) + ": " + text + (response_needed ? "" : " (no response)"));
    }
    if (response_needed) {
        auto const answered = reporting("answer to write of " + name(handle, attribute));
        keep(characteristic ? server.respond_on_characteristic_value_write(handle, result, answered)
                            : server.respond_on_descriptor_value_write(handle, result, answered));
    }
    if (changed && characteristic) {
        push(handle);
    }
}

error::gatt_proto gatt_session::write_value(unsigned int handle,
                                            std::vector<unsigned char> const& data,
                                            unsigned int offset,
                                            gatt_layout::attribute const* attribute,
                                            std::string& text, bool& changed) {
    auto& value = values[handle];
    if (offset > value.size()) {
        return status::invalid_offset;
    }
    if (data.size() > max_value_size || offset + data.size() > max_value_size) {
        // What a peer sends is kept only up to the size the file could give.
        line("dropped", name(handle, attribute) + ": a write of " + std::to_string(data.size()) +
                            " bytes at " + std::to_string(offset) + " would pass " +
                            std::to_string(max_value_size) + " bytes");
        return status::invalid_attribute_value_length;
    }
    std::vector<unsigned char> written(value.begin(), value.begin() + offset);
    written.insert(written.end(), data.begin(), data.end());
    text = value_text(written) + (offset ? " (from " + std::to_string(offset) + ")" : "");
    changed = written != value;
    if (!changed) {
        text += ", unchanged";
    }
    value = std::move(written);
    return status::success;
}

error::gatt_proto gatt_session::subscribe(gatt_layout::attribute const& cccd,
                                          std::vector<unsigned char> const& data,
                                          unsigned int offset) {
    if (offset != 0) {
        return status::invalid_offset;
    }
    if (data.size() != 2) {
        return status::invalid_attribute_value_length;
    }
    auto const bits = static_cast<unsigned>(data[0] | data[1] << 8);
    auto const* const characteristic = layout.find(cccd.owner);
    auto const offers = [characteristic](property wanted) {
        return characteristic && characteristic->properties.count(wanted) > 0;
    };
    if ((bits & ~(notifications | indications)) != 0 ||
        ((bits & notifications) && !offers(property::notify)) ||
        ((bits & indications) && !offers(property::indicate))) {
        return status::cccd_improperly_configured;
    }
    subscriptions[cccd.owner] = bits;
    // The line names the characteristic, which is what the peer subscribes to.
    auto const what = name(cccd.owner, characteristic) + ": ";
    if (bits == 0) {
        line("unsubscribe", what + "nothing more");
    } else {
        line("subscribe", what + (bits == notifications ? "notifications"
                                  : bits == indications ? "indications"
                                                        : "notifications and indications"));
    }
    return status::success;
}

bool gatt_session::push(unsigned int handle, std::function<void(std::error_code const&)> sent) {
    auto const bits = subscriptions[handle];
    if (bits == 0) {
        return false;
    }
    bool const indicate = (bits & indications) != 0;
    auto const& value = values[handle];
    // A notification or indication carries at most MTU - 3 bytes.
    auto const room = std::max<std::size_t>(conn.get_mtu(), 23) - 3;
    std::vector<unsigned char> const data(value.begin(),
                                          value.begin() + std::min(value.size(), room));
    auto const* const attribute = layout.find(handle);
    auto const label = indicate ? "indicate" : "notify";
    line(label, name(handle, attribute) + ": " + value_text(data));
    auto report = reporting(std::string(label) + " " + name(handle, attribute));
    keep(server.send_notify_on_characteristic_value_change(
        handle, indicate, data,
        [report = std::move(report), sent = std::move(sent)](std::error_code const& ec) {
            report(ec);
            if (sent) {
                sent(ec);
            }
        }));
    return true;
}

std::function<void(std::error_code const&)> gatt_session::reporting(std::string what) {
    return [this, what = std::move(what)](std::error_code const& ec) {
        if (ec) {
            line("failed", what + ": " + ec.message());
        }
    };
}

void gatt_session::keep(utils::link link) {
    answers.erase(std::remove_if(answers.begin(), answers.end(),
                                 [](utils::scoped_link const& kept) { return !kept.active(); }),
                  answers.end());
    answers.emplace_back(std::move(link));
}

void gatt_session::line(std::string const& label, std::string const& text) {
    auto padded = label;
    padded.resize(std::max<std::size_t>(label.size() + 1, 14), ' ');
    say(prefix + padded + text);
}

}  // namespace zelvo::tavrin::cli
