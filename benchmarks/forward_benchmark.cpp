// The library's Forward against the same work written by hand on the engine. Both sides run in turn
// in one loop; the figure to look at is `ratio`, the median time of the library over that of the
// other.
//
// usage: forward-benchmark LIBRARY.so BY_HAND.so NAME WIDTH HEIGHT [BATCH [DEVICE]]
//
// With the tests' machine as LD_PRELOAD, LD_LIBRARY_PATH at the tests' folder "engine", and
// VELMORA_TEST_PLATFORM, the DEVICE may be "GPU", which is the CPU under that name: what is
// measured is what a network that may move costs above the engine, its look at the record of
// transcoding included.
#include <benchmark/benchmark.h>

#include <memory>

#include "interleaved.h"
#include "side.h"

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (argc < 6) {
    std::fputs(
        "usage: forward-benchmark LIBRARY.so BY_HAND.so NAME WIDTH HEIGHT [BATCH [DEVICE]]\n",
        stderr);
    return 2;
  }
  const Task task = {argv[3], std::atoi(argv[4]), std::atoi(argv[5]),
                     argc > 6 ? std::atoi(argv[6]) : 1, argc > 7 ? argv[7] : "CPU"};
  const std::unique_ptr<Side> library(OpenSide(argv[1])(task));
  const std::unique_ptr<Side> by_hand(OpenSide(argv[2])(task));
  library->Forward();
  by_hand->Forward();
  if (library->Answers() != by_hand->Answers()) {
    std::fputs("forward-benchmark: the two sides compute different values\n", stderr);
    return 1;
  }
  benchmark::RegisterBenchmark("Forward", [&](benchmark::State& state) {
    Interleaved times(2);
    for (auto _ : state) {
      times.Run({[&] { library->Forward(); }, [&] { by_hand->Forward(); }});
      state.SetIterationTime(times.LastSeconds(0));
    }
    state.counters["library_ms"] = times.Median(0) * 1e3;
    state.counters["by_hand_ms"] = times.Median(1) * 1e3;
    state.counters["ratio"] = times.Median(0) / times.Median(1);
  })->UseManualTime();
  benchmark::RunSpecifiedBenchmarks();
}
