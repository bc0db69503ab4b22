// The top of the house: the one place that knows all subsystems and fills the two tables, the worker's
// operations and the pipe methods. Who wants to know what the system is made of reads wiring.cpp.
#pragma once

// Fills gWorkerOperations and gPipeMethods. Called first thing by wmain.
void WireSubsystems();
