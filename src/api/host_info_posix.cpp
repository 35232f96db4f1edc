// Host information on POSIX systems. There are no remote desktop sessions
// here, so the session queries fail as a failed query would; the computer
// name is the host name cut to what the 16-character computer-name buffer
// holds, and the user's domain is that name.
#if !defined(_WIN32)

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "api/host_platform.h"
#include "quillon/charset.h"

namespace quillon::host {

bool socketStartup(uint16_t requested, uint16_t& granted) {
  granted = requested;  // sockets need no start-up here
  return true;
}

void socketCleanup() {}

bool queryClientAddress(ClientAddress&) { return false; }

bool queryClientName(std::vector<uint8_t>&) { return false; }

bool computerName(char (&name)[16]) {
  char host[256];
  if (gethostname(host, sizeof host) != 0) return false;
  host[sizeof host - 1] = 0;
  if (host[0] == 0) return false;
  const size_t length = std::min(std::strlen(host), sizeof name - 1);
  std::memcpy(name, host, length);
  name[length] = 0;
  return true;
}

int32_t firstIPv4Address(const char* host, char (&text)[46]) {
  addrinfo hints;
  std::memset(&hints, 0, sizeof hints);
  hints.ai_family = AF_INET;
  addrinfo* result = nullptr;
  if (getaddrinfo(host, nullptr, &hints, &result) != 0 || !result) return -2;
  const sockaddr_in* ipv4 = reinterpret_cast<const sockaddr_in*>(result->ai_addr);
  const bool formatted = inet_ntop(AF_INET, &ipv4->sin_addr, text, sizeof text) != nullptr;
  freeaddrinfo(result);
  return formatted ? 0 : -100;
}

namespace {

// The effective user's login name.
bool loginName(std::string& name) {
  passwd entry;
  passwd* found = nullptr;
  std::vector<char> scratch(16384);
  if (getpwuid_r(geteuid(), &entry, scratch.data(), scratch.size(), &found) != 0 || !found || !found->pw_name)
    return false;
  name = found->pw_name;
  return !name.empty();
}

// UTF-8 to UTF-16 code units ('?' for what does not decode).
std::vector<quillon_wchar_t> toUtf16(const std::string& text) {
  std::vector<quillon_wchar_t> units;
  TAV::from_UTF8_t decode;
  const TAV::uint8* p = reinterpret_cast<const TAV::uint8*>(text.data());
  const TAV::uint8* const end = p + text.size();
  while (p < end) {
    TAV::uint32 ch = 0;
    if (decode(nullptr, p, ch, static_cast<TAV::uint32>(end - p)) != TAV::CS_OK) {
      ch = '?';
      p++;
    }
    if (ch >= 0x10000 && ch <= 0x10FFFF) {
      ch -= 0x10000;
      units.push_back(static_cast<quillon_wchar_t>(0xD800 + (ch >> 10)));
      units.push_back(static_cast<quillon_wchar_t>(0xDC00 + (ch & 0x3FF)));
    } else {
      units.push_back(static_cast<quillon_wchar_t>(ch <= 0xFFFF ? ch : '?'));
    }
  }
  return units;
}

}  // namespace

bool samCompatibleUserName(quillon_wchar_t* buffer, uint32_t* size, uint32_t& error) {
  char domain[16];
  if (!computerName(domain)) {
    error = kErrorNoSuchDomain;
    return false;
  }
  std::string user;
  if (!loginName(user)) {
    error = kErrorNoneMapped;
    return false;
  }
  const std::vector<quillon_wchar_t> name = toUtf16(std::string(domain) + "\\" + user);
  const uint32_t length = static_cast<uint32_t>(name.size());
  if (!buffer || *size < length + 1) {
    *size = length + 1;
    error = kErrorMoreData;
    return false;
  }
  std::memcpy(buffer, name.data(), length * sizeof(quillon_wchar_t));
  buffer[length] = 0;
  *size = length;
  return true;
}

}  // namespace quillon::host

#endif
