#include "gatt/server.hpp"

#include <stdexcept>

namespace zelvo::tavrin::impl {

namespace {

[[noreturn]] void not_implemented() {
    throw std::logic_error("Not implemented");
}

}  // namespace

bt_ctrl::gatts::gatts(bt_ctrl&) : profile(std::make_unique<gatt::profile>()) {}

bt_ctrl::gatts::~gatts() = default;

gatt::profile const& bt_ctrl::gatts::get_profile() const {
    return *profile;
}

utils::link bt_ctrl::gatts::sync(std::function<void(std::error_code const&)> const&) {
    not_implemented();
}

utils::link bt_ctrl::gatts::add_service(
    gatt::uuid const&, bool, std::optional<unsigned int> const&,
    std::function<void(unsigned int, std::error_code const&)> const&) {
    not_implemented();
}

utils::link bt_ctrl::gatts::del_service(unsigned int,
                                        std::function<void(std::error_code const&)> const&) {
    not_implemented();
}

utils::link bt_ctrl::gatts::add_service_reference(
    unsigned int, unsigned int, std::function<void(std::error_code const&)> const&) {
    not_implemented();
}

utils::link bt_ctrl::gatts::del_service_reference(
    unsigned int, unsigned int, std::function<void(std::error_code const&)> const&) {
    not_implemented();
}

utils::link bt_ctrl::gatts::enable_service(unsigned int, bool,
                                           std::function<void(std::error_code const&)> const&) {
    not_implemented();
}

utils::link bt_ctrl::gatts::add_characteristic(
    gatt::uuid const&, std::set<gatt::characteristic::property> const&,
    std::set<gatt::attribute_permission> const&, unsigned int,
    std::function<void(unsigned int, std::error_code const&)> const&) {
    not_implemented();
}

utils::link bt_ctrl::gatts::del_characteristic(unsigned int,
                                               std::function<void(std::error_code const&)> const&) {
    not_implemented();
}

utils::link bt_ctrl::gatts::add_descriptor(
    gatt::uuid const&, std::set<gatt::attribute_permission> const&, unsigned int,
    std::function<void(unsigned int, std::error_code const&)> const&) {
    not_implemented();
}

utils::link bt_ctrl::gatts::del_descriptor(unsigned int,
                                           std::function<void(std::error_code const&)> const&) {
    not_implemented();
}

utils::link bt_ctrl::gatts::notify_on_updated(
    std::function<void(std::set<unsigned int> const&)> const&) const {
    not_implemented();
}

}  // namespace zelvo::tavrin::impl
