// Multiplication of a scalar: srcDst[k] = srcDst[k] * val.
#include "kvxpx.h"
#include "qx_report.h"
#include "qx_scale.h"

extern "C" {

QX_API int QXnbMpy2s(unsigned char val, unsigned char* srcDst, int dstStartPos, int n, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXnbMpy2s"};
    r.check(dstStartPos < 0, "dstStartPos<0");
    r.check(dstStartPos > 1, "dstStartPos>1");
    r.scaling(doScale, scaleFactor);
    r.check(n <= 0, "n<=0");
    r.check(srcDst == nullptr, "dst==0");
    if (qx::Report::failed())
        return QXGetStatus();
    qx::Outcome o = qx::nib2s<qx::Mul>(val, srcDst, dstStartPos, n, doScale, scaleFactor);
    return r.range(o.over, o.under);
}

QX_API int QXybMpy2s(unsigned char val, unsigned char* srcDst, int n, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXybMpy2s"};
    r.scaling(doScale, scaleFactor);
    r.check(n <= 0, "n<=0");
    r.check(srcDst == nullptr, "dst==0");
    if (qx::Report::failed())
        return QXGetStatus();
    qx::Outcome o = qx::vec2s<qx::U8, qx::Mul>(val, srcDst, n, doScale, scaleFactor);
    return r.range(o.over, o.under);
}

QX_API int QXtbMpy2s(signed char val, signed char* srcDst, int n, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXtbMpy2s"};
    r.scaling(doScale, scaleFactor);
    r.check(n <= 0, "n<=0");
    r.check(srcDst == nullptr, "dst==0");
    if (qx::Report::failed())
        return QXGetStatus();
    qx::Outcome o = qx::vec2s<qx::S8, qx::Mul>(val, srcDst, n, doScale, scaleFactor);
    return r.range(o.over, o.under);
}

QX_API int QXwbMpy2s(short val, short* srcDst, int n, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXwbMpy2s"};
    r.scaling(doScale, scaleFactor);
    r.check(n <= 0, "n<=0");
    r.check(srcDst == nullptr, "dst==0");
    if (qx::Report::failed())
        return QXGetStatus();
    qx::Outcome o = qx::vec2s<qx::S16, qx::Mul>(val, srcDst, n, doScale, scaleFactor);
    return r.range(o.over, o.under);
}

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
