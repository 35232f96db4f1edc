// The operating-system calls behind the host information exports. Each
// platform file implements this interface with the calls it has; the
// algorithms around them live in host_info.cpp.
#ifndef QUILLON_SRC_API_HOST_PLATFORM_H
#define QUILLON_SRC_API_HOST_PLATFORM_H

#include <cstdint>
#include <vector>

#include "quillon/host_info.h"

namespace quillon::host {

// Starts the socket layer asking for `requested` (low byte major, high byte
// minor); on success stores the version granted.
bool socketStartup(uint16_t requested, uint16_t& granted);
void socketCleanup();

// The client address of the current remote desktop session, laid out as
// the session query returns it.
struct ClientAddress {
  uint32_t family = 0;
  uint8_t address[20] = {};
};
// False when the session cannot be queried (and always where there are no
// remote sessions).
bool queryClientAddress(ClientAddress& address);
// The remote client's name as UTF-16LE bytes, terminator included.
bool queryClientName(std::vector<uint8_t>& utf16le);

// The computer name as the 16-character computer-name buffer holds it.
bool computerName(char (&name)[16]);

// The first IPv4 address `host` resolves to, as text: 0, -2 when the lookup
// fails or finds nothing, -100 when formatting fails.
int32_t firstIPv4Address(const char* host, char (&text)[46]);

// DOMAIN\user (SAM-compatible form) with the system's size convention: in,
// the room including the terminator; out, the length written or the room
// needed. False with the system error code in `error` on failure.
bool samCompatibleUserName(quillon_wchar_t* buffer, uint32_t* size, uint32_t& error);

// System error codes the user-name query reports.
constexpr uint32_t kErrorMoreData = 234;
constexpr uint32_t kErrorNoneMapped = 1332;
constexpr uint32_t kErrorNoSuchDomain = 1355;

}  // namespace quillon::host

#endif
