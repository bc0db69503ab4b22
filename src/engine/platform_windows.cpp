// The Windows side of engine/platform.h.
#include "engine/platform.h"

#include <winsock2.h>

namespace platform {

int WSAStartup(uint16_t version) {
  WSADATA data;
  return ::WSAStartup(version, &data);
}

}  // namespace platform
