#include <gtest/gtest.h>
#include "platform/log.h"
#include "plist/plist.h"
TEST(Smoke, Dict) {
  velm::PropertyList p = velm::PropertyList::dict();
  p.set("b", 1); p.set("a", "x");
  EXPECT_EQ(p.size(), 2u);
  if (false) NLog("%s: x %@ %d", __func__, p, 3);
}
