// In-place element-wise multiplication: srcDst[k] = srcDst[k] * src[k].
// The unsigned and signed byte forms run from the last element to the first in
// the fixed-shift and saturating modes; the unsigned byte form's scaling checks
// report under the signed byte form's name.
#include "qx_arith_forms.h"

extern "C" {

QX_ARITH_FORM2(Mpy, qx::Mul, qx::FMul, 0b1010, 0b1010, "QXtbMpy2")

}  // extern "C"
