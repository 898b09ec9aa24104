// Element-wise addition into a third vector: dst[k] = srcA[k] + srcB[k].
#include "qx_arith_forms.h"

extern "C" {

QX_ARITH_FORM3(Add, qx::Add, qx::FAdd, srcA, srcB)

}  // extern "C"
