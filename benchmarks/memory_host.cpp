// A host that links neither the library nor an engine: it loads a module, builds a network of
// NAME.xml or another form in it, runs and deletes it, and prints one line of JSON for each step.
//
// usage: memory-host MODULE NAME [LIBRARY...]
//
// The libraries are loaded before the module: with all that the library links, what is left between
// the library and the same by hand is its own.
#include <dlfcn.h>
#include <malloc.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <set>
#include <string>

#include "side.h"

namespace {

/// Runs the step and tells what it took and what the process is afterwards.
template <typename Work>
void Step(const char* name, Work work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  const std::chrono::duration<double, std::milli> taken = std::chrono::steady_clock::now() - start;
  malloc_trim(0);  // what has been freed counts for nobody
  std::size_t rss = 0;
  std::ifstream rollup("/proc/self/smaps_rollup");
  for (std::string line; std::getline(rollup, line);) {
    rss = line.starts_with("Rss:") ? std::stoul(line.substr(4)) : rss;
  }
  std::set<std::string> libraries;
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    if (const std::size_t path = line.find('/');
        path != std::string::npos && line.find(".so", path) != std::string::npos) {
      libraries.insert(line.substr(path));
    }
  }
  std::printf("{\"step\": \"%s\", \"ms\": %.3f, \"rss_kib\": %zu, \"libraries\": %zu}\n", name,
              taken.count(), rss, libraries.size());
}

int Fail(const char* what) {
  std::fprintf(stderr, "%s\n", what);
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    return Fail("usage: memory-host MODULE NAME [LIBRARY...]");
  }
  Step("start", [] {});
  if (argc > 3) {
    bool loaded = true;
    Step("preload", [&] {
      for (int i = 3; i < argc; ++i) {
        loaded = dlopen(argv[i], RTLD_NOW | RTLD_LOCAL) != nullptr && loaded;
      }
    });
    if (!loaded) {
      return Fail(dlerror());
    }
  }
  LoadFunction* load = nullptr;
  Step("dlopen", [&] {
    if (void* const module = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL); module != nullptr) {
      load = reinterpret_cast<LoadFunction*>(dlsym(module, "Load"));
    }
  });
  if (load == nullptr) {
    return Fail(dlerror());
  }
  Side* network = nullptr;
  Step("create", [&] { network = load({argv[2], 224, 224, 1, "CPU"}); });
  if (network == nullptr) {
    return 1;
  }
  Step("first forward", [&] { network->Forward(); });
  Step("second forward", [&] { network->Forward(); });
  Step("delete", [&] { delete network; });
  return 0;
}
