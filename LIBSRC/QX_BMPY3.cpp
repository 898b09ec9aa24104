// Element-wise multiplication into a third vector: dst[k] = srcA[k] * srcB[k].
#include "kvxpx.h"
#include "qx_report.h"
#include "qx_scale.h"

extern "C" {

QX_API int QXsbMpy3(const float* srcA, const float* srcB, float* dst, int n) {
    constexpr qx::Report r{"QXsbMpy3"};
    r.check(n <= 0, "n<=0");
    r.check(srcA == nullptr, "srcA==0");
    r.check(srcB == nullptr, "srcB==0");
    r.check(dst == nullptr, "dst==0");
    if (qx::Report::failed())
        return QXGetStatus();
    qx::float_map(srcA, srcB, dst, n, qx::FMul{});
    return 0;
}

}  // extern "C"
