// Value types, handles and loop interfaces of namespace utils.
#pragma once

#include "tavrin/utils/comparator.hpp"
#include "tavrin/utils/connection.hpp"
#include "tavrin/utils/event_loop.hpp"
#include "tavrin/utils/ip_address.hpp"
#include "tavrin/utils/link.hpp"
#include "tavrin/utils/mac_address.hpp"
#include "tavrin/utils/tcp_connection.hpp"
#include "tavrin/utils/timer.hpp"
