// In-place element-wise subtraction: srcDst[k] = srcDst[k] - src[k].
// The unsigned byte form runs from the last element to the first, except in
// the automatic mode.
#include "qx_arith_forms.h"

extern "C" {

QX_ARITH_FORM2(Sub, qx::Sub, qx::FSub, 0b1011, 0, "QXybSub2")

}  // extern "C"
