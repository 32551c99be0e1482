// The GATT attribute model: UUIDs, permissions, and the attribute tree of a
// profile with its services, characteristics and descriptors.
#pragma once

#include "tavrin/gatt/attribute_map.hpp"
#include "tavrin/gatt/attribute_permission.hpp"
#include "tavrin/gatt/characteristic.hpp"
#include "tavrin/gatt/descriptor.hpp"
#include "tavrin/gatt/profile.hpp"
#include "tavrin/gatt/service.hpp"
#include "tavrin/gatt/uuid.hpp"
