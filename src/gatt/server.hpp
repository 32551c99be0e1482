// impl::bt_ctrl::gatts: the client's GATT server object. It exists for the
// client's whole life, made in the client's constructor, so that
// applications can hold a reference in every state.
//
// The published mirror is never null: an empty profile until the
// controller's database has been read. Reading and editing the database are
// not available yet: those operations throw logic_error "Not implemented".
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <system_error>

#include "client/bt_ctrl.hpp"
#include "tavrin/bt_ctrl/gatts.hpp"
#include "tavrin/gatt/profile.hpp"

namespace zelvo::tavrin::impl {

class bt_ctrl::gatts : public tavrin::bt_ctrl::gatts {
public:
    explicit gatts(bt_ctrl& owner);
    ~gatts() override;

    utils::link sync(std::function<void(std::error_code const&)> const& handler) override;
    gatt::profile const& get_profile() const override;
    utils::link add_service(
        gatt::uuid const& uuid, bool enabled, std::optional<unsigned int> const& parent,
        std::function<void(unsigned int, std::error_code const&)> const& handler) override;
    utils::link del_service(unsigned int handle,
                            std::function<void(std::error_code const&)> const& handler) override;
    utils::link add_service_reference(
        unsigned int handle, unsigned int parent,
        std::function<void(std::error_code const&)> const& handler) override;
    utils::link del_service_reference(
        unsigned int handle, unsigned int parent,
        std::function<void(std::error_code const&)> const& handler) override;
    utils::link enable_service(unsigned int handle, bool enable,
                               std::function<void(std::error_code const&)> const& handler) override;
    utils::link add_characteristic(
        gatt::uuid const& uuid, std::set<gatt::characteristic::property> const& properties,
        std::set<gatt::attribute_permission> const& permissions, unsigned int parent,
        std::function<void(unsigned int, std::error_code const&)> const& handler) override;
    utils::link del_characteristic(
        unsigned int handle, std::function<void(std::error_code const&)> const& handler) override;
    utils::link add_descriptor(
        gatt::uuid const& uuid, std::set<gatt::attribute_permission> const& permissions,
        unsigned int parent,
        std::function<void(unsigned int, std::error_code const&)> const& handler) override;
    utils::link del_descriptor(unsigned int handle,
                               std::function<void(std::error_code const&)> const& handler) override;
    utils::link notify_on_updated(
        std::function<void(std::set<unsigned int> const&)> const& handler) const override;

private:
    std::unique_ptr<gatt::profile> profile;
};

}  // namespace zelvo::tavrin::impl
