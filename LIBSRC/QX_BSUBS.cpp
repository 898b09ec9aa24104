// Subtraction of a scalar: srcDst[k] = srcDst[k] - val.
#include "kvxpx.h"
#include "qx_report.h"
#include "qx_scale.h"

extern "C" {

QX_API int QXnbSub2s(unsigned char val, unsigned char* srcDst, int dstStartPos, int n, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXnbSub2s"};
    r.check(dstStartPos < 0, "dstStartPos<0");
    r.check(dstStartPos > 1, "dstStartPos>1");
    r.scaling(doScale, scaleFactor);
    r.check(n <= 0, "n<=0");
    r.check(srcDst == nullptr, "dst==0");
    if (qx::Report::failed())
        return QXGetStatus();
    qx::Outcome o = qx::nib2s<qx::Sub>(val, srcDst, dstStartPos, n, doScale, scaleFactor);
    return r.range(o.over, o.under);
}

QX_API int QXybSub2s(unsigned char val, unsigned char* srcDst, int n, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXybSub2s"};
    r.scaling(doScale, scaleFactor);
    r.check(n <= 0, "n<=0");
    r.check(srcDst == nullptr, "dst==0");
    if (qx::Report::failed())
        return QXGetStatus();
    qx::Outcome o = qx::vec2s<qx::U8, qx::Sub>(val, srcDst, n, doScale, scaleFactor);
    return r.range(o.over, o.under);
}

QX_API int QXtbSub2s(signed char val, signed char* srcDst, int n, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXtbSub2s"};
    r.scaling(doScale, scaleFactor);
    r.check(n <= 0, "n<=0");
    r.check(srcDst == nullptr, "dst==0");
    if (qx::Report::failed())
        return QXGetStatus();
    qx::Outcome o = qx::vec2s<qx::S8, qx::Sub>(val, srcDst, n, doScale, scaleFactor);
    return r.range(o.over, o.under);
}

QX_API int QXwbSub2s(short val, short* srcDst, int n, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXwbSub2s"};
    r.scaling(doScale, scaleFactor);
    r.check(n <= 0, "n<=0");
    r.check(srcDst == nullptr, "dst==0");
    if (qx::Report::failed())
        return QXGetStatus();
    qx::Outcome o = qx::vec2s<qx::S16, qx::Sub>(val, srcDst, n, doScale, scaleFactor);
    return r.range(o.over, o.under);
}

QX_API int QXsbSub2s(float val, float* srcDst, int n) {
    constexpr qx::Report r{"QXsbSub2s"};
    r.check(n <= 0, "n<=0");
    r.check(srcDst == nullptr, "dst==0");
    if (qx::Report::failed())
        return QXGetStatus();
    qx::float_map_scalar(srcDst, val, srcDst, n, qx::FSub{});
    return 0;
}

}  // extern "C"
