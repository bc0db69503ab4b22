// One program for all targets: TELVOR_FUZZ_TARGET names the one to run.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "fuzz/target.h"

namespace {

const fuzz::Target& ChosenTarget() {
  const char* name = std::getenv("TELVOR_FUZZ_TARGET");
  for (const fuzz::Target& target : fuzz::Targets()) {
    if (name && std::string(target.name) == name) return target;
  }
  std::fputs("TELVOR_FUZZ_TARGET must be one of\n", stderr);
  for (const fuzz::Target& target : fuzz::Targets()) std::fprintf(stderr, "  %s\n", target.name);
  std::exit(2);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const fuzz::Target& target = ChosenTarget();
  try {
    target.run(std::string(data, data + size));
  } catch (const fuzz::Broken& broken) {
    std::fprintf(stderr, "%s: not kept: %s\n", target.name, broken.what());
    std::abort();
  }
  return 0;
}
