// impl::bt_ctrl::connection::gatts: the GATT server side of one connection.
// It exists for the whole life of its connection, so that an application can
// hold a reference in every state. Serving peers' reads and writes is not
// available yet: every operation throws logic_error "Not implemented".
#pragma once

#include <functional>
#include <system_error>
#include <vector>

#include "connection/connection.hpp"
#include "tavrin/bt_ctrl/connection_gatts.hpp"
#include "tavrin/error.hpp"
#include "tavrin/utils/link.hpp"

namespace zelvo::tavrin::impl {

class bt_ctrl::connection::gatts : public tavrin::bt_ctrl::connection::gatts {
public:
    using result_handler = std::function<void(std::error_code const&)>;

    // Serving will route the owner's events; nothing is kept yet.
    explicit gatts(connection& owner);
    ~gatts() override;

    utils::link send_notify_on_characteristic_value_change(unsigned int handle,
                                                           bool response_needed,
                                                           std::vector<unsigned char> const& data,
                                                           result_handler const& handler) override;
    utils::link respond_on_characteristic_value_read(unsigned int handle,
                                                     std::vector<unsigned char> const& data,
                                                     error::gatt_proto status,
                                                     result_handler const& handler) override;
    utils::link respond_on_descriptor_value_read(unsigned int handle,
                                                 std::vector<unsigned char> const& data,
                                                 error::gatt_proto status,
                                                 result_handler const& handler) override;
    utils::link respond_on_characteristic_value_write(unsigned int handle, error::gatt_proto status,
                                                      result_handler const& handler) override;
    utils::link respond_on_descriptor_value_write(unsigned int handle, error::gatt_proto status,
                                                  result_handler const& handler) override;
    utils::link set_characteristic_value_read_handler(unsigned int handle,
                                                      read_handler const& handler) override;
    utils::link set_descriptor_value_read_handler(unsigned int handle,
                                                  read_handler const& handler) override;
    utils::link set_characteristic_value_write_handler(
        unsigned int handle, characteristic_write_handler const& handler) override;
    utils::link set_descriptor_value_write_handler(
        unsigned int handle, descriptor_write_handler const& handler) override;
    utils::link set_characteristic_value_read_handler(predicate const& accepts,
                                                      read_handler const& handler) override;
    utils::link set_descriptor_value_read_handler(predicate const& accepts,
                                                  read_handler const& handler) override;
    utils::link set_characteristic_value_write_handler(
        predicate const& accepts, characteristic_write_handler const& handler) override;
    utils::link set_descriptor_value_write_handler(
        predicate const& accepts, descriptor_write_handler const& handler) override;
    utils::link set_characteristic_value_read_handler(read_handler const& handler) override;
    utils::link set_descriptor_value_read_handler(read_handler const& handler) override;
    utils::link set_characteristic_value_write_handler(
        characteristic_write_handler const& handler) override;
    utils::link set_descriptor_value_write_handler(
        descriptor_write_handler const& handler) override;
};

}  // namespace zelvo::tavrin::impl
