// QUORL_API marks what the bus exports from the shared library that carries
// it. The bus is compiled with hidden visibility like the rest of the library.
#pragma once

#if defined(QUORL_BUILDING)
#define QUORL_API __attribute__((visibility("default")))
#else
#define QUORL_API
#endif
