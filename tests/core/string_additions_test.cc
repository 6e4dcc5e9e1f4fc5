#include "platform/string_additions.h"

#include <gtest/gtest.h>

namespace velm {
namespace {

TEST(StringAdditions, SubnetMatchingIsStrictAboutTheNetworkText) {
  struct {
    const char *ip, *subnet;
    bool in;
  } rows[] = {
      {"10.1.2.3", "10.0.0.0/8", true},    {"10.1.2.3", "10.0.0.0/7", false},
      {"10.1.2.3", "10.0.0.0/33", false},  {"10.1.2.3", "10.0.0.0", false},
      {"10.1.2.3", "10.1.2.3/8", false},   {"10.1.2.3", "10.1.2.3/32", true},
      {"11.0.0.1", "10.0.0.0/8", false},   {"10.1.2.3", "10.0.0.0/8/1", false},
      {"192.168.5.9", "192.168.4.0/23", true},
      // The prefix reads as an integer does: blanks and a sign before it, text after it.
      {"10.1.2.3", "10.0.0.0/ 8", true},   {"10.1.2.3", "10.0.0.0/+8x", true},
      {"10.1.2.3", "10.0.0.0/x8", false},  {"10.1.2.3", "10.0.0.0/99999999999", false},
  };
  for (const auto& r : rows) EXPECT_EQ(ipAddressIsInSubnet(r.ip, r.subnet), r.in) << r.ip << " " << r.subnet;
}

TEST(StringAdditions, SelfAssignedIsAllOf169) {
  EXPECT_TRUE(ipAddressIsSelfAssigned("169.254.1.1"));
  EXPECT_TRUE(ipAddressIsSelfAssigned("169.1.1.1"));
  EXPECT_FALSE(ipAddressIsSelfAssigned("170.0.0.1"));
}

TEST(StringAdditions, MappedAddressesPrintAsIPv4) {
  std::uint8_t mapped[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 10, 0, 0, 7};
  EXPECT_EQ(stringForIPv6Address(mapped), "10.0.0.7");
  std::uint8_t v6[16] = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  EXPECT_EQ(stringForIPv6Address(v6), "fe80::1");
}

TEST(StringAdditions, TextHelpers) {
  EXPECT_EQ(stringByStrippingTrailingWhitespace("abc \t\n \n"), "abc");
  EXPECT_EQ(stringByStrippingTrailingWhitespace("  abc"), "  abc");
  EXPECT_TRUE(containsString("Mac OS X Server", "server"));
  EXPECT_FALSE(containsString("abc", "abcd"));
  EXPECT_LT(numericCompare("10.5.8", "10.6"), 0);
  EXPECT_GT(numericCompare("10.10", "10.6"), 0);
  EXPECT_EQ(numericCompare("10.6", "10.6.0"), 0);
  EXPECT_EQ(characterCount("ab"), 2u);
  EXPECT_EQ(characterCount("\xc3\xa9"), 1u);
  EXPECT_EQ(characterCount("\xe2\x82\xac\xf0\x9f\x98\x80"), 2u);
}

}  // namespace
}  // namespace velm
