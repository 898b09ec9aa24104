// In-place element-wise multiplication: srcDst[k] = srcDst[k] * src[k].
#include "kvxpx.h"
#include "qx_report.h"
#include "qx_scale.h"

extern "C" {

QX_API int QXsbMpy2(const float* src, float* srcDst, int n) {
    constexpr qx::Report r{"QXsbMpy2"};
    r.check(n <= 0, "n<=0");
    r.check(src == nullptr, "src==0");
    r.check(srcDst == nullptr, "dst==0");
    if (qx::Report::failed())
        return QXGetStatus();
    qx::float_map(srcDst, src, srcDst, n, qx::FMul{});
    return 0;
}

}  // extern "C"
