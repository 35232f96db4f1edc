// Pieces of the host information exports that do not touch the system.
#ifndef QUILLON_SRC_API_HOST_INFO_DETAIL_H
#define QUILLON_SRC_API_HOST_INFO_DETAIL_H

#include <cstddef>
#include <cstdint>

#include "api/host_platform.h"

namespace quillon::host {

// Stores strlen(text) in *size; when that exceeds the size passed in
// returns -1, else copies text with its terminator and returns 0.
int32_t copyWithLength(const char* text, char* buffer, uint32_t* size);

// Maps a user-name query error to the getLoginUser result.
int32_t mapUserNameError(uint32_t error);

// The client address as "a.b.c.d" (bytes 2 to 5 of the address field):
// 0, -1 too small, -3 not IPv4.
int32_t formatClientAddress(const ClientAddress& address, char* buffer, uint32_t* size);

// Converts the client name (UTF-16LE, terminator included) to UTF-8. The
// count needed includes the terminator; when it exceeds *size, stores it
// and returns -1, else writes the name and returns 0 with *size unchanged.
int32_t deliverClientName(const uint8_t* utf16le, size_t bytes, char* buffer, uint32_t* size);

}  // namespace quillon::host

#endif
