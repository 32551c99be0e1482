// Value types and handles of namespace utils: links, comparison, addresses.
#pragma once

#include "tavrin/utils/comparator.hpp"
#include "tavrin/utils/ip_address.hpp"
#include "tavrin/utils/link.hpp"
#include "tavrin/utils/mac_address.hpp"
