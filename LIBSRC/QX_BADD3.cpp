// Element-wise addition into a third vector: dst[k] = srcA[k] + srcB[k].
#include "kvxpx.h"
#include "qx_report.h"
#include "qx_scale.h"

extern "C" {

QX_API int QXnbAdd3(const unsigned char* srcA, const unsigned char* srcB, unsigned char* dst, int srcStartPos, int dstStartPos, int n, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXnbAdd3"};
    r.check(srcStartPos < 0, "srcStartPos<0");
    r.check(srcStartPos > 1, "srcStartPos>1");
    r.check(dstStartPos < 0, "dstStartPos<0");
    r.check(dstStartPos > 1, "dstStartPos>1");
    r.scaling(doScale, scaleFactor);
    r.check(n <= 0, "n<=0");
    r.check(srcA == nullptr, "srcA==0");
    r.check(srcB == nullptr, "srcB==0");
    r.check(dst == nullptr, "dst==0");
    if (qx::Report::failed())
        return QXGetStatus();
    qx::Outcome o = qx::nib3<qx::Add>(srcA, srcB, dst, srcStartPos, dstStartPos, n, doScale, scaleFactor);
    return r.range(o.over, o.under);
}

QX_API int QXybAdd3(const unsigned char* srcA, const unsigned char* srcB, unsigned char* dst, int n, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXybAdd3"};
    r.scaling(doScale, scaleFactor);
    r.check(n <= 0, "n<=0");
    r.check(srcA == nullptr, "srcA==0");
    r.check(srcB == nullptr, "srcB==0");
    r.check(dst == nullptr, "dst==0");
    if (qx::Report::failed())
        return QXGetStatus();
    qx::Outcome o = qx::vec3<qx::U8, qx::Add>(srcA, srcB, dst, n, doScale, scaleFactor);
    return r.range(o.over, o.under);
}

QX_API int QXtbAdd3(const signed char* srcA, const signed char* srcB, signed char* dst, int n, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXtbAdd3"};
    r.scaling(doScale, scaleFactor);
    r.check(n <= 0, "n<=0");
    r.check(srcA == nullptr, "srcA==0");
    r.check(srcB == nullptr, "srcB==0");
    r.check(dst == nullptr, "dst==0");
    if (qx::Report::failed())
        return QXGetStatus();
    qx::Outcome o = qx::vec3<qx::S8, qx::Add>(srcA, srcB, dst, n, doScale, scaleFactor);
    return r.range(o.over, o.under);
}

QX_API int QXwbAdd3(const short* srcA, const short* srcB, short* dst, int n, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXwbAdd3"};
    r.scaling(doScale, scaleFactor);
    r.check(n <= 0, "n<=0");
    r.check(srcA == nullptr, "srcA==0");
    r.check(srcB == nullptr, "srcB==0");
    r.check(dst == nullptr, "dst==0");
    if (qx::Report::failed())
        return QXGetStatus();
    qx::Outcome o = qx::vec3<qx::S16, qx::Add>(srcA, srcB, dst, n, doScale, scaleFactor);
    return r.range(o.over, o.under);
}

QX_API int QXsbAdd3(const float* srcA, const float* srcB, float* dst, int n) {
    constexpr qx::Report r{"QXsbAdd3"};
    r.check(n <= 0, "n<=0");
    r.check(srcA == nullptr, "srcA==0");
    r.check(srcB == nullptr, "srcB==0");
    r.check(dst == nullptr, "dst==0");
    if (qx::Report::failed())
        return QXGetStatus();
    qx::float_map(srcA, srcB, dst, n, qx::FAdd{});
    return 0;
}

}  // extern "C"
