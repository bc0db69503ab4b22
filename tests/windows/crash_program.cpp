// Ends in the way that its argument names, with the crash hooks set as the service sets them; each writes its
// name.
//   telvor_crash exception | thread-exception | access-violation | return
#include <cstdio>
#include <stdexcept>
#include <string_view>
#include <thread>

#include "service/platform.h"

namespace {

void Say(const char* hook) {
  std::puts(hook);
  std::fflush(stdout);
}

void SetHooks() {
  platform::SetUnhandledExceptionFilter([]() -> int32_t {
    Say("filter");
    return 1;
  });
  platform::SetTerminate([] {
    Say("terminate");
    platform::Abort();
  });
  platform::AtExit([] { Say("exit"); });
}

uint32_t ThrowOnThread(void*) {
  throw std::runtime_error("thrown on a thread");
}

}  // namespace

int main(int count, char** arguments) {
  SetHooks();
  const std::string_view end = count > 1 ? arguments[1] : "";
  if (end == "exception") throw std::runtime_error("thrown");
  if (end == "thread-exception") {
    const platform::Handle thread = platform::CreateThread(&ThrowOnThread, nullptr);
    platform::WaitForSingleObject(thread, platform::kInfinite);
  }
  if (end == "access-violation") {
    volatile int* volatile nowhere = nullptr;
    *nowhere = 1;
  }
  return 0;
}
