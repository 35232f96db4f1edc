// Host and session information exports: buffer rules, error mapping and
// the version values.
#include <gtest/gtest.h>
#if defined(_WIN32)
#include <windows.h>
#else
#include <unistd.h>
#endif

#include <cstring>
#include <string>
#include <vector>

#include "api/host_info_detail.h"
#include "quillon/host_info.h"

namespace {

std::string expectedComputerName() {
#if defined(_WIN32)
  char name[16] = {};
  DWORD size = sizeof name;
  if (!GetComputerNameA(name, &size)) return std::string();
  return std::string(name, size);
#else
  char host[256] = {};
  gethostname(host, sizeof host - 1);
  return std::string(host).substr(0, 15);
#endif
}

}  // namespace

TEST(HostInfo, VersionValues) {
  EXPECT_EQ(s_QuillonVersionHigh, 80u);
  EXPECT_EQ(s_QuillonVersionLow, 0u);
  EXPECT_EQ(s_QuillonVersionBuild, 0u);
  EXPECT_EQ(getVersionNumber(), 0x500000u);
  EXPECT_EQ(getVersionNumber(), 5242880u);
}

TEST(HostInfo, NoRemoteSessionHere) {
  EXPECT_EQ(isTerminalServicesEnabled(), 0u);
}

TEST(HostInfo, HostNameBufferRules) {
  initQL();
  const std::string name = expectedComputerName();
  const uint32_t length = static_cast<uint32_t>(name.size());
  ASSERT_GT(length, 0u);

  uint32_t size = 0;
  EXPECT_EQ(getHostName(nullptr, &size), -1);
  EXPECT_EQ(size, length);  // length needed, terminator not counted

  std::vector<char> buffer(length + 8, '#');
  size = length - 1;  // one short
  EXPECT_EQ(getHostName(buffer.data(), &size), -1);
  EXPECT_EQ(size, length);
  EXPECT_EQ(buffer[0], '#');

  size = length;  // exact fit: length + 1 bytes written
  EXPECT_EQ(getHostName(buffer.data(), &size), 0);
  EXPECT_EQ(size, length);
  EXPECT_EQ(std::string(buffer.data()), name);
  EXPECT_EQ(buffer[length], '\0');
  EXPECT_EQ(buffer[length + 1], '#');

  size = length + 5;  // more room: size becomes the length
  EXPECT_EQ(getHostName(buffer.data(), &size), 0);
  EXPECT_EQ(size, length);
}

TEST(HostInfo, LocalIPBufferRules) {
  initQL();
  char text[64];
  uint32_t size = sizeof text - 1;
  const int32_t rc = getLocalIP(text, &size);
  if (rc == -2) GTEST_SKIP() << "the computer name does not resolve to an IPv4 address here";
  ASSERT_EQ(rc, 0);
  ASSERT_EQ(size, std::strlen(text));
  unsigned a, b, c, d;
  EXPECT_EQ(std::sscanf(text, "%u.%u.%u.%u", &a, &b, &c, &d), 4) << text;

  const uint32_t length = size;
  size = length - 1;
  std::vector<char> small(length + 1, '#');
  EXPECT_EQ(getLocalIP(small.data(), &size), -1);
  EXPECT_EQ(size, length);
  EXPECT_EQ(small[0], '#');
  size = length;
  EXPECT_EQ(getLocalIP(small.data(), &size), 0);
  EXPECT_EQ(std::string(small.data(), length), std::string(text));
  EXPECT_EQ(small[length], '\0');
}

TEST(HostInfo, LoginUserIsDomainBackslashUser) {
  uint32_t size = 0;
  const int32_t probe = getLoginUser(nullptr, &size);
  if (probe == -3) GTEST_SKIP() << "the user id has no name here";
  ASSERT_EQ(probe, -1);  // more data
  const uint32_t needed = size;  // terminator included, as the system reports it
  ASSERT_GT(needed, 2u);

  std::vector<quillon_wchar_t> buffer(needed + 2, 0x2323);
  size = needed - 1;
  EXPECT_EQ(getLoginUser(buffer.data(), &size), -1);
  EXPECT_EQ(size, needed);
  size = needed;
  ASSERT_EQ(getLoginUser(buffer.data(), &size), 0);
  EXPECT_EQ(size, needed - 1);
  EXPECT_EQ(buffer[needed - 1], 0);
  EXPECT_EQ(buffer[needed], 0x2323);

  const std::string domain = expectedComputerName();
  std::string ascii;
  for (uint32_t i = 0; i < size; i++) ascii += buffer[i] < 0x80 ? static_cast<char>(buffer[i]) : '?';
  EXPECT_EQ(ascii.substr(0, domain.size() + 1), domain + "\\") << ascii;
  EXPECT_GT(ascii.size(), domain.size() + 1);
}

TEST(HostInfo, UserNameErrorMapping) {
  using quillon::host::mapUserNameError;
  EXPECT_EQ(mapUserNameError(234), -1);
  EXPECT_EQ(mapUserNameError(1355), -2);
  EXPECT_EQ(mapUserNameError(1332), -3);
  EXPECT_EQ(mapUserNameError(5), 5);  // access denied passes through
  EXPECT_EQ(mapUserNameError(1317), 1317);
}

TEST(HostInfo, ClientAddressFormatting) {
  using quillon::host::ClientAddress;
  using quillon::host::formatClientAddress;
  ClientAddress address;
  address.family = 2;
  const uint8_t bytes[] = {0x12, 0x34, 10, 200, 3, 255, 9, 9};
  std::memcpy(address.address, bytes, sizeof bytes);

  uint32_t size = 0;
  EXPECT_EQ(formatClientAddress(address, nullptr, &size), -1);
  EXPECT_EQ(size, 12u);  // "10.200.3.255"
  char text[16];
  std::memset(text, '#', sizeof text);
  size = 11;
  EXPECT_EQ(formatClientAddress(address, text, &size), -1);
  size = 12;
  EXPECT_EQ(formatClientAddress(address, text, &size), 0);
  EXPECT_STREQ(text, "10.200.3.255");
  EXPECT_EQ(text[13], '#');

  address.family = 23;  // IPv6 client
  size = 16;
  EXPECT_EQ(formatClientAddress(address, text, &size), -3);
}

TEST(HostInfo, ClientNameConversion) {
  using quillon::host::deliverClientName;
  // "PC-é" in UTF-16LE with its terminator: 5 UTF-8 bytes + terminator.
  const uint8_t name[] = {'P', 0, 'C', 0, '-', 0, 0xE9, 0, 0, 0};
  char out[16];
  std::memset(out, '#', sizeof out);
  uint32_t size = 5;
  EXPECT_EQ(deliverClientName(name, sizeof name, out, &size), -1);
  EXPECT_EQ(size, 6u);  // the count needed includes the terminator
  EXPECT_EQ(out[0], '#');
  EXPECT_EQ(deliverClientName(name, sizeof name, out, &size), 0);
  EXPECT_EQ(size, 6u);  // left as passed
  EXPECT_STREQ(out, "PC-\xC3\xA9");
  EXPECT_EQ(out[6], '#');

  // A name without terminator still comes out terminated.
  size = 15;
  EXPECT_EQ(deliverClientName(name, 4, out, &size), 0);
  EXPECT_STREQ(out, "PC");
  EXPECT_EQ(size, 15u);
}
