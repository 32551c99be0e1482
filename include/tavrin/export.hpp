// TAVRIN_API marks what the shared library exports. Everything else in it is
// compiled with hidden visibility, so the exported set is exactly the public
// interface declared under include/tavrin/.
#pragma once

#if defined(TAVRIN_BUILDING)
#define TAVRIN_API __attribute__((visibility("default")))
#else
#define TAVRIN_API
#endif
