#include "gatt_builder.hpp"

#include <algorithm>
#include <optional>
#include <utility>

#include "gatt_report.hpp"
#include "tavrin/gatt/descriptor.hpp"
#include "tavrin/gatt/profile.hpp"
#include "tavrin/gatt/service.hpp"

namespace zelvo::tavrin::cli {

namespace {

using property = gatt::characteristic::property;

std::string service_name(std::size_t at) {
    return "services[" + std::to_string(at) + "]";
}

}  // namespace

gatt_layout::attribute const* gatt_layout::find(unsigned int handle) const {
    auto const found = attributes.find(handle);
    return found == attributes.end() ? nullptr : &found->second;
}

unsigned int gatt_layout::find_characteristic(gatt::uuid const& uuid) const {
    for (auto const& [handle, attribute] : attributes) {
        if (attribute.is_characteristic && attribute.uuid == uuid) {
            return handle;
        }
    }
    return 0;
}

gatt_builder::gatt_builder(bt_ctrl::gatts& server, gatt_file file, say_type say, done_type done)
    : server(server), file(std::move(file)), say(std::move(say)), done(std::move(done)) {}

void gatt_builder::start() {
    plan();
    next();
}

void gatt_builder::plan() {
    auto const count = file.services.size();
    built.services.assign(count, 0);
    characteristics.assign(count, {});
    // Primary services first; then each secondary one under an includer that
    // is already there, which the file's lack of cycles makes possible; then
    // the inclusions that are left.
    std::vector<std::optional<std::size_t>> parent(count);
    std::vector<std::size_t> order;
    std::vector<bool> placed(count, false);
    for (std::size_t i = 0; i < count; ++i) {
        if (file.services[i].primary) {
            order.push_back(i);
            placed[i] = true;
        }
    }
    for (bool progress = true; progress;) {
        progress = false;
        for (std::size_t p = 0; p < count; ++p) {
            if (!placed[p]) {
                continue;
            }
            for (auto const s : file.services[p].includes) {
                if (!placed[s]) {
                    parent[s] = p;
                    order.push_back(s);
                    placed[s] = progress = true;
                }
            }
        }
    }
    for (auto const i : order) {
        steps.push_back([this, i, above = parent[i]] {
            auto const& service = file.services[i];
            std::optional<unsigned int> const parent_handle =
                above ? std::optional<unsigned int>(built.services[*above]) : std::nullopt;
            pending = server.add_service(service.uuid, false, parent_handle,
                                         adding("adding " + service_name(i),
                                                [this, i](unsigned h) { built.services[i] = h; }));
        });
    }
    for (std::size_t p = 0; p < count; ++p) {
        for (auto const s : file.services[p].includes) {
            if (parent[s] == p) {
                continue;
            }
            steps.push_back([this, p, s] {
                pending = server.add_service_reference(
                    built.services[s], built.services[p],
                    doing("including " + service_name(s) + " in " + service_name(p)));
            });
        }
    }
    for (std::size_t i = 0; i < count; ++i) {
        auto const& chars = file.services[i].characteristics;
        characteristics[i].assign(chars.size(), 0);
        for (std::size_t j = 0; j < chars.size(); ++j) {
            auto const path = service_name(i) + ".characteristics[" + std::to_string(j) + "]";
            steps.push_back([this, i, j, path] {
                auto const& wanted = file.services[i].characteristics[j];
                pending = server.add_characteristic(
                    wanted.uuid, wanted.properties, wanted.permissions, built.services[i],
                    adding("adding " + path, [this, i, j](unsigned h) {
                        auto const& source = file.services[i].characteristics[j];
                        characteristics[i][j] = h;
                        built.attributes[h] = {true,
                                               source.uuid,
                                               source.properties,
                                               source.permissions,
                                               source.value,
                                               built.services[i],
                                               0};
                    }));
            });
            for (std::size_t k = 0; k < chars[j].descriptors.size(); ++k) {
                auto const where = path + ".descriptors[" + std::to_string(k) + "]";
                steps.push_back([this, i, j, k, where] {
                    auto const& wanted = file.services[i].characteristics[j].descriptors[k];
                    pending = server.add_descriptor(
                        wanted.uuid, wanted.permissions, characteristics[i][j],
                        adding("adding " + where, [this, i, j, k](unsigned h) {
                            auto const owner = characteristics[i][j];
                            auto const& source = file.services[i].characteristics[j].descriptors[k];
                            built.attributes[h] = {
                                false, source.uuid, {}, source.permissions, source.value, owner, 0};
                            if (source.uuid == cccd_uuid) {
                                built.attributes[owner].cccd = h;
                            }
                        }));
                });
            }
        }
    }
    // Peers see a service only once it is whole.
    for (std::size_t i = 0; i < count; ++i) {
        steps.push_back([this, i] {
            pending = server.enable_service(built.services[i], true,
                                            doing("enabling " + service_name(i)));
        });
    }
    steps.push_back([this] { check_mirror(); });
}

void gatt_builder::next() {
    if (at == steps.size()) {
        auto const finished = done;
        return finished("");
    }
    auto const current = steps[at++];
    current();
}

void gatt_builder::fail(std::string const& what, std::error_code const& ec) {
    at = steps.size();
    auto const finished = done;
    finished(what + " failed: " + ec.message());
}

std::function<void(unsigned int, std::error_code const&)> gatt_builder::adding(
    std::string what, std::function<void(unsigned)> record) {
    return [this, what = std::move(what), record = std::move(record)](unsigned int handle,
                                                                      std::error_code const& ec) {
        if (ec) {
            return fail(what, ec);
        }
        record(handle);
        next();
    };
}

std::function<void(std::error_code const&)> gatt_builder::doing(std::string what) {
    return [this, what = std::move(what)](std::error_code const& ec) {
        if (ec) {
            return fail(what, ec);
        }
        next();
    };
}

void gatt_builder::check_mirror() {
    for (auto const& [handle, attribute] : built.attributes) {
        for (auto const unreadable :
             {property::write_no_response, property::signed_write, property::extended_props}) {
            if (attribute.properties.count(unreadable)) {
                // The mirror's walk stops at these words (see
                // gatt::characteristic::to_property), so a sync would not
                // come back whole.
                say("not checked with sync(): characteristic " + uuid_text(attribute.uuid) +
                    " has the property " + gatt::characteristic::to_string(unreadable) +
                    ", which the mirror does not read");
                return next();
            }
        }
    }
    pending = server.sync([this](std::error_code const& ec) {
        if (ec) {
            return fail("sync()", ec);
        }
        auto const& profile = server.get_profile();
        std::string differs;
        for (std::size_t i = 0; i < built.services.size() && differs.empty(); ++i) {
            auto const* const service = profile.find_service(built.services[i]);
            if (!service || service->get_uuid() != file.services[i].uuid ||
                !service->is_enabled()) {
                differs = service_name(i);
            }
        }
        for (auto const& [handle, attribute] : built.attributes) {
            if (!differs.empty()) {
                break;
            }
            if (attribute.is_characteristic) {
                auto const* const found = profile.find_characteristic(handle);
                if (!found || found->get_uuid() != attribute.uuid ||
                    found->get_properties() != attribute.properties ||
                    found->get_permissions() != attribute.permissions) {
                    differs = "characteristic " + uuid_text(attribute.uuid);
                }
            } else {
                auto const* const found = profile.find_descriptor(handle);
                if (!found || found->get_uuid() != attribute.uuid ||
                    found->get_permissions() != attribute.permissions) {
                    differs = "descriptor " + uuid_text(attribute.uuid);
                }
            }
        }
        if (!differs.empty()) {
            at = steps.size();
            auto const finished = done;
            return finished("the controller's database differs from the file at " + differs);
        }
        std::size_t others = 0;
        for (auto const* const service : profile.get_primary_services()) {
            auto const& ours = built.services;
            others += std::find(ours.begin(), ours.end(), service->get_handle()) == ours.end();
        }
        if (others > 0) {
            say("the controller also holds " + std::to_string(others) +
                " primary service(s) that the file does not describe; they stay");
        }
        next();
    });
}

}  // namespace zelvo::tavrin::cli
