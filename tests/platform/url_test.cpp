// The crack of URLs, as the HTTP transport asks for it: a host buffer of 256 and a path buffer of 2048
// characters.
#include "controlplane/platform.h"
#include "platform/platform_fixture.h"

namespace {

using UrlTest = PlatformTest;

constexpr uint32_t kInsufficientBuffer = 122;

bool Crack(const std::wstring& url, platform::UrlComponents& parts) {
  parts.hostCapacity = 256;
  parts.pathCapacity = 2048;
  return platform::WinHttpCrackUrl(url, parts);
}

}  // namespace

TEST_F(UrlTest, SplitsSchemeHostPortAndPath) {
  platform::UrlComponents parts;
  ASSERT_TRUE(Crack(L"https://cp.telvor.test:8443/v1/devices", parts));
  EXPECT_EQ(parts.scheme, platform::kInternetSchemeHttps);
  EXPECT_EQ(parts.host, L"cp.telvor.test");
  EXPECT_EQ(parts.port, 8443);
  EXPECT_EQ(parts.path, L"/v1/devices");
}

TEST_F(UrlTest, KnowsTheDefaultPorts) {
  platform::UrlComponents parts;
  ASSERT_TRUE(Crack(L"https://cp.telvor.test/x", parts));
  EXPECT_EQ(parts.port, 443);
  ASSERT_TRUE(Crack(L"http://cp.telvor.test/x", parts));
  EXPECT_EQ(parts.port, 80);
  EXPECT_EQ(parts.scheme, 1);
}

TEST_F(UrlTest, LeavesTheQueryInThePath) {
  platform::UrlComponents parts;
  ASSERT_TRUE(Crack(L"https://cp.telvor.test/v1/auth/registered?email=a%40b.c&x=1", parts));
  EXPECT_EQ(parts.path, L"/v1/auth/registered?email=a%40b.c&x=1");
}

TEST_F(UrlTest, EndsAtAZero) {
  platform::UrlComponents parts;
  ASSERT_TRUE(Crack(std::wstring(L"https://cp.telvor.test/a\0b", 26), parts));
  EXPECT_EQ(parts.path, L"/a");
}

TEST_F(UrlTest, GivesAnEmptyPathForABareHost) {
  platform::UrlComponents parts;
  ASSERT_TRUE(Crack(L"https://cp.telvor.test", parts));
  EXPECT_EQ(parts.host, L"cp.telvor.test");
  EXPECT_EQ(parts.path, L"");
}

TEST_F(UrlTest, FailsWithoutAKnownScheme) {
  platform::UrlComponents parts;
  EXPECT_FALSE(Crack(L"cp.telvor.test/v1", parts));
  EXPECT_FALSE(Crack(L"ldap://cp.telvor.test/v1", parts));
  EXPECT_FALSE(Crack(L"", parts));
}

TEST_F(UrlTest, FailsWhenTheHostDoesNotFit) {
  platform::UrlComponents parts;
  ASSERT_TRUE(Crack(L"https://" + std::wstring(255, L'h') + L"/x", parts));
  EXPECT_EQ(parts.host, std::wstring(255, L'h'));
  EXPECT_FALSE(Crack(L"https://" + std::wstring(256, L'h') + L"/x", parts));
  EXPECT_EQ(platform::GetLastError(), kInsufficientBuffer);
}

TEST_F(UrlTest, FailsWhenThePathDoesNotFit) {
  platform::UrlComponents parts;
  ASSERT_TRUE(Crack(L"https://h/" + std::wstring(2046, L'p'), parts));
  EXPECT_EQ(parts.path, L"/" + std::wstring(2046, L'p'));
  EXPECT_FALSE(Crack(L"https://h/" + std::wstring(2047, L'p'), parts));
  EXPECT_EQ(platform::GetLastError(), kInsufficientBuffer);
}
