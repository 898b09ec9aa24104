// The exported wrappers of the element-wise arithmetic families, one macro per
// form. A family file holds one line per operation, e.g. in QX_BADD2.cpp
//
//   QX_ARITH_FORM2(Add, qx::Add, qx::FAdd, 0, 0, "QXybAdd2")
//
// which defines QXnbAdd2, QXybAdd2, QXtbAdd2, QXwbAdd2 and QXsbAdd2: the
// argument checks in their fixed order, the status test, the kernel from
// qx_scale.h and the range report. The macros expand in the family file, so
// every report names that file and the line holding the operation's table line.
//
// Forms:
//   QX_ARITH_FORM2  in place            srcDst[k] = srcDst[k] op src[k]
//   QX_ARITH_FORM3  into a third vector dst[k] = Left[k] op Right[k]
//   QX_ARITH_FORM2S with a scalar       srcDst[k] = srcDst[k] op val
// Their arguments: the operation as the exported names spell it, the integer
// kernel operation, the float operation, and for FORM2 the element orders of
// the unsigned and signed byte forms (qx::scaled's BackModes) and the name the
// unsigned byte form's scaling checks report under; for FORM3 the left and
// right operands (srcA, srcB or srcB, srcA).
#pragma once

#include "kvxpx.h"
#include "qx_report.h"
#include "qx_scale.h"

