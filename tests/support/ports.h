// Ports for stand-ins and daemons in tests.
#pragma once

namespace velm::test {

// A TCP port free on 127.0.0.1, .2 and .3 a moment ago, outside the range the kernel hands out for
// port 0 (0 when none could be had).
int freeLoopbackPort();

}  // namespace velm::test
