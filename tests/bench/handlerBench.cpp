#include "handlerBench.h"

loadedAgent& loaded() {
  static loadedAgent& agent = *new loadedAgent("mutexprofiling_memoryprofiling_exceptionprofiling");
  return agent;
}

BENCHMARK_MAIN();
