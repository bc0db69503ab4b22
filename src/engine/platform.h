// The Windows operation that the connection engine needs beyond service/platform.h. See there for the rules.
#pragma once

#include <cstdint>

namespace platform {

// `version` as MAKEWORD gives it: major in the low byte, minor in the high byte. 0 on success, else the error
// code.
int WSAStartup(uint16_t version);

}  // namespace platform
