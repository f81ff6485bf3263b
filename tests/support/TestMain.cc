#include <gtest/gtest.h>

#include <csignal>

int main(int argc, char** argv) {
  // Tests talk to peers that may vanish mid-write; a broken pipe must be an error code, not a death.
  std::signal(SIGPIPE, SIG_IGN);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
