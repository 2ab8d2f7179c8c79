// The libFuzzer entry of one fuzz target, chosen at build time
// (QEN_FUZZ_TARGET, a name of QenFuzz::Targets()).
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Fuzz.h"

namespace {
QenFuzz::Entry g_entry = nullptr;
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  for (const QenFuzz::Target& target : QenFuzz::Targets()) {
    if (std::strcmp(target.name, QEN_FUZZ_TARGET) == 0) g_entry = target.entry;
  }
  if (!g_entry) {
    std::fprintf(stderr, "no fuzz target named %s\n", QEN_FUZZ_TARGET);
    std::abort();
  }
  QenFuzz::Host();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) { return g_entry(data, size); }
