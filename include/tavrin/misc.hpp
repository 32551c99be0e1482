// Helpers of namespace misc: signals, handler wrapping, waiters, and the
// string and hexadecimal helpers of the wire code.
#pragma once

#include "tavrin/misc/aggregate_adapter.hpp"
#include "tavrin/misc/callable_traits.hpp"
#include "tavrin/misc/create_link.hpp"
#include "tavrin/misc/hex.hpp"
#include "tavrin/misc/link_handler.hpp"
#include "tavrin/misc/shared_ptr_tracker.hpp"
#include "tavrin/misc/signal.hpp"
#include "tavrin/misc/strings.hpp"
#include "tavrin/misc/tie_handler.hpp"
#include "tavrin/misc/waiter.hpp"
