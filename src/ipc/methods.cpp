#include "ipc/methods.h"

#include <string_view>

std::array<PipeMethod, kPipeMethodCount> gPipeMethods{{
    {"GetState", nullptr},
    {"GetRecentLogs", nullptr},
    {"Connect", nullptr},
    {"Disconnect", nullptr},
    {"StopService", nullptr},
    {"POST /ui/login", nullptr},
    {"GET /ui/is-registered", nullptr},
    {"POST /ui/register", nullptr},
    {"POST /ui/password-reset/start", nullptr},
    {"POST /ui/password-reset/confirm", nullptr},
    {"GET /ui/entitlement", nullptr},
    {"GET /ui/quota", nullptr},
    {"POST /ui/billing/checkout", nullptr},
    {"GET /ui/account-page-url", nullptr},
    {"POST /ui/logout", nullptr},
    {"GET /ui/status", nullptr},
    {"GET /ui/logs", nullptr},
    {"GET /ui/locations", nullptr},
    {"POST /ui/select-location", nullptr},
}};

void PlugPipeMethod(const char* name, PipeMethodBody body) {
  for (PipeMethod& method : gPipeMethods) {
    if (std::string_view(method.name) == name) method.body = body;
  }
}
