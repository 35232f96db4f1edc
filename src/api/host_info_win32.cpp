// Host information on Windows: Winsock, the remote desktop session
// queries, the NetBIOS computer name and the SAM-compatible user name.
#if defined(_WIN32)

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef SECURITY_WIN32
#define SECURITY_WIN32
#endif
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#include <wtsapi32.h>
#include <security.h>

#include <cstring>
#include <vector>

#include "api/host_platform.h"

#if defined(_MSC_VER)
#pragma comment(lib, "ws2_32.lib")
#pragma comment(lib, "wtsapi32.lib")
#pragma comment(lib, "secur32.lib")
#endif

namespace quillon::host {

bool socketStartup(uint16_t requested, uint16_t& granted) {
  WSADATA data;
  if (WSAStartup(requested, &data) != 0) return false;
  granted = data.wVersion;
  return true;
}

void socketCleanup() { WSACleanup(); }

bool queryClientAddress(ClientAddress& address) {
  LPWSTR info = nullptr;
  DWORD bytes = 0;
  if (!WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, WTS_CURRENT_SESSION, WTSClientAddress, &info,
                                   &bytes) ||
      !info)
    return false;
  const WTS_CLIENT_ADDRESS* client = reinterpret_cast<const WTS_CLIENT_ADDRESS*>(info);
  address.family = client->AddressFamily;
  std::memcpy(address.address, client->Address, sizeof address.address);
  WTSFreeMemory(info);
  return true;
}

bool queryClientName(std::vector<uint8_t>& utf16le) {
  LPWSTR info = nullptr;
  DWORD bytes = 0;
  if (!WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, WTS_CURRENT_SESSION, WTSClientName, &info,
                                   &bytes) ||
      !info)
    return false;
  const uint8_t* raw = reinterpret_cast<const uint8_t*>(info);
  utf16le.assign(raw, raw + bytes);
  WTSFreeMemory(info);
  return true;
}

bool computerName(char (&name)[16]) {
  DWORD length = sizeof name;
  return GetComputerNameA(name, &length) != 0;
}

int32_t firstIPv4Address(const char* host, char (&text)[46]) {
  addrinfo hints;
  std::memset(&hints, 0, sizeof hints);
  hints.ai_family = AF_INET;
  addrinfo* result = nullptr;
  if (getaddrinfo(host, nullptr, &hints, &result) != 0 || !result) return -2;
  sockaddr_in* ipv4 = reinterpret_cast<sockaddr_in*>(result->ai_addr);
  const bool formatted = inet_ntop(AF_INET, &ipv4->sin_addr, text, sizeof text) != nullptr;
  freeaddrinfo(result);
  return formatted ? 0 : -100;
}

bool samCompatibleUserName(quillon_wchar_t* buffer, uint32_t* size, uint32_t& error) {
  ULONG length = *size;
  const BOOLEAN ok = GetUserNameExW(NameSamCompatible, buffer, &length);
  *size = length;
  if (ok) return true;
  error = GetLastError();
  return false;
}

}  // namespace quillon::host

#endif
