// Ports for stand-ins and daemons in tests.
#pragma once

namespace velm::test {

// A TCP port that was free on 127.0.0.1 a moment ago (0 when none could be had).
int freeLoopbackPort();

}  // namespace velm::test
