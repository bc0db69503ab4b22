// The platform operations that a run lets fail, each with an error that it really gives.
#pragma once

#include <cstddef>
#include <cstdint>

namespace simulator {

struct FaultOperation {
  const char* name;
  uint32_t code;
  bool mayLast;  // many failures in a row; not for what the service would repeat without a pause
};

const FaultOperation& FaultOperationAt(size_t index);
size_t FaultOperationCount();

}  // namespace simulator
