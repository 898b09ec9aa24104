// The cost of the reporting path: a call that fails its checks in silent mode.
#include <benchmark/benchmark.h>

#include "kvxpx.h"

static void BM_ErrorPathSilent(benchmark::State& state) {
    QXSetErrMode(QX_ErrorModeSilent);
    for (auto _ : state) {
        benchmark::DoNotOptimize(QX_Free2(nullptr, 0));
        QXSetStatus(0);
    }
    QXSetErrMode(QX_ErrorModeParent);
}
BENCHMARK(BM_ErrorPathSilent);