// A nibble start position's two range checks.
#define QX_ARITH_POS_(pos)                                                                                     \
    r.check(pos < 0, #pos "<0");                                                                               \
    r.check(pos > 1, #pos ">1");

#define QX_ARITH_STATUS_                                                                                       \
    if (qx::Report::failed())                                                                                  \
        return QXGetStatus();

// ------------------------------------------------------------------ in place

#define QX_ARITH_VEC2_(Op, Kernel, prefix, T, E, BackModes, ScalingName)                                       \
    QX_API int QX##prefix##Op##2(const T* src, T* srcDst, int n, int doScale, int* scaleFactor) {              \
        constexpr qx::Report r{"QX" #prefix #Op "2"};                                                          \
        constexpr qx::Report scalingName{ScalingName};                                                         \
        scalingName.scaling(doScale, scaleFactor);                                                             \
        r.checks(n, {{src, "src==0"}, {srcDst, "dst==0"}});                                                    \
        QX_ARITH_STATUS_                                                                                       \
        qx::Outcome o = qx::vec2<E, Kernel, BackModes>(src, srcDst, n, doScale, scaleFactor);                  \
        return r.range(o.over, o.under);                                                                       \
    }

#define QX_ARITH_FORM2(Op, Kernel, FloatOp, U8BackModes, S8BackModes, YbScalingName)                           \
    QX_API int QXnb##Op##2(const unsigned char* src, unsigned char* srcDst, int srcStartPos, int dstStartPos,  \
                           int n, int doScale, int* scaleFactor) {                                             \
        constexpr qx::Report r{"QXnb" #Op "2"};                                                                \
        QX_ARITH_POS_(srcStartPos)                                                                             \
        QX_ARITH_POS_(dstStartPos)                                                                             \
        r.scaling(doScale, scaleFactor);                                                                       \
        r.checks(n, {{src, "src==0"}, {srcDst, "dst==0"}});                                                    \
        QX_ARITH_STATUS_                                                                                       \
        qx::Outcome o = qx::nib2<Kernel>(src, srcDst, srcStartPos, dstStartPos, n, doScale, scaleFactor);      \
        return r.range(o.over, o.under);                                                                       \
    }                                                                                                          \
    QX_ARITH_VEC2_(Op, Kernel, yb, unsigned char, qx::U8, U8BackModes, YbScalingName)                          \
    QX_ARITH_VEC2_(Op, Kernel, tb, signed char, qx::S8, S8BackModes, "QXtb" #Op "2")                           \
    QX_ARITH_VEC2_(Op, Kernel, wb, short, qx::S16, 0, "QXwb" #Op "2")                                          \
    QX_API int QXsb##Op##2(const float* src, float* srcDst, int n) {                                           \
        constexpr qx::Report r{"QXsb" #Op "2"};                                                                \
        r.checks(n, {{src, "src==0"}, {srcDst, "dst==0"}});                                                    \
        QX_ARITH_STATUS_                                                                                       \
        qx::float_map(srcDst, src, srcDst, n, FloatOp{});                                                      \
        return 0;                                                                                              \
    }

// -------------------------------------------------------- into a third vector

#define QX_ARITH_CHECKS3_                                                                                      \
    r.scaling(doScale, scaleFactor);                                                                           \
    r.checks(n, {{srcA, "srcA==0"}, {srcB, "srcB==0"}, {dst, "dst==0"}});                                      \
    QX_ARITH_STATUS_

#define QX_ARITH_VEC3_(Op, Kernel, Left, Right, prefix, T, E)                                                  \
    QX_API int QX##prefix##Op##3(const T* srcA, const T* srcB, T* dst, int n, int doScale, int* scaleFactor) { \
        constexpr qx::Report r{"QX" #prefix #Op "3"};                                                          \
        QX_ARITH_CHECKS3_                                                                                      \
        qx::Outcome o = qx::vec3<E, Kernel>(Left, Right, dst, n, doScale, scaleFactor);                        \
        return r.range(o.over, o.under);                                                                       \
    }

#define QX_ARITH_FORM3(Op, Kernel, FloatOp, Left, Right)                                                       \
    QX_API int QXnb##Op##3(const unsigned char* srcA, const unsigned char* srcB, unsigned char* dst,           \
                           int srcStartPos, int dstStartPos, int n, int doScale, int* scaleFactor) {           \
        constexpr qx::Report r{"QXnb" #Op "3"};                                                                \
        QX_ARITH_POS_(srcStartPos)                                                                             \
        QX_ARITH_POS_(dstStartPos)                                                                             \
        QX_ARITH_CHECKS3_                                                                                      \
        qx::Outcome o = qx::nib3<Kernel>(Left, Right, dst, srcStartPos, dstStartPos, n, doScale, scaleFactor); \
        return r.range(o.over, o.under);                                                                       \
    }                                                                                                          \
    QX_ARITH_VEC3_(Op, Kernel, Left, Right, yb, unsigned char, qx::U8)                                         \
    QX_ARITH_VEC3_(Op, Kernel, Left, Right, tb, signed char, qx::S8)                                           \
    QX_ARITH_VEC3_(Op, Kernel, Left, Right, wb, short, qx::S16)                                                \
    QX_API int QXsb##Op##3(const float* srcA, const float* srcB, float* dst, int n) {                          \
        constexpr qx::Report r{"QXsb" #Op "3"};                                                                \
        r.checks(n, {{srcA, "srcA==0"}, {srcB, "srcB==0"}, {dst, "dst==0"}});                                  \
        QX_ARITH_STATUS_                                                                                       \
        qx::float_map(Left, Right, dst, n, FloatOp{});                                                         \
        return 0;                                                                                              \
    }

// --------------------------------------------------------------- with a scalar

#define QX_ARITH_CHECKS2S_                                                                                     \
    r.scaling(doScale, scaleFactor);                                                                           \
    r.checks(n, {{srcDst, "dst==0"}});                                                                         \
    QX_ARITH_STATUS_

#define QX_ARITH_VEC2S_(Op, Kernel, prefix, T, E)                                                              \
    QX_API int QX##prefix##Op##2s(T val, T* srcDst, int n, int doScale, int* scaleFactor) {                    \
        constexpr qx::Report r{"QX" #prefix #Op "2s"};                                                         \
        QX_ARITH_CHECKS2S_                                                                                     \
        qx::Outcome o = qx::vec2s<E, Kernel>(val, srcDst, n, doScale, scaleFactor);                            \
        return r.range(o.over, o.under);                                                                       \
    }

#define QX_ARITH_FORM2S(Op, Kernel, FloatOp)                                                                   \
    QX_API int QXnb##Op##2s(unsigned char val, unsigned char* srcDst, int dstStartPos, int n, int doScale,     \
                            int* scaleFactor) {                                                                \
        constexpr qx::Report r{"QXnb" #Op "2s"};                                                               \
        QX_ARITH_POS_(dstStartPos)                                                                             \
        QX_ARITH_CHECKS2S_                                                                                     \
        qx::Outcome o = qx::nib2s<Kernel>(val, srcDst, dstStartPos, n, doScale, scaleFactor);                  \
        return r.range(o.over, o.under);                                                                       \
    }                                                                                                          \
    QX_ARITH_VEC2S_(Op, Kernel, yb, unsigned char, qx::U8)                                                     \
    QX_ARITH_VEC2S_(Op, Kernel, tb, signed char, qx::S8)                                                       \
    QX_ARITH_VEC2S_(Op, Kernel, wb, short, qx::S16)                                                            \
    QX_API int QXsb##Op##2s(float val, float* srcDst, int n) {                                                 \
        constexpr qx::Report r{"QXsb" #Op "2s"};                                                               \
        r.checks(n, {{srcDst, "dst==0"}});                                                                     \
        QX_ARITH_STATUS_                                                                                       \
        qx::float_map_scalar(srcDst, val, srcDst, n, FloatOp{});                                               \
        return 0;                                                                                              \
    }
