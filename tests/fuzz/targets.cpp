#include "fuzz/target.h"

namespace fuzz {
namespace {

constexpr Target kTargets[] = {
    {"base_url", &RunBaseUrl},
    {"catalogue", &RunCatalogue},
    {"checkout", &RunCheckout},
    {"json_fields", &RunJsonFields},
    {"log_view", &RunLogView},
    {"pipe_chunks", &RunPipeChunks},
    {"policy", &RunPolicy},
    {"profile", &RunProfile},
    {"request_fields", &RunRequestFields},
    {"request_line", &RunRequestLine},
    {"session", &RunSession},
    {"text", &RunText},
    {"time_stamp", &RunTimeStamp},
    {"wg_output", &RunWgOutput},
};

}  // namespace

std::span<const Target> Targets() {
  return kTargets;
}

}  // namespace fuzz
