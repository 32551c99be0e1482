// utils::tcp_connection: a connection that the client opens itself.
#pragma once

#include "tavrin/export.hpp"
#include "tavrin/utils/connection.hpp"
#include "tavrin/utils/ip_address.hpp"

namespace zelvo::tavrin::utils {

class TAVRIN_API tcp_connection : public connection {
public:
    ~tcp_connection() override;
    // Starts connecting and reports, on later turns, connecting and then
    // connected, or closed when the attempt fails. Reusable after closed.
    virtual void connect(ip_address const& address, unsigned short port) = 0;
};

}  // namespace zelvo::tavrin::utils
