// The GATT server side of a connection, until serving arrives: the object
// exists, and every operation throws before doing anything.
#include "connection/gatts.hpp"

#include <stdexcept>

namespace zelvo::tavrin::impl {

namespace {

[[noreturn]] void not_implemented() {
    throw std::logic_error("Not implemented");
}

}  // namespace

bt_ctrl::connection::gatts::gatts(connection&) {}

bt_ctrl::connection::gatts::~gatts() = default;

utils::link bt_ctrl::connection::gatts::send_notify_on_characteristic_value_change(
    unsigned int, bool, std::vector<unsigned char> const&, result_handler const&) {
    not_implemented();
}

utils::link bt_ctrl::connection::gatts::respond_on_characteristic_value_read(
    unsigned int, std::vector<unsigned char> const&, error::gatt_proto, result_handler const&) {
    not_implemented();
}

utils::link bt_ctrl::connection::gatts::respond_on_descriptor_value_read(
    unsigned int, std::vector<unsigned char> const&, error::gatt_proto, result_handler const&) {
    not_implemented();
}

utils::link bt_ctrl::connection::gatts::respond_on_characteristic_value_write(
    unsigned int, error::gatt_proto, result_handler const&) {
    not_implemented();
}

utils::link bt_ctrl::connection::gatts::respond_on_descriptor_value_write(unsigned int,
                                                                          error::gatt_proto,
                                                                          result_handler const&) {
    not_implemented();
}

utils::link bt_ctrl::connection::gatts::set_characteristic_value_read_handler(unsigned int,
                                                                              read_handler const&) {
    not_implemented();
}

utils::link bt_ctrl::connection::gatts::set_descriptor_value_read_handler(unsigned int,
                                                                          read_handler const&) {
    not_implemented();
}

utils::link bt_ctrl::connection::gatts::set_characteristic_value_write_handler(
    unsigned int, characteristic_write_handler const&) {
    not_implemented();
}

utils::link bt_ctrl::connection::gatts::set_descriptor_value_write_handler(
    unsigned int, descriptor_write_handler const&) {
    not_implemented();
}

utils::link bt_ctrl::connection::gatts::set_characteristic_value_read_handler(predicate const&,
                                                                              read_handler const&) {
    not_implemented();
}

utils::link bt_ctrl::connection::gatts::set_descriptor_value_read_handler(predicate const&,
                                                                          read_handler const&) {
    not_implemented();
}

utils::link bt_ctrl::connection::gatts::set_characteristic_value_write_handler(
    predicate const&, characteristic_write_handler const&) {
    not_implemented();
}

utils::link bt_ctrl::connection::gatts::set_descriptor_value_write_handler(
    predicate const&, descriptor_write_handler const&) {
    not_implemented();
}

utils::link bt_ctrl::connection::gatts::set_characteristic_value_read_handler(read_handler const&) {
    not_implemented();
}

utils::link bt_ctrl::connection::gatts::set_descriptor_value_read_handler(read_handler const&) {
    not_implemented();
}

utils::link bt_ctrl::connection::gatts::set_characteristic_value_write_handler(
    characteristic_write_handler const&) {
    not_implemented();
}

utils::link bt_ctrl::connection::gatts::set_descriptor_value_write_handler(
    descriptor_write_handler const&) {
    not_implemented();
}

}  // namespace zelvo::tavrin::impl
