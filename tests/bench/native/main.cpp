// The native benchmarks; the options are Google Benchmark's.
#include <benchmark/benchmark.h>

BENCHMARK_MAIN();
