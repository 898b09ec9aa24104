// In-place element-wise subtraction: srcDst[k] = srcDst[k] - src[k].
// The unsigned byte form runs from the last element to the first, except in
// the automatic mode.
#include "kvxpx.h"
#include "qx_report.h"
#include "qx_scale.h"

extern "C" {

QX_API int QXnbSub2(const unsigned char* src, unsigned char* srcDst, int srcStartPos, int dstStartPos, int n, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXnbSub2"};
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
    qx::Outcome o = qx::nib2<qx::Sub>(src, srcDst, srcStartPos, dstStartPos, n, doScale, scaleFactor);
    return r.range(o.over, o.under);
}

QX_API int QXybSub2(const unsigned char* src, unsigned char* srcDst, int n, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXybSub2"};
    r.scaling(doScale, scaleFactor);
    r.check(n <= 0, "n<=0");
    r.check(src == nullptr, "src==0");
    r.check(srcDst == nullptr, "dst==0");
    if (qx::Report::failed())
        return QXGetStatus();
    qx::Outcome o = qx::vec2<qx::U8, qx::Sub, 0b1011>(src, srcDst, n, doScale, scaleFactor);
    return r.range(o.over, o.under);
}

QX_API int QXtbSub2(const signed char* src, signed char* srcDst, int n, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXtbSub2"};
    r.scaling(doScale, scaleFactor);
    r.check(n <= 0, "n<=0");
    r.check(src == nullptr, "src==0");
    r.check(srcDst == nullptr, "dst==0");
    if (qx::Report::failed())
        return QXGetStatus();
    qx::Outcome o = qx::vec2<qx::S8, qx::Sub>(src, srcDst, n, doScale, scaleFactor);
    return r.range(o.over, o.under);
}

QX_API int QXwbSub2(const short* src, short* srcDst, int n, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXwbSub2"};
    r.scaling(doScale, scaleFactor);
    r.check(n <= 0, "n<=0");
    r.check(src == nullptr, "src==0");
    r.check(srcDst == nullptr, "dst==0");
    if (qx::Report::failed())
        return QXGetStatus();
    qx::Outcome o = qx::vec2<qx::S16, qx::Sub>(src, srcDst, n, doScale, scaleFactor);
    return r.range(o.over, o.under);
}

QX_API int QXsbSub2(const float* src, float* srcDst, int n) {
    constexpr qx::Report r{"QXsbSub2"};
    r.check(n <= 0, "n<=0");
    r.check(src == nullptr, "src==0");
    r.check(srcDst == nullptr, "dst==0");
    if (qx::Report::failed())
        return QXGetStatus();
    qx::float_map(srcDst, src, srcDst, n, qx::FSub{});
    return 0;
}

}  // extern "C"
