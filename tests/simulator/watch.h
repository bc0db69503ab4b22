// The watch over a running machine: it sees every step of every thread, every call that returns, and every
// use of the two tables, keeps the facts, and has the invariants judged.
#pragma once

#include "engine/operations.h"

namespace simulator {

// A change to the worker's table, made before the watch puts itself in front of it.
using TableChange = void (*)(WorkerOperations& operations);

// From now on the machine is watched; `change` may be null.
void StartWatching(TableChange change);
void StopWatching();

// The operations as the service wired them, with the change, behind the watch.
const WorkerOperations& OperationsBehindWatch();
// Of the running thread.
uint32_t ThreadNumber();

}  // namespace simulator
