// In-place element-wise multiplication: srcDst[k] = srcDst[k] * src[k].
// The unsigned and signed byte forms run from the last element to the first in
// the fixed-shift and saturating modes.
#include "kvxpx.h"
#include "qx_report.h"
#include "qx_scale.h"

extern "C" {

QX_API int QXnbMpy2(const unsigned char* src, unsigned char* srcDst, int srcStartPos, int dstStartPos, int n, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXnbMpy2"};
    r.check(srcStartPos < 0, "srcStartPos<0");
    r.check(srcStartPos > 1, "srcStartPos>1");
    r.check(dstStartPos < 0, "dstStartPos<0");
    r.check(dstStartPos > 1, "dstStartPos>1");
    r.scaling(doScale, scaleFactor);
    r.check(n <= 0, "n<=0");
    r.check(src == nullptr, "src==0");
    r.check(srcDst == nullptr, "dst==0");
    if (qx::Report::failed())
        return QXGetStatus();
    qx::Outcome o = qx::nib2<qx::Mul>(src, srcDst, srcStartPos, dstStartPos, n, doScale, scaleFactor);
    return r.range(o.over, o.under);
}

QX_API int QXybMpy2(const unsigned char* src, unsigned char* srcDst, int n, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXybMpy2"};
    constexpr qx::Report scalingName{"QXtbMpy2"};  // the scaling checks report under this name
    scalingName.scaling(doScale, scaleFactor);
    r.check(n <= 0, "n<=0");
    r.check(src == nullptr, "src==0");
    r.check(srcDst == nullptr, "dst==0");
    if (qx::Report::failed())
        return QXGetStatus();
    qx::Outcome o = qx::vec2<qx::U8, qx::Mul, 0b1010>(src, srcDst, n, doScale, scaleFactor);
    return r.range(o.over, o.under);
}

QX_API int QXtbMpy2(const signed char* src, signed char* srcDst, int n, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXtbMpy2"};
    r.scaling(doScale, scaleFactor);
    r.check(n <= 0, "n<=0");
    r.check(src == nullptr, "src==0");
    r.check(srcDst == nullptr, "dst==0");
    if (qx::Report::failed())
        return QXGetStatus();
    qx::Outcome o = qx::vec2<qx::S8, qx::Mul, 0b1010>(src, srcDst, n, doScale, scaleFactor);
    return r.range(o.over, o.under);
}

QX_API int QXwbMpy2(const short* src, short* srcDst, int n, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXwbMpy2"};
    r.scaling(doScale, scaleFactor);
    r.check(n <= 0, "n<=0");
    r.check(src == nullptr, "src==0");
    r.check(srcDst == nullptr, "dst==0");
    if (qx::Report::failed())
        return QXGetStatus();
    qx::Outcome o = qx::vec2<qx::S16, qx::Mul>(src, srcDst, n, doScale, scaleFactor);
    return r.range(o.over, o.under);
}

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
