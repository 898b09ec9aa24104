// Element-wise multiplication into a third vector: dst[k] = srcA[k] * srcB[k].
#include "kvxpx.h"
#include "qx_report.h"
#include "qx_scale.h"

extern "C" {

QX_API int QXnbMpy3(const unsigned char* srcA, const unsigned char* srcB, unsigned char* dst, int srcStartPos, int dstStartPos, int n, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXnbMpy3"};
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
    qx::Outcome o = qx::nib3<qx::Mul>(srcA, srcB, dst, srcStartPos, dstStartPos, n, doScale, scaleFactor);
    return r.range(o.over, o.under);
}

QX_API int QXybMpy3(const unsigned char* srcA, const unsigned char* srcB, unsigned char* dst, int n, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXybMpy3"};
    r.scaling(doScale, scaleFactor);
    r.check(n <= 0, "n<=0");
    r.check(srcA == nullptr, "srcA==0");
    r.check(srcB == nullptr, "srcB==0");
    r.check(dst == nullptr, "dst==0");
    if (qx::Report::failed())
        return QXGetStatus();
    qx::Outcome o = qx::vec3<qx::U8, qx::Mul>(srcA, srcB, dst, n, doScale, scaleFactor);
    return r.range(o.over, o.under);
}

QX_API int QXtbMpy3(const signed char* srcA, const signed char* srcB, signed char* dst, int n, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXtbMpy3"};
    r.scaling(doScale, scaleFactor);
    r.check(n <= 0, "n<=0");
    r.check(srcA == nullptr, "srcA==0");
    r.check(srcB == nullptr, "srcB==0");
    r.check(dst == nullptr, "dst==0");
    if (qx::Report::failed())
        return QXGetStatus();
    qx::Outcome o = qx::vec3<qx::S8, qx::Mul>(srcA, srcB, dst, n, doScale, scaleFactor);
    return r.range(o.over, o.under);
}

QX_API int QXwbMpy3(const short* srcA, const short* srcB, short* dst, int n, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXwbMpy3"};
    r.scaling(doScale, scaleFactor);
    r.check(n <= 0, "n<=0");
    r.check(srcA == nullptr, "srcA==0");
    r.check(srcB == nullptr, "srcB==0");
    r.check(dst == nullptr, "dst==0");
    if (qx::Report::failed())
        return QXGetStatus();
    qx::Outcome o = qx::vec3<qx::S16, qx::Mul>(srcA, srcB, dst, n, doScale, scaleFactor);
    return r.range(o.over, o.under);
}

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
