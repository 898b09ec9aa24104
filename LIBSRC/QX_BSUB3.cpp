// Element-wise subtraction into a third vector: dst[k] = srcB[k] - srcA[k].
#include "qx_arith_forms.h"

extern "C" {

QX_ARITH_FORM3(Sub, qx::Sub, qx::FSub, srcB, srcA)

}  // extern "C"
