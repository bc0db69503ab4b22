#include "telvorctl/machine_text.h"

#include "telvorctl/machine.h"
#include "telvorctl/platform.h"

namespace telvorctl {

namespace {

constexpr Word kErrors[] = {{platform::kErrorFileNotFound, "not there"},
                            {platform::kErrorPathNotFound, "not there"},
                            {platform::kErrorAccessDenied, "access denied; try an elevated prompt"},
                            {platform::kErrorServiceDoesNotExist, "not installed"}};

}  // namespace

std::string ErrorText(uint32_t error) {
  return WordOf(kErrors, error, "Windows error ");
}

std::string AddressText(uint32_t address) {
  std::string text;
  for (int i = 0; i < 4; ++i) text += (i > 0 ? "." : "") + std::to_string((address >> (8 * i)) & 0xFF);
  return text;
}

std::string LogFolder() {
  return platform::EnvironmentVariable("ProgramData") + "\\sorvanik-vpn";
}

std::string LogPath() {
  return LogFolder() + "\\vpnservice.log";
}

}  // namespace telvorctl
