// A host that links neither the library nor an engine: it loads a module, builds a network of
// NAME.xml or another form in it, runs it twice and deletes it, and prints as JSON what each of
// these steps took and what the process held after it.
//
// usage: memory-host MODULE NAME [LIBRARY...]
//
// The libraries are loaded before the module: with all that the library links, what is left between
// the library and the same by hand is its own.
#include <link.h>
#include <malloc.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <memory>
#include <string>

#include "side.h"

namespace {

void Step(const char* name, const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  const std::chrono::duration<double, std::milli> taken = std::chrono::steady_clock::now() - start;
  malloc_trim(0);  // what has been freed counts for nobody
  std::ifstream rollup("/proc/self/smaps_rollup");
  std::string word;
  while (rollup >> word && word != "Rss:") {
  }
  std::size_t rss = 0;
  rollup >> rss;
  int libraries = -2;  // without the program and what the kernel gives
  dl_iterate_phdr(
      [](dl_phdr_info*, std::size_t, void* count) { return ++*static_cast<int*>(count), 0; },
      &libraries);
  static char separator = '{';
  std::printf("%c\"%s\": {\"ms\": %.3f, \"rss_kib\": %zu, \"libraries\": %d}\n", separator, name,
              taken.count(), rss, libraries);
  separator = ',';
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fputs("usage: memory-host MODULE NAME [LIBRARY...]\n", stderr);
    return 2;
  }
  for (int i = 3; i < argc; ++i) {
    Open(argv[i]);
  }
  LoadFunction* load = nullptr;
  Step("dlopen", [&] { load = OpenSide(argv[1]); });
  std::unique_ptr<Side> network;
  Step("create", [&] { network.reset(load({argv[2], 224, 224})); });
  Step("forward", [&] {
    network->Forward();
    network->Forward();
  });
  Step("delete", [&] { network.reset(); });
  std::puts("}");
}
