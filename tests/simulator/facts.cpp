#include "facts.h"

namespace simulator {

Facts gFacts;

ThreadFacts& FactsOf(uint32_t thread) {
  if (gFacts.threads.size() <= thread) gFacts.threads.resize(thread + 1);
  return gFacts.threads[thread];
}

bool PipesAreOpen() {
  return sim::OpenHandles("pipe") > 0 && sim::FaultsApplied() == gFacts.faultsAtBirth;
}

void Violate(const std::string& invariant, const std::string& detail) {
  if (gFacts.violation) return;
  gFacts.violation = Violation{invariant, detail, sim::Now(), gFacts.event};
  Tell("VIOLATED: " + invariant + ": " + detail);
}

bool Telling() {
  return gFacts.telling;
}

void Tell(const std::string& line) {
  if (!gFacts.telling) return;
  constexpr uint64_t kBoot = 1'000'000;
  const uint64_t time = sim::Now() - kBoot;
  const std::string milliseconds = std::to_string(time % 1000);
  const std::string seconds = std::to_string(time / 1000);
  const std::string stamp = std::string(seconds.size() < 6 ? 6 - seconds.size() : 0, ' ') + seconds + '.' +
                            std::string(3 - milliseconds.size(), '0') + milliseconds;
  gFacts.story.push_back(stamp + "  " + line);
}

}  // namespace simulator
