// The GATT server database of the benchmarks, 1,000 attributes, built at the
// controller through a client's editing operations, and the counts that tell
// a mirror of it whole.
//
// Its shape: 50 primary services; 10 services included by 5 primary ones
// each, and 4 included by 2 or 3 of those; 468 characteristics dealt out
// over the 64 services in turn, each with 0, 1 or 2 descriptors (468 in
// all). A walk of it is 6 requests deep: the list of primary services, a
// primary service, an included one, one included by that, a characteristic,
// its descriptor.
#pragma once

#include <cstddef>
#include <cstdio>
#include <functional>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "tavrin/bt_ctrl/gatts.hpp"
#include "tavrin/bt_ctrl/interface.hpp"
#include "tavrin/gatt/characteristic.hpp"
#include "tavrin/gatt/profile.hpp"
#include "tavrin/gatt/service.hpp"
#include "tavrin/gatt/uuid.hpp"

namespace bench {

struct gatt_shape {
    static constexpr unsigned primary = 50;
    static constexpr unsigned secondary = 10;         // each included by 5 primary services
    static constexpr unsigned tertiary = 4;           // each included by 2 or 3 secondary ones
    static constexpr unsigned characteristics = 468;  // with i % 3 descriptors each
    static constexpr unsigned descriptors = 468;
    static constexpr unsigned services = primary + secondary + tertiary;
    static constexpr unsigned attributes = services + characteristics + descriptors;
    static constexpr unsigned depth = 6;
};
static_assert(gatt_shape::attributes == 1000);

// Runs the caller's loop until the condition holds, or throws.
using wait_function = std::function<void(std::function<bool()> const&, char const*)>;

inline zelvo::tavrin::gatt::uuid bench_uuid(unsigned kind, unsigned index) {
    char text[37];
    std::snprintf(text, sizeof text, "7a5e0000-%04x-4b1d-9c3e-%012x", kind, index);
    return zelvo::tavrin::gatt::uuid(text);
}

// Builds the database through `client`'s edits, one at a time; returns the
// handles of the services, primary first.
inline std::vector<unsigned> build_gatt_database(zelvo::tavrin::bt_ctrl& client,
                                                 wait_function const& wait) {
    namespace gatt = zelvo::tavrin::gatt;
    using property = gatt::characteristic::property;
    using permission = gatt::attribute_permission;
    auto& server = client.get_gatts();

    unsigned made = 0;
    bool done = false;
    std::error_code failure;
    auto const created = [&](unsigned handle, std::error_code const& ec) {
        made = handle;
        failure = ec;
        done = true;
    };
    auto const finished = [&](std::error_code const& ec) {
        failure = ec;
        done = true;
    };
    auto const await = [&](char const* what) {
        wait([&] { return done; }, what);
        done = false;
        if (failure) {
            throw std::runtime_error(std::string(what) + ": " + failure.message());
        }
    };
    auto const add_service = [&](unsigned index, std::optional<unsigned> parent) {
        auto const link = server.add_service(bench_uuid(1, index), true, parent, created);
        await("a service");
        return made;
    };
    auto const include = [&](unsigned handle, unsigned parent) {
        auto const link = server.add_service_reference(handle, parent, finished);
        await("a service reference");
    };

    std::vector<unsigned> services;
    for (unsigned i = 0; i < gatt_shape::primary; ++i) {
        services.push_back(add_service(i, std::nullopt));
    }
    for (unsigned i = 0; i < gatt_shape::secondary; ++i) {
        auto const handle = add_service(100 + i, services[i]);
        for (unsigned p = i + gatt_shape::secondary; p < gatt_shape::primary;
             p += gatt_shape::secondary) {
            include(handle, services[p]);
        }
        services.push_back(handle);
    }
    for (unsigned i = 0; i < gatt_shape::tertiary; ++i) {
        auto const first = gatt_shape::primary + i;
        auto const handle = add_service(200 + i, services[first]);
        for (unsigned s = i + gatt_shape::tertiary; s < gatt_shape::secondary;
             s += gatt_shape::tertiary) {
            include(handle, services[gatt_shape::primary + s]);
        }
        services.push_back(handle);
    }
    for (unsigned i = 0; i < gatt_shape::characteristics; ++i) {
        auto const link = server.add_characteristic(
            bench_uuid(2, i), {property::read, property::write, property::notify},
            {permission::read, permission::write}, services[i % services.size()], created);
        await("a characteristic");
        auto const characteristic = made;
        for (unsigned d = 0; d < i % 3; ++d) {
            auto const adding = server.add_descriptor(bench_uuid(3, i * 2 + d),
                                                      {permission::read, permission::write},
                                                      characteristic, created);
            await("a descriptor");
        }
    }
    return services;
}

struct gatt_counts {
    std::size_t primary = 0, services = 0, characteristics = 0, descriptors = 0;
    // Requests on the longest chain of the walk, the list of primary
    // services included.
    unsigned depth = 0;

    std::size_t attributes() const { return services + characteristics + descriptors; }
    bool whole() const {
        return primary == gatt_shape::primary && services == gatt_shape::services &&
               characteristics == gatt_shape::characteristics &&
               descriptors == gatt_shape::descriptors && depth == gatt_shape::depth;
    }
};

// What a mirror holds; a service included by several parents counts once.
inline gatt_counts count_mirror(zelvo::tavrin::gatt::profile const& profile) {
    using zelvo::tavrin::gatt::service;
    gatt_counts counts;
    std::set<service const*> seen;
    std::function<unsigned(service const&)> depth_below = [&](service const& node) {
        unsigned deepest = 0;
        for (auto const* chr : node.get_characteristics()) {
            deepest = std::max(deepest, chr->get_descriptors().empty() ? 1u : 2u);
        }
        for (auto const* child : node.get_childs()) {
            deepest = std::max(deepest, depth_below(*child));
        }
        if (seen.insert(&node).second) {
            ++counts.services;
            counts.characteristics += node.get_characteristics().size();
            for (auto const* chr : node.get_characteristics()) {
                counts.descriptors += chr->get_descriptors().size();
            }
        }
        return deepest + 1;
    };
    auto const primaries = profile.get_primary_services();
    counts.primary = primaries.size();
    for (auto const* primary : primaries) {
        counts.depth = std::max(counts.depth, 1 + depth_below(*primary));
    }
    return counts;
}

}  // namespace bench
