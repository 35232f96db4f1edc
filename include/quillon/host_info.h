/* Host and session information: the machine (or, in a remote desktop
 * session, the remote client) the library runs for, the logged-on user and
 * the library's version. Plain C exports.
 *
 * Text results follow one buffer convention: *size is the capacity in
 * characters NOT counting the terminating zero, and the result is written
 * with its terminator, so the buffer must hold *size + 1 characters. On
 * success *size receives the text length; on -1 (too small) it receives the
 * length needed. */
#ifndef QUILLON_HOST_INFO_H
#define QUILLON_HOST_INFO_H

#include <stddef.h>
#include <stdint.h>

#include "quillon/platform.h"

#if defined(_WIN32)
typedef wchar_t quillon_wchar_t;
#else
typedef uint16_t quillon_wchar_t; /* one UTF-16 code unit */
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Library version 80.0.0. */
QUILLON_API extern const uint32_t s_QuillonVersionHigh;
QUILLON_API extern const uint32_t s_QuillonVersionLow;
QUILLON_API extern const uint32_t s_QuillonVersionBuild;

/* Starts the socket layer (needed before getLocalIP on Windows). */
QUILLON_API void QUILLON_STDCALL initQL(void);

/* The computer name, or the remote client's name in a remote session
 * (then converted to UTF-8; on success *size is left as it was, and on -1
 * the size needed counts the terminator).
 * 0 success, -1 buffer too small, -2 no name. */
QUILLON_API int32_t QUILLON_STDCALL getHostName(char* buffer, uint32_t* size);

/* The IPv4 address as dotted text: the remote client's in a remote session,
 * else the first IPv4 address the computer name resolves to.
 * 0 success, -1 too small, -2 lookup failed, -100 formatting failed. */
QUILLON_API int32_t QUILLON_STDCALL getLocalIP(char* buffer, uint32_t* size);

/* The logged-on user as DOMAIN\user in UTF-16. *size is in UTF-16 units and
 * is updated the way the system's user-name query does it (in: room
 * including the terminator; out: length without it, or on -1 the room
 * needed including it). 0 success, -1 too small, -2 no such domain,
 * -3 name not mapped, other positive values: the system error code. */
QUILLON_API int32_t QUILLON_STDCALL getLoginUser(quillon_wchar_t* buffer, uint32_t* size);

/* 1 when running in a remote desktop session whose client has an IPv4
 * address, else 0. */
QUILLON_API uint32_t QUILLON_STDCALL isTerminalServicesEnabled(void);

/* 0x500000: high << 16 | low << 8 | build. */
QUILLON_API uint32_t QUILLON_STDCALL getVersionNumber(void);

#ifdef __cplusplus
}
#endif

#endif
