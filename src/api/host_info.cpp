// Host and session information exports and the version values.
#include <atomic>
#include <cstdio>
#include <mutex>
#include <cstring>
#include <vector>

#include "api/host_info_detail.h"
#include "quillon/charset.h"
#include "quillon/host_info.h"

namespace {

constexpr uint32_t kVersionHigh = 80;
constexpr uint32_t kVersionLow = 0;
constexpr uint32_t kVersionBuild = 0;

// Set once the socket layer runs with version 1.1. Callers on several
// threads may ask at once: one of them starts it, a refused start is tried
// again on the next call.
std::atomic<bool> s_winsockStarted{false};
std::mutex s_winsockLock;

void startSocketLayer() {
  if (s_winsockStarted.load(std::memory_order_acquire)) return;
  std::lock_guard<std::mutex> hold(s_winsockLock);
  if (s_winsockStarted.load(std::memory_order_relaxed)) return;
  uint16_t granted = 0;
  if (!quillon::host::socketStartup(0x0101, granted)) return;  // not reported
  if ((granted & 0xFF) == 1 && (granted >> 8) == 1) s_winsockStarted.store(true, std::memory_order_release);
  else quillon::host::socketCleanup();
}

// The remote desktop client's IPv4 address: 0, -1 too small, -2 no
// session to query, -3 not an IPv4 client.
int32_t getClientIP(char* buffer, uint32_t* size) {
  quillon::host::ClientAddress address;
  if (!quillon::host::queryClientAddress(address)) return -2;
  return quillon::host::formatClientAddress(address, buffer, size);
}

bool inRemoteSessionWithIPv4Client() {
  uint32_t size = 0;
  return getClientIP(nullptr, &size) == -1 && size > 0;
}

}  // namespace

namespace quillon::host {

int32_t copyWithLength(const char* text, char* buffer, uint32_t* size) {
  const uint32_t length = static_cast<uint32_t>(std::strlen(text));
  const uint32_t room = *size;
  *size = length;
  if (length > room || buffer == nullptr) return -1;  // no buffer: report the size only
  std::memcpy(buffer, text, length + 1);
  return 0;
}

int32_t mapUserNameError(uint32_t error) {
  switch (error) {
    case kErrorMoreData:
      return -1;
    case kErrorNoSuchDomain:
      return -2;
    case kErrorNoneMapped:
      return -3;
    default:
      return static_cast<int32_t>(error);
  }
}

int32_t formatClientAddress(const ClientAddress& address, char* buffer, uint32_t* size) {
  if (address.family != 2) return -3;
  char text[16];
  std::snprintf(text, sizeof text, "%u.%u.%u.%u", unsigned(address.address[2]), unsigned(address.address[3]),
                unsigned(address.address[4]), unsigned(address.address[5]));
  return copyWithLength(text, buffer, size);
}

int32_t deliverClientName(const uint8_t* utf16le, size_t bytes, char* buffer, uint32_t* size) {
  TAV::CharsetConverter converter;
  converter.open("UCS-2", "UTF-8", '?', TAV::FilterNone);
  // Three UTF-8 bytes per UTF-16 unit at most, and room for a terminator
  // should the name lack one.
  const uint32_t inLen = static_cast<uint32_t>(bytes & ~static_cast<size_t>(1));
  std::vector<TAV::uint8> utf8(static_cast<size_t>(inLen) / 2 * 3 + 1);
  uint32_t inPos = 0;
  uint32_t outPos = 0;
  converter.convert(utf16le, inPos, inLen, utf8.data(), outPos, static_cast<uint32_t>(utf8.size()));
  if (outPos == 0 || utf8[outPos - 1] != 0) utf8[outPos++] = 0;
  const uint32_t needed = outPos;  // terminator included
  if (needed > *size) {
    *size = needed;
    return -1;
  }
  std::memcpy(buffer, utf8.data(), needed);
  return 0;
}

}  // namespace quillon::host

extern "C" {

// Exported (and given external linkage) by their declarations in host_info.h.
const uint32_t s_QuillonVersionHigh = kVersionHigh;
const uint32_t s_QuillonVersionLow = kVersionLow;
const uint32_t s_QuillonVersionBuild = kVersionBuild;

QUILLON_API void QUILLON_STDCALL initQL(void) { startSocketLayer(); }

QUILLON_API int32_t QUILLON_STDCALL getHostName(char* buffer, uint32_t* size) {
  startSocketLayer();
  if (inRemoteSessionWithIPv4Client()) {
    std::vector<uint8_t> clientName;
    if (quillon::host::queryClientName(clientName))
      return quillon::host::deliverClientName(clientName.data(), clientName.size(), buffer, size);
  }
  char name[16];
  if (!quillon::host::computerName(name)) return -2;
  return quillon::host::copyWithLength(name, buffer, size);
}

QUILLON_API int32_t QUILLON_STDCALL getLocalIP(char* buffer, uint32_t* size) {
  const int32_t client = getClientIP(buffer, size);
  if (client == 0 || client == -1) return client;  // a remote client's address wins
  char name[16];
  if (!quillon::host::computerName(name)) return -2;
  char text[46];
  const int32_t rc = quillon::host::firstIPv4Address(name, text);
  if (rc != 0) return rc;
  return quillon::host::copyWithLength(text, buffer, size);
}

QUILLON_API int32_t QUILLON_STDCALL getLoginUser(quillon_wchar_t* buffer, uint32_t* size) {
  uint32_t error = 0;
  if (quillon::host::samCompatibleUserName(buffer, size, error)) return 0;
  return quillon::host::mapUserNameError(error);
}

QUILLON_API uint32_t QUILLON_STDCALL isTerminalServicesEnabled(void) {
  return inRemoteSessionWithIPv4Client() ? 1 : 0;
}

QUILLON_API uint32_t QUILLON_STDCALL getVersionNumber(void) {
  return kVersionHigh << 16 | kVersionLow << 8 | kVersionBuild;
}

}  // extern "C"
