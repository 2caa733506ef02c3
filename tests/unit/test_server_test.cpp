// What every test that compares bytes takes on trust from the test server: its pattern. The server's answers and
// injected faults are shown by the transfer, probe and playlist tests whose outcomes depend on them, and the count
// of body bytes sent by the transfer table.
#include <gtest/gtest.h>

#include "tests/support/TestHttpServer.h"

namespace {

TEST(TestHttpServer, PatternNeverMatchesAShiftedCopy) {
  // A body shifted by any offset must differ, or a misplaced range could pass for the right one.
  const std::string run = TestHttpServer::pattern(0, 1 << 17);
  EXPECT_EQ(TestHttpServer::pattern(4093, 10), run.substr(4093, 10));
  for (size_t shift = 1; shift <= 65536; shift *= 2) EXPECT_NE(run.substr(0, 4096), run.substr(shift, 4096)) << shift;
}

}  // namespace
