// Multiplication by a scalar: srcDst[k] = srcDst[k] * val.
#include "kvxpx.h"
#include "qx_report.h"
#include "qx_scale.h"

extern "C" {

QX_API int QXsbMpy2s(float val, float* srcDst, int n) {
    constexpr qx::Report r{"QXsbMpy2s"};
    r.check(n <= 0, "n<=0");
    r.check(srcDst == nullptr, "dst==0");
    if (qx::Report::failed())
        return QXGetStatus();
    qx::float_map_scalar(srcDst, val, srcDst, n, qx::FMul{});
    return 0;
}

}  // extern "C"
