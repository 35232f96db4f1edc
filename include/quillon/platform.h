// Platform glue shared by every public header: export macro, calling
// convention and the fixed-width integer names used across the interface.
#ifndef QUILLON_PLATFORM_H
#define QUILLON_PLATFORM_H

#include <stdint.h>

#if defined(_WIN32)
/* quillon.dll exports exactly the C functions and values listed in
 * src/api/quillon.def, under their decorated names; a dllexport mark would
 * add a second export per symbol, so nothing is marked here. C programs
 * linking the import library may define QUILLON_DLL_IMPORT to import the
 * version values directly. The C++ classes are not exported: C++ users link
 * the static library. */
#  if defined(QUILLON_DLL_IMPORT) && !defined(QUILLON_BUILDING_LIBRARY)
#    define QUILLON_API __declspec(dllimport)
#  else
#    define QUILLON_API
#  endif
#  define QUILLON_STDCALL __stdcall
#else
#  define QUILLON_API __attribute__((visibility("default")))
#  define QUILLON_STDCALL
#endif

#ifdef __cplusplus
namespace TAV {
// The interface counts in 32 bits everywhere (the library started life as
// a 32-bit DLL where `unsigned long` was 32 bits wide).
using uint8 = uint8_t;
using int16 = int16_t;
using uint16 = uint16_t;
using int32 = int32_t;
using uint32 = uint32_t;
using uint64 = uint64_t;
}  // namespace TAV
#endif

#endif
