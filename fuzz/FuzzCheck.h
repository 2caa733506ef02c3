// An invariant of a fuzz target: names the broken one, then traps.
#pragma once

#include <cstdio>

#define CHECK(cond)                                                               \
  do {                                                                            \
    if (!(cond)) {                                                                \
      std::fprintf(stderr, "invariant broken at line %d: %s\n", __LINE__, #cond); \
      __builtin_trap();                                                           \
    }                                                                             \
  } while (0)
