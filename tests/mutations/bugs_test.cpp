// The bugs that prove the tests can still be put into the sources; trying them is for tests/mutations/run.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace {

// The exit code of the program, and in `output` what it printed.
int RunCommand(const std::string& command, std::string& output) {
  std::FILE* pipe = popen((command + " 2>&1").c_str(), "r");  // NOLINT(cert-env33-c): a program of this tree
  if (pipe == nullptr) return -1;
  char chunk[512];
  while (std::fgets(chunk, sizeof chunk, pipe) != nullptr) output += chunk;
  return pclose(pipe);
}

TEST(Mutations, AllFindTheirPlaces) {
  std::string output;
  EXPECT_EQ(RunCommand("/usr/bin/python3 -B '" TELVOR_SOURCE_ROOT "/tests/mutations/run' --check", output), 0)
      << output;
  EXPECT_NE(output.find("bugs find their places"), std::string::npos) << output;
}

}  // namespace
