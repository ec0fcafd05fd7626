#pragma once

#include <gtest/gtest.h>

#include "Lan.h"

#define VARNOCK_REQUIRE_LAN()                                                        \
  do {                                                                               \
    if (!Lan::haveRoot())                                                            \
      GTEST_SKIP() << "needs root to build the simulated LAN of network namespaces"; \
  } while (0)
