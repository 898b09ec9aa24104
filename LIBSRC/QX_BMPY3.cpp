// Element-wise multiplication into a third vector: dst[k] = srcA[k] * srcB[k].
#include "qx_arith_forms.h"

extern "C" {

QX_ARITH_FORM3(Mpy, qx::Mul, qx::FMul, srcA, srcB)

}  // extern "C"
