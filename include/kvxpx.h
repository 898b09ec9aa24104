/*
 * kvxpx.h - numeric building blocks for pattern recognisers.
 *
 * The whole public interface of the kvxpx library: every exported function,
 * the records it exchanges with callers and its constants. Plain C99; usable
 * from C, C++ and any foreign-function interface (all names are undecorated).
 *
 * Conventions shared by every function
 * ------------------------------------
 * - Names: QX + type letters + operation + form. Type letters: b bit, n nibble
 *   (unsigned 4 bits), y unsigned byte, t signed byte, w 16-bit short, i 32-bit
 *   int, s float, d double, c complex float (re, im pairs), v complex short.
 *   A second letter b marks the vector (block) form. Forms: 2 = in place with
 *   a second operand, 3 = into a separate destination, 2s = with a scalar,
 *   Nip = not in place.
 * - Every call checks its arguments in a fixed order, reports each failed
 *   check through QXError (code QX_StsBadArg) and then returns at once if the
 *   status word (QXGetStatus) is negative. The status word is sticky: after an
 *   error in report or silent mode every later call returns immediately until
 *   the caller clears it with QXSetStatus(0).
 * - Integer results of real arithmetic carry a power-of-two scale factor:
 *   the real value is the stored integer times 2^scaleFactor (-64..64).
 *   doScale selects how it is obtained: 0 none (truncate, keep low bits),
 *   1 use *scaleFactor, 2 choose it automatically, 3 saturate. The packed
 *   vector arithmetic gives doScale its own related meanings (see the
 *   "Packed vectors" section).
 * - Packed bit vectors run from the most significant bit of a byte down; a
 *   start position 0..7 names the bit of element 0 (7 = byte aligned). Packed
 *   nibble vectors put the high nibble first; start position 1 = high nibble
 *   (byte aligned), 0 = low nibble. Bits outside a vector are never changed.
 * - Real-to-integer conversions truncate toward zero.
 * - All library state is process wide and unguarded: use the library from one
 *   thread at a time.
 */
#ifndef KVXPX_H
#define KVXPX_H

/* The library's version; QXGetLibraryInfo reports the same three numbers. */
#define KVXPX_VERSION_MAJOR 3
#define KVXPX_VERSION_MINOR 1
#define KVXPX_VERSION_PATCH 4
#define KVXPX_VERSION_STRING "3.1.4"

/* On Windows the functions come from kvxpx.dll; define KVX_STATIC when linking
 * the static archive instead. */
#if defined(_WIN32) && defined(KVX_STATIC)
#  define QX_API
#elif defined(_WIN32)
#  if defined(KVX_BUILDING)
#    define QX_API __declspec(dllexport)
#  else
#    define QX_API __declspec(dllimport)
#  endif
#elif defined(__GNUC__)
#  define QX_API __attribute__((visibility("default")))
#else
#  define QX_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ======================================================================
 * Status, errors and error handlers
 * ====================================================================== */

/* Error and status codes (QXErrorStr gives their texts). */
#define QX_StsOk           0   /* "No Error" */
#define QX_StsBackTrace   (-1) /* "Backtrace": a trace record, not an error */
#define QX_StsError       (-2) /* "Unknown error" */
#define QX_StsInternal    (-3) /* "Internal error (bad state)" */
#define QX_StsNoMem       (-4) /* "Out of memory" */
#define QX_StsBadArg      (-5) /* "Bad argument" */
#define QX_StsBadFunc     (-6) /* "Unsupported function" */
#define QX_StsNoConv      (-7) /* "Iteration convergence failed" */
#define QX_StsAutoTrace   (-8) /* "Autotrace call": a trace record, not an error */
#define QX_StsOverflow   (-20) /* "Overflow occured" */
#define QX_StsUnderflow  (-21) /* "Underflow occured" */

/* Error modes (QXSetErrMode). The handlers test only for 0 and 2; any other
 * value behaves as report mode. */
#define QX_ErrorModeLeaf    0 /* report, then terminate the process */
#define QX_ErrorModeParent  1 /* report, record the code, return it (default) */
#define QX_ErrorModeSilent  2 /* record the code and return it, print nothing */

/* An error handler: receives the code, the reporting function's name, the
 * failed condition as written (or "" for overflow), the library source file
 * and line; returns the code the reporting function passes on. */
typedef int (*QXErrorCallback)(int code, const char* functionName, const char* conditionText,
                               const char* sourceFile, int line);

QX_API int QXGetStatus(void);
QX_API void QXSetStatus(int status);      /* QXSetStatus(0) clears a pending error */
QX_API int QXGetErrMode(void);
QX_API void QXSetErrMode(int mode);       /* not checked */

/* Calls the current handler with the same arguments and returns its result. */
QX_API int QXError(int code, const char* functionName, const char* conditionText,
                   const char* sourceFile, int line);

/* Install a handler and return the previous one. QXRedirectError(NULL)
 * installs the console handler QXStdError. */
QX_API QXErrorCallback QXRedirectError(QXErrorCallback handler);
QX_API QXErrorCallback QXSetStdError(void);
QX_API QXErrorCallback QXSetWinError(void);

/* The console handler: writes the report to stderr. In report mode a bad
 * argument prints
 *   "KVX Error: Bad argument \n\tin function\n\t[<file>:<line>]:<name>():\n\t<condition>\n".
 * Codes -1 and -8 print "\tcalled from\n" records and leave the status alone
 * (in silent mode only -1 is exempt). Mode 0 prints
 * "KVX: terminating the application" and exits with code 1. */
QX_API int QXStdError(int code, const char* functionName, const char* conditionText,
                      const char* sourceFile, int line);

/* The message-box handler: on Windows an OK/Cancel message box (Cancel ends
 * the process), in mode 0 followed by a Yes/No question whether to terminate.
 * Elsewhere the same two questions are asked on the terminal, answered on
 * standard input ("o"/"c", "y"/"n"); when standard input is not a terminal
 * or gives no answer the answers are OK and No, so that a process without a
 * user is never ended by it. Codes -1 and -8 are exempt from the status word
 * in every mode. */
QX_API int QXWinError(int code, const char* functionName, const char* conditionText,
                      const char* sourceFile, int line);

/* Text of a code; an unknown code is formatted as "Unknown error code %d"
 * (negative) or "Unknown status code %d" into one shared buffer that the next
 * such call overwrites. */
QX_API const char* QXErrorStr(int code);

/* ======================================================================
 * Row-pointer arrays ("2D arrays") and tables
 * ======================================================================
 * QX?Alloc2(nRows, nCols): an array of nRows pointers, each row its own heap
 * block; release with QX?Free2 (or QX_Free2). QX?AllocTable(nRows, nCols):
 * the same pointers into one contiguous block; release with QX?FreeTable (or
 * QX_FreeTable). Row sizes in bytes: b (nCols+7)/8, n (nCols+1)/2, y and t
 * nCols, w 2*nCols, i and s 4*nCols. Contents are not initialised. Both
 * return NULL when nRows or nCols is below 1 or memory runs out. Rows of bit
 * and nibble arrays start on byte boundaries (start positions 7 and 1). */
QX_API unsigned char** QXbAlloc2(int nRows, int nCols);
QX_API unsigned char** QXnAlloc2(int nRows, int nCols);
QX_API unsigned char** QXyAlloc2(int nRows, int nCols);
QX_API signed char**   QXtAlloc2(int nRows, int nCols);
QX_API short**         QXwAlloc2(int nRows, int nCols);
QX_API int**           QXiAlloc2(int nRows, int nCols);
QX_API float**         QXsAlloc2(int nRows, int nCols);

/* Release every row (last to first) and the pointer array. Returns 0, or -1
 * when the status is negative after the checks (nothing is released then). */
QX_API int QX_Free2(void* ptr, int nRows);
QX_API int QXbFree2(unsigned char** ptr, int nRows);
QX_API int QXnFree2(unsigned char** ptr, int nRows);
QX_API int QXyFree2(unsigned char** ptr, int nRows);
QX_API int QXtFree2(signed char** ptr, int nRows);
QX_API int QXwFree2(short** ptr, int nRows);
QX_API int QXiFree2(int** ptr, int nRows);
QX_API int QXsFree2(float** ptr, int nRows);

QX_API unsigned char** QXbAllocTable(int nRows, int nCols);
QX_API unsigned char** QXnAllocTable(int nRows, int nCols);
QX_API unsigned char** QXyAllocTable(int nRows, int nCols);
QX_API signed char**   QXtAllocTable(int nRows, int nCols);
QX_API short**         QXwAllocTable(int nRows, int nCols);
QX_API int**           QXiAllocTable(int nRows, int nCols);
QX_API float**         QXsAllocTable(int nRows, int nCols);

/* Release the data block (row pointer 0) and the pointer array. Returns 0,
 * or -1 for a NULL argument; the status word is not consulted. */
QX_API int QX_FreeTable(void* ptr);
QX_API int QXbFreeTable(unsigned char** ptr);
QX_API int QXnFreeTable(unsigned char** ptr);
QX_API int QXyFreeTable(unsigned char** ptr);
QX_API int QXtFreeTable(signed char** ptr);
QX_API int QXwFreeTable(short** ptr);
QX_API int QXiFreeTable(int** ptr);
QX_API int QXsFreeTable(float** ptr);

/* ======================================================================
 * Library and processor information
 * ====================================================================== */

typedef struct QXLibraryInfo {
    int version;   /* 3 */
    int release;   /* 1 */
    int build;     /* 4 */
} QXLibraryInfo;

typedef struct QXProcessorInfo {
    int family;    /* bits 11..8 of the CPUID signature; 55 for a family-5 processor with MMX */
    int model;     /* bits 7..4; 0 for families below 4 */
    int stepping;  /* bits 3..0; 0 for families below 4 */
    char text[64]; /* e.g. "Pentium [model 2, stepping 12]", or "i386" */
} QXProcessorInfo;

QX_API const char* QXGetSpecificLibraryName(void); /* "kvxpx.dll" */
QX_API QXLibraryInfo* QXGetLibraryInfo(QXLibraryInfo* info);
QX_API void QXGetProcessorInfo(QXProcessorInfo* info);

/* ======================================================================
 * Packed vectors: arithmetic
 * ======================================================================
 * Integer forms take doScale and scaleFactor (never NULL):
 *   0 checked:      wrapped results; *scaleFactor = 0; -20 "Overflow occured"
 *                   and/or -21 "Underflow occured" raised after the loop.
 *   1 fixed shift:  exact results shifted right by *scaleFactor (>= 1), or
 *                   wrapped and shifted left by -*scaleFactor; counts modulo 32.
 *   2 automatic:    add/sub halve every result once if any leaves the range,
 *                   multiplication shifts by the smallest count that makes the
 *                   largest product fit; *scaleFactor receives the shift.
 *   3 saturating:   results clamped to the element range; *scaleFactor = 0.
 * Unsigned subtraction (y, n) saturates at zero in modes 2 and 3.
 * Nibble forms take srcStartPos/dstStartPos (1: high nibble first, 0: low);
 * nibbles outside the vector keep their values. A nibble scalar is taken
 * modulo 16.
 * Float forms compute in floating point and have no scaling arguments.
 * Results: a negative status or error code on failure; otherwise of no meaning. */
/* Add: srcDst[k] = srcDst[k] + src[k]; Add3: dst[k] = srcA[k] + srcB[k]; Add2s: srcDst[k] = srcDst[k] + val. */
QX_API int QXnbAdd2(const unsigned char* src, unsigned char* srcDst, int srcStartPos, int dstStartPos, int n, int doScale, int* scaleFactor);
QX_API int QXnbAdd3(const unsigned char* srcA, const unsigned char* srcB, unsigned char* dst, int srcStartPos, int dstStartPos, int n, int doScale, int* scaleFactor);
QX_API int QXnbAdd2s(unsigned char val, unsigned char* srcDst, int dstStartPos, int n, int doScale, int* scaleFactor);
QX_API int QXybAdd2(const unsigned char* src, unsigned char* srcDst, int n, int doScale, int* scaleFactor);
QX_API int QXybAdd3(const unsigned char* srcA, const unsigned char* srcB, unsigned char* dst, int n, int doScale, int* scaleFactor);
QX_API int QXybAdd2s(unsigned char val, unsigned char* srcDst, int n, int doScale, int* scaleFactor);
QX_API int QXtbAdd2(const signed char* src, signed char* srcDst, int n, int doScale, int* scaleFactor);
QX_API int QXtbAdd3(const signed char* srcA, const signed char* srcB, signed char* dst, int n, int doScale, int* scaleFactor);
QX_API int QXtbAdd2s(signed char val, signed char* srcDst, int n, int doScale, int* scaleFactor);
QX_API int QXwbAdd2(const short* src, short* srcDst, int n, int doScale, int* scaleFactor);
QX_API int QXwbAdd3(const short* srcA, const short* srcB, short* dst, int n, int doScale, int* scaleFactor);
QX_API int QXwbAdd2s(short val, short* srcDst, int n, int doScale, int* scaleFactor);
QX_API int QXsbAdd2(const float* src, float* srcDst, int n);
QX_API int QXsbAdd3(const float* srcA, const float* srcB, float* dst, int n);
QX_API int QXsbAdd2s(float val, float* srcDst, int n);

/* Sub: Sub2: srcDst[k] = srcDst[k] - src[k]; Sub3: dst[k] = srcB[k] - srcA[k]; Sub2s: srcDst[k] = srcDst[k] - val. */
QX_API int QXnbSub2(const unsigned char* src, unsigned char* srcDst, int srcStartPos, int dstStartPos, int n, int doScale, int* scaleFactor);
QX_API int QXnbSub3(const unsigned char* srcA, const unsigned char* srcB, unsigned char* dst, int srcStartPos, int dstStartPos, int n, int doScale, int* scaleFactor);
QX_API int QXnbSub2s(unsigned char val, unsigned char* srcDst, int dstStartPos, int n, int doScale, int* scaleFactor);
QX_API int QXybSub2(const unsigned char* src, unsigned char* srcDst, int n, int doScale, int* scaleFactor);
QX_API int QXybSub3(const unsigned char* srcA, const unsigned char* srcB, unsigned char* dst, int n, int doScale, int* scaleFactor);
QX_API int QXybSub2s(unsigned char val, unsigned char* srcDst, int n, int doScale, int* scaleFactor);
QX_API int QXtbSub2(const signed char* src, signed char* srcDst, int n, int doScale, int* scaleFactor);
QX_API int QXtbSub3(const signed char* srcA, const signed char* srcB, signed char* dst, int n, int doScale, int* scaleFactor);
QX_API int QXtbSub2s(signed char val, signed char* srcDst, int n, int doScale, int* scaleFactor);
QX_API int QXwbSub2(const short* src, short* srcDst, int n, int doScale, int* scaleFactor);
QX_API int QXwbSub3(const short* srcA, const short* srcB, short* dst, int n, int doScale, int* scaleFactor);
QX_API int QXwbSub2s(short val, short* srcDst, int n, int doScale, int* scaleFactor);
QX_API int QXsbSub2(const float* src, float* srcDst, int n);
QX_API int QXsbSub3(const float* srcA, const float* srcB, float* dst, int n);
QX_API int QXsbSub2s(float val, float* srcDst, int n);

/* Mpy: Mpy2: srcDst[k] = srcDst[k] * src[k]; Mpy3: dst[k] = srcA[k] * srcB[k]; Mpy2s: srcDst[k] = srcDst[k] * val. */
QX_API int QXnbMpy2(const unsigned char* src, unsigned char* srcDst, int srcStartPos, int dstStartPos, int n, int doScale, int* scaleFactor);
QX_API int QXnbMpy3(const unsigned char* srcA, const unsigned char* srcB, unsigned char* dst, int srcStartPos, int dstStartPos, int n, int doScale, int* scaleFactor);
QX_API int QXnbMpy2s(unsigned char val, unsigned char* srcDst, int dstStartPos, int n, int doScale, int* scaleFactor);
QX_API int QXybMpy2(const unsigned char* src, unsigned char* srcDst, int n, int doScale, int* scaleFactor);
QX_API int QXybMpy3(const unsigned char* srcA, const unsigned char* srcB, unsigned char* dst, int n, int doScale, int* scaleFactor);
QX_API int QXybMpy2s(unsigned char val, unsigned char* srcDst, int n, int doScale, int* scaleFactor);
QX_API int QXtbMpy2(const signed char* src, signed char* srcDst, int n, int doScale, int* scaleFactor);
QX_API int QXtbMpy3(const signed char* srcA, const signed char* srcB, signed char* dst, int n, int doScale, int* scaleFactor);
QX_API int QXtbMpy2s(signed char val, signed char* srcDst, int n, int doScale, int* scaleFactor);
QX_API int QXwbMpy2(const short* src, short* srcDst, int n, int doScale, int* scaleFactor);
QX_API int QXwbMpy3(const short* srcA, const short* srcB, short* dst, int n, int doScale, int* scaleFactor);
QX_API int QXwbMpy2s(short val, short* srcDst, int n, int doScale, int* scaleFactor);
QX_API int QXsbMpy2(const float* src, float* srcDst, int n);
QX_API int QXsbMpy3(const float* srcA, const float* srcB, float* dst, int n);
QX_API int QXsbMpy2s(float val, float* srcDst, int n);

/* Absolute value (t, w, s) in place and into a second vector. No saturation:
 * -128 (t) and -32768 (w) stay as they are; a float negative zero stays. */
QX_API int QXtbAbs(signed char* srcDst, int n);
QX_API int QXwbAbs(short* srcDst, int n);
QX_API int QXsbAbs(float* srcDst, int n);
QX_API int QXtbAbs2(const signed char* src, signed char* dst, int n);
QX_API int QXwbAbs2(const short* src, short* dst, int n);
QX_API int QXsbAbs2(const float* src, float* dst, int n);

/* Shifts by a common count (modulo 32; a count of at least the element width
 * gives 0 or the sign fill). ShiftR is logical for y and n, arithmetic for
 * t and w. Nibbles are shifted each within its own four bits. */
QX_API int QXybShiftL(unsigned char* srcDst, int n, int shift);
QX_API int QXtbShiftL(signed char* srcDst, int n, int shift);
QX_API int QXwbShiftL(short* srcDst, int n, int shift);
QX_API int QXybShiftR(unsigned char* srcDst, int n, int shift);
QX_API int QXtbShiftR(signed char* srcDst, int n, int shift);
QX_API int QXwbShiftR(short* srcDst, int n, int shift);
QX_API int QXnbShiftL(unsigned char* srcDst, int dstStartPos, int n, int shift);
QX_API int QXnbShiftR(unsigned char* srcDst, int dstStartPos, int n, int shift);

/* Minimum and maximum with the index of the first such element in *position.
 * Return 0 when a check fails. */
QX_API unsigned char QXnMin(const unsigned char* src, int startPos, int n, int* position);
QX_API unsigned char QXnMax(const unsigned char* src, int startPos, int n, int* position);
QX_API unsigned char QXyMin(const unsigned char* src, int n, int* position);
QX_API unsigned char QXyMax(const unsigned char* src, int n, int* position);
QX_API signed char   QXtMin(const signed char* src, int n, int* position);
QX_API signed char   QXtMax(const signed char* src, int n, int* position);
QX_API short         QXwMin(const short* src, int n, int* position);
QX_API short         QXwMax(const short* src, int n, int* position);
QX_API float         QXsMin(const float* src, int n, int* position);
QX_API float         QXsMax(const float* src, int n, int* position);

/* Sums in a 32-bit accumulator, then the scaling mode: 0 raises -20 above
 * 2147483647, 1 shifts by *scaleFactor, 2 halves until the sum fits and
 * counts the halvings in *scaleFactor, 3 clamps. QXbSum counts set bits.
 * The signed sums (t, w) are exact; below -2147483648 mode 0 raises -21 and
 * mode 3 clamps there. Return 0 when a check fails. */
QX_API int   QXbSum(const unsigned char* src, int startPos, int n, int doScale, int* scaleFactor);
QX_API int   QXnSum(const unsigned char* src, int startPos, int n, int doScale, int* scaleFactor);
QX_API int   QXySum(const unsigned char* src, int n, int doScale, int* scaleFactor);
QX_API int   QXtSum(const signed char* src, int n, int doScale, int* scaleFactor);
QX_API int   QXwSum(const short* src, int n, int doScale, int* scaleFactor);
QX_API float QXsSum(const float* src, int n);

/* ======================================================================
 * Packed vectors: fill, copy, complement, and/or/xor
 * ======================================================================
 * Bit vectors (bb): startPos 0..7 is the bit of the first byte that holds
 * element 0 (7 = most significant, byte-aligned); later elements follow
 * towards bit 0 and on into bit 7 of the next byte. Nibble vectors (nb):
 * startPos 1 is the high nibble of the first byte, 0 the low one. Source and
 * destination may start at different positions. Bits of the first and last
 * destination bytes outside the vector keep their values. Overlapping source
 * and destination are not supported. Failed checks report -5; with an error
 * pending (QXGetStatus() < 0) these functions do nothing. */
QX_API void QXbbZero(unsigned char* dst, int startPos, int n);
QX_API void QXnbZero(unsigned char* dst, int startPos, int n);
QX_API void QXybZero(unsigned char* dst, int n);
QX_API void QXtbZero(signed char* dst, int n);
QX_API void QXwbZero(short* dst, int n);
QX_API void QXsbZero(float* dst, int n);

QX_API void QXbbSet(unsigned char val, unsigned char* dst, int startPos, int n); /* lowest bit of val */
QX_API void QXnbSet(unsigned char val, unsigned char* dst, int startPos, int n); /* low nibble of val */
QX_API void QXybSet(unsigned char val, unsigned char* dst, int n);
QX_API void QXtbSet(signed char val, signed char* dst, int n);
QX_API void QXwbSet(short val, short* dst, int n);
QX_API void QXsbSet(float val, float* dst, int n);

QX_API void QXbbCopy(const unsigned char* src, unsigned char* dst, int srcStartPos, int dstStartPos, int n);
QX_API void QXnbCopy(const unsigned char* src, unsigned char* dst, int srcStartPos, int dstStartPos, int n);
QX_API void QXybCopy(const unsigned char* src, unsigned char* dst, int n);
QX_API void QXtbCopy(const signed char* src, signed char* dst, int n);
QX_API void QXwbCopy(const short* src, short* dst, int n);
QX_API void QXsbCopy(const float* src, float* dst, int n);

QX_API void QXbbNot(unsigned char* dst, int dstStartPos, int n);
QX_API void QXnbNot(unsigned char* dst, int dstStartPos, int n);
QX_API void QXybNot(unsigned char* dst, int n);
QX_API void QXwbNot(short* dst, int n);

/* X2: dst[k] = dst[k] X src[k]; X3: dst[k] = srcA[k] X srcB[k] (srcStartPos
 * applies to both sources); X2s: dst[k] = dst[k] X val (nibbles: low four
 * bits of val). */
QX_API void QXbbAnd2(const unsigned char* src, unsigned char* dst, int srcStartPos, int dstStartPos, int n);
QX_API void QXnbAnd2(const unsigned char* src, unsigned char* dst, int srcStartPos, int dstStartPos, int n);
QX_API void QXybAnd2(const unsigned char* src, unsigned char* dst, int n);
QX_API void QXwbAnd2(const short* src, short* dst, int n);
QX_API void QXbbAnd3(const unsigned char* srcA, const unsigned char* srcB, unsigned char* dst, int srcStartPos, int dstStartPos, int n);
QX_API void QXnbAnd3(const unsigned char* srcA, const unsigned char* srcB, unsigned char* dst, int srcStartPos, int dstStartPos, int n);
QX_API void QXybAnd3(const unsigned char* srcA, const unsigned char* srcB, unsigned char* dst, int n);
QX_API void QXwbAnd3(const short* srcA, const short* srcB, short* dst, int n);
QX_API void QXnbAnd2s(unsigned char val, unsigned char* dst, int dstStartPos, int n);
QX_API void QXybAnd2s(unsigned char val, unsigned char* dst, int n);
QX_API void QXwbAnd2s(short val, short* dst, int n);

QX_API void QXbbOr2(const unsigned char* src, unsigned char* dst, int srcStartPos, int dstStartPos, int n);
QX_API void QXnbOr2(const unsigned char* src, unsigned char* dst, int srcStartPos, int dstStartPos, int n);
QX_API void QXybOr2(const unsigned char* src, unsigned char* dst, int n);
QX_API void QXwbOr2(const short* src, short* dst, int n);
QX_API void QXbbOr3(const unsigned char* srcA, const unsigned char* srcB, unsigned char* dst, int srcStartPos, int dstStartPos, int n);
QX_API void QXnbOr3(const unsigned char* srcA, const unsigned char* srcB, unsigned char* dst, int srcStartPos, int dstStartPos, int n);
QX_API void QXybOr3(const unsigned char* srcA, const unsigned char* srcB, unsigned char* dst, int n);
QX_API void QXwbOr3(const short* srcA, const short* srcB, short* dst, int n);
QX_API void QXnbOr2s(unsigned char val, unsigned char* dst, int dstStartPos, int n);
QX_API void QXybOr2s(unsigned char val, unsigned char* dst, int n);
QX_API void QXwbOr2s(short val, short* dst, int n);

QX_API void QXbbXor2(const unsigned char* src, unsigned char* dst, int srcStartPos, int dstStartPos, int n);
QX_API void QXnbXor2(const unsigned char* src, unsigned char* dst, int srcStartPos, int dstStartPos, int n);
QX_API void QXybXor2(const unsigned char* src, unsigned char* dst, int n);
QX_API void QXwbXor2(const short* src, short* dst, int n);
QX_API void QXbbXor3(const unsigned char* srcA, const unsigned char* srcB, unsigned char* dst, int srcStartPos, int dstStartPos, int n);
QX_API void QXnbXor3(const unsigned char* srcA, const unsigned char* srcB, unsigned char* dst, int srcStartPos, int dstStartPos, int n);
QX_API void QXybXor3(const unsigned char* srcA, const unsigned char* srcB, unsigned char* dst, int n);
QX_API void QXwbXor3(const short* srcA, const short* srcB, short* dst, int n);
QX_API void QXnbXor2s(unsigned char val, unsigned char* dst, int dstStartPos, int n);
QX_API void QXybXor2s(unsigned char val, unsigned char* dst, int n);
QX_API void QXwbXor2s(short val, short* dst, int n);

/* ======================================================================
 * Scaled conversion (block floating point)
 * ======================================================================
 * ConvertDown: real -> integer, value * 2^-scaleFactor, truncated toward zero.
 * ConvertUp:   integer -> real, value * 2^-scaleFactor as well (the same sign:
 *              a block brought down with factor k comes back up with -k). */
QX_API void  QXswbConvertDown(const float* inVect, short* outVect, int n, int doScale, int* scaleFactor);
QX_API void  QXdwbConvertDown(const double* inVect, short* outVect, int n, int doScale, int* scaleFactor);
QX_API void  QXsibConvertDown(const float* inVect, int* outVect, int n, int doScale, int* scaleFactor);
QX_API void  QXdibConvertDown(const double* inVect, int* outVect, int n, int doScale, int* scaleFactor);
QX_API short QXswConvertDown(float value, int doScale, int* scaleFactor);
QX_API short QXdwConvertDown(double value, int doScale, int* scaleFactor);
QX_API int   QXsiConvertDown(float value, int doScale, int* scaleFactor);
QX_API int   QXdiConvertDown(double value, int doScale, int* scaleFactor);

QX_API void   QXwsbConvertUp(const short* inVect, float* outVect, int n, int scaleFactor);
QX_API void   QXwdbConvertUp(const short* inVect, double* outVect, int n, int scaleFactor);
QX_API void   QXidbConvertUp(const int* inVect, double* outVect, int n, int scaleFactor);
QX_API void   QXisbConvertUp(const int* inVect, float* outVect, int n, int scaleFactor);
QX_API float  QXwsConvertUp(short value, int scaleFactor);
QX_API double QXwdConvertUp(short value, int scaleFactor);
QX_API double QXidConvertUp(int value, int scaleFactor);
QX_API float  QXisConvertUp(int value, int scaleFactor);

/* Complex (re, im pairs) to real: flags 1 magnitude, 2 power, 4 decimal
 * logarithm of the result; bit 1 wins over bit 2; neither writes nothing. */
QX_API void QXcsbConvert(const float* inVect, float* outVect, int n, int flags);
/* The same on n complex shorts, result converted down with doScale. */
QX_API void QXvwbConvert(const short* inVect, short* outVect, int n, int flags, int doScale, int* scaleFactor);
/* 2^k, from tables for -64..64. */
QX_API double QXPower2(int k);

/* ======================================================================
 * FFT
 * ======================================================================
 * Lengths n = 2^order, order 0..31. Complex data are (re, im) float pairs
 * (c) or short pairs (v). Exactly one of QX_FORWARD and QX_INVERSE must be
 * set; QX_INVERSE divides by n unless QX_NO_INVERSE_SCALING is added.
 * Tables are built on first use, cached per order (32-byte aligned) and
 * released by QXFreeFftTbls. */
#define QX_FORWARD             1
#define QX_INVERSE             2
#define QX_NO_INVERSE_SCALING  8

/* Bit reversal of the order low bits: fills n ints, returns n - 1. */
QX_API int    QXCalcBitRevTbl(int* tbl, int order);
/* Cached tables (library owned, 32-byte aligned, kept until QXFreeFftTbls);
 * NULL after an error. */
QX_API int*   QXGetBitRevTbl(int order);
/* Permutes n complex floats into bit-reversed order; 0 or the status. */
QX_API int    QXcbBitRev1(float* vec, int order);
/* Twiddles: entry k = e^(-2 pi i k / n) as (re, im) floats; the short tables
 * hold each part times 16384, truncated. Dec: tbl1[i] = tbl2[2i], tbl2
 * being the table of order + 1. */
QX_API void   QXcCalcFftTwdTbl(float* tbl, int order);
QX_API void   QXcDecFftTwdTbl(float* tbl1, const float* tbl2, int order);
QX_API float* QXcGetFftTwdTbl(int order);
QX_API void   QXwCalcFftTwdTbl(short* tbl, int order);
QX_API void   QXwDecFftTwdTbl(short* tbl1, const short* tbl2, int order);
QX_API short* QXwGetFftTwdTbl(int order);
/* Releases every FFT table and the short transforms' scratch buffers. */
QX_API void   QXFreeFftTbls(void);

/* In-place complex transform of n complex floats; Nip copies first and
 * returns the status. Order 0 is the identity. */
QX_API void QXcFft(float* samps, int order, int flags);
QX_API int  QXcFftNip(const float* inSamps, float* outSamps, int order, int flags);

/* Real signals and packed spectra. Packed spectrum of n reals: [0] X[0],
 * [1] X[n/2], [2k], [2k+1] re and im of X[k] for k = 1..n/2-1. */
QX_API void QXsRealFft(float* samps, int order, int flags);
QX_API int  QXsRealFftNip(const float* inSamps, float* outSamps, int order, int flags);
QX_API void QXsCcsFft(float* samps, int order, int flags);
QX_API int  QXsCcsFftNip(const float* inSamps, float* outSamps, int order, int flags);

/* Short data: fixed point for order <= 10 and doScale != 2 (inputs times 64,
 * output shifted right by 6 + *scaleFactor (doScale 1) + order (scaled
 * inverse); doScale 0/1 keep the low 16 bits, 3 saturates), else through
 * floats and QXswbConvertDown with the caller's doScale and scaleFactor. */
QX_API void QXvFft(short* samps, int order, int flags, int doScale, int* scaleFactor);
QX_API int  QXvFftNip(const short* inSamps, short* outSamps, int order, int flags, int doScale, int* scaleFactor);
QX_API void QXwRealFft(short* samps, int order, int flags, int doScale, int* scaleFactor);
QX_API int  QXwRealFftNip(const short* inSamps, short* outSamps, int order, int flags, int doScale, int* scaleFactor);
QX_API void QXwCcsFft(short* samps, int order, int flags, int doScale, int* scaleFactor);
QX_API int  QXwCcsFftNip(const short* inSamps, short* outSamps, int order, int flags, int doScale, int* scaleFactor);

/* ======================================================================
 * Windows and pre-emphasis
 * ====================================================================== */
/* y[0] = x[0]; y[i] = x[i] - coefficient * x[i-1] (previous input sample, in
 * double). Returns the status. The short form with doScale 0 works on the
 * shorts directly (truncated, low 16 bits kept, *scaleFactor = 0); other
 * doScale values go through a float buffer released by QXFreePreemphasizeTbls. */
QX_API int  QXsPreemphasize(float* vect, float coefficient, int n);
QX_API int  QXwPreemphasize(short* vect, float coefficient, int n, int doScale, int* scaleFactor);
QX_API void QXFreePreemphasizeTbls(void);

/* Multiply vect by the window; coefficients cached for up to 16 lengths per
 * kind (a 17th length empties that kind's cache). Length 1 is left unchanged.
 * Hamming 0.54 - 0.46 cos(2 pi i/(n-1)); Hanning 0.5 - 0.5 cos(2 pi (i+1)/(n+1));
 * Bartlett triangle 0..1..0; Blackman 0.42 - 0.5 cos(x) + 0.08 cos(2x).
 * The short forms go through floats and convert down with doScale. The s
 * release frees the float tables; the w release also the conversion buffer. */
QX_API void QXsWinHamming(float* vect, int n);
QX_API void QXsWinHanning(float* vect, int n);
QX_API void QXsWinBartlett(float* vect, int n);
QX_API void QXsWinBlackman(float* vect, int n);
QX_API void QXwWinHamming(short* vect, int n, int doScale, int* scaleFactor);
QX_API void QXwWinHanning(short* vect, int n, int doScale, int* scaleFactor);
QX_API void QXwWinBartlett(short* vect, int n, int doScale, int* scaleFactor);
QX_API void QXwWinBlackman(short* vect, int n, int doScale, int* scaleFactor);
QX_API void QXsFreeWinHammingTbls(void);
QX_API void QXsFreeWinHanningTbls(void);
QX_API void QXsFreeWinBartlettTbls(void);
QX_API void QXsFreeWinBlackmanTbls(void);
QX_API void QXwFreeWinHammingTbls(void);
QX_API void QXwFreeWinHanningTbls(void);
QX_API void QXwFreeWinBartlettTbls(void);
QX_API void QXwFreeWinBlackmanTbls(void);

/* ======================================================================
 * Mel-frequency cepstrum
 * ====================================================================== */

/* One spectrum point of a filter bank: up to two (band, weight) pairs. */
typedef struct QXMFCCPoint {
    unsigned char count;         /* 0..2 */
    unsigned char reserved0[7];
    struct {
        unsigned char band;
        unsigned char reserved1[7];
        double weight;
    } entry[2];
} QXMFCCPoint;                   /* 40 bytes */

/* A filter bank. It belongs to the library from QXsMFCCInit or QXwMFCCInit
 * until QXsFreeMFCCFilters (or QXwFreeMFCCFilters) releases it: read it, do not
 * change or free it yourself. */
typedef struct QXMFCCFilters {
    int id;            /* differs between live banks */
    int order;
    int n;             /* 2^order spectrum points */
    int nBandPass;
    int firstPoint;    /* first point covered by any band, -1 while none */
    int lastPoint;     /* last point covered by any band */
    QXMFCCPoint* fftSpec;
} QXMFCCFilters;

/* Bank of nBandPass triangles on the mel scale from startFreq to endFreq for
 * frames of 2^order samples; with linear != 0 the first nLinearBands bands are
 * evenly spaced in hertz up to linearEndFreq. Null on failure. */
QX_API QXMFCCFilters* QXsMFCCInit(int order, int nBandPass, int startFreq, int endFreq, int samplingFreq,
                                  int linear, int nLinearBands, int linearEndFreq);
QX_API QXMFCCFilters* QXwMFCCInit(int order, int nBandPass, int startFreq, int endFreq, int samplingFreq,
                                  int linear, int nLinearBands, int linearEndFreq);
/* nCeps cepstral coefficients of a frame (doTransform != 0: n samples, real
 * FFT, 0.5 log10 |X|^2 per bin) or of n/2 + 1 log magnitudes (doTransform 0):
 * weighted band sums, then ceps[k] = 2 sum_i band[i] cos(k (i + 1/2) pi/nBandPass)
 * (ceps[0] = 2 sum_i band[i]). Scratch follows the bank used last. */
QX_API void QXsCepstralMFCC(int doTransform, const float* vect, QXMFCCFilters* filters, float* ceps, int nCeps);
QX_API void QXwCepstralMFCC(int doTransform, const short* vect, QXMFCCFilters* filters, short* ceps, int nCeps,
                            int doScale, int* scaleFactor);
QX_API void QXsFreeMFCCFilters(QXMFCCFilters* filters);
QX_API void QXwFreeMFCCFilters(QXMFCCFilters* filters);

/* ======================================================================
 * Vector distances
 *
 * One double accumulator from 0.0, elements in order 0..n-1; d[i] =
 * vect1[i] - vect2[i] formed in double (float forms) or in 32-bit integers
 * (16-bit forms). MahalanobisD weighs d[i]^2 by reciprocalVariance[i];
 * Mahalanobis reads only the lower triangle of the n x n matrix (row i needs
 * i+1 elements) and returns 2*off-diagonal + diagonal. doSqrt takes the root.
 * The 16-bit forms take the root on the double and then convert it with
 * QXdiConvertDown(value, doScale, scaleFactor). A pending error returns 0.
 * ====================================================================== */
QX_API double QXsDotP(const float* vect1, const float* vect2, int n);
QX_API double QXsL1Norm(const float* vect1, const float* vect2, int n);
QX_API double QXsL2Norm(const float* vect1, const float* vect2, int n, int doSqrt);
QX_API double QXsMahalanobisD(const float* vect1, const float* vect2, const float* reciprocalVariance, int n, int doSqrt);
QX_API double QXsMahalanobis(const float* vect1, const float* vect2, float** inverseCovarianceMatrix, int n, int doSqrt);
QX_API int QXwDotP(const short* vect1, const short* vect2, int n, int doScale, int* scaleFactor);
QX_API int QXwL1Norm(const short* vect1, const short* vect2, int n, int doScale, int* scaleFactor);
QX_API int QXwL2Norm(const short* vect1, const short* vect2, int n, int doSqrt, int doScale, int* scaleFactor);
QX_API int QXwMahalanobisD(const short* vect1, const short* vect2, const short* reciprocalVariance, int n, int doSqrt,
                           int doScale, int* scaleFactor);
QX_API int QXwMahalanobis(const short* vect1, const short* vect2, short** inverseCovarianceMatrix, int n, int doSqrt,
                          int doScale, int* scaleFactor);

/* ======================================================================
 * Pattern stores and dynamic time warping
 *
 * Two separate stores (16-bit QXw..., float QXs...) copy patterns of nSeq
 * vectors of len elements and hand out ids, the smallest free one from 1.
 * Get returns the store's own rows (valid until the pattern is freed) and
 * the id, or 0 when absent. A 16-bit pattern's real values are
 * short x 2^scaleFactor.
 *
 * QX?EvalDTW matches testSeq (testLen row pointers of vecLen elements)
 * against the patterns idList[0..nPatterns-1], writes scores[k] (the summed
 * local distances along the warping path, 3.4e38 for an ineligible pattern
 * or an id naming no pattern) and returns the position of the lowest score
 * (the first on ties, 0 if none is lower than 3.4e38), or -1 on an error.
 * options: QX_DTW_L1 or QX_DTW_L2 (L1 wins), QX_DTW_FIXED_END or
 * QX_DTW_RELAXED_END (fixed wins; relaxed allows |endPointRange| of slack at
 * both ends), optionally QX_DTW_THRESHOLD to prune at `threshold`. The 16-bit
 * form scales the test by 2^testScaleFactor and the threshold by
 * 2^thresholdScaleFactor and converts the scores with QXdibConvertDown.
 * ====================================================================== */
QX_API int QXwPatternIni(short** pSeq, int nSeq, int len, int scaleFactor);
QX_API int QXsPatternIni(float** pSeq, int nSeq, int len);
QX_API int QXwPatternGet(int idPttrn, short*** pSeq, int* nSeq, int* len, int* scaleFactor);
QX_API int QXsPatternGet(int idPttrn, float*** pSeq, int* nSeq, int* len);
QX_API int QXwPatternFree(int idPttrn);
QX_API int QXsPatternFree(int idPttrn);
QX_API int QXwPatternFreeAll(void);
QX_API int QXsPatternFreeAll(void);
QX_API int QXwPatternsNumber(void);
QX_API int QXsPatternsNumber(void);

/* DTW option bits. */
#define QX_DTW_FIXED_END    0x001
#define QX_DTW_RELAXED_END  0x002
#define QX_DTW_THRESHOLD    0x040
#define QX_DTW_L1           0x080
#define QX_DTW_L2           0x200

QX_API int QXsEvalDTW(const int* idList, int nPatterns, float** testSeq, int testLen, int vecLen, int options,
                      double threshold, int endPointRange, double* scores);
QX_API int QXwEvalDTW(const int* idList, int nPatterns, short** testSeq, int testLen, int vecLen, int testScaleFactor,
                      int options, int threshold, int thresholdScaleFactor, int endPointRange, int* scores,
                      int doScale, int* scaleFactor);

/* ======================================================================
 * Gaussian mixtures
 *
 * value(x) = sum_k weightVect[k] * exp(-0.5 * (x-m_k)' C_k (x-m_k)), with C_k
 * a full matrix (InverseCov[k][i][j]) or a diagonal of reciprocal variances
 * (InverseCovD[k][i]): pass exactly one, the other NULL. No normalising
 * constant is applied. A server refers to the caller's arrays without copying
 * them. useExpTable: exponentials from shared tables (faster, up to 0.1 %
 * high, 0 below exp(-100); a positive exponent is refused with -3).
 * The 16-bit form multiplies the quadratic form by 2^scaleExp and converts
 * the result down with doScale/scaleFactor.
 * ====================================================================== */
typedef struct QXsGaussMixServer QXsGaussMixServer;
typedef struct QXwGaussMixServer QXwGaussMixServer;

QX_API QXsGaussMixServer* QXsInitGaussMixServer(float* weightVect, float** meanVect, float*** InverseCov,
                                                float** InverseCovD, int n, int nGauss, int useExpTable);
QX_API QXwGaussMixServer* QXwInitGaussMixServer(short* weightVect, short** meanVect, short*** InverseCov,
                                                short** InverseCovD, int n, int nGauss, int useExpTable, int scaleExp);
QX_API double QXsEvalGaussMix(QXsGaussMixServer* server, const float* vect, int n);
QX_API int QXwEvalGaussMix(QXwGaussMixServer* server, const short* vect, int n, int doScale, int* scaleFactor);
QX_API void QXsFreeGaussMixServer(QXsGaussMixServer* server);
QX_API void QXwFreeGaussMixServer(QXwGaussMixServer* server);

/* ======================================================================
 * HMM servers, classes and Viterbi scoring
 * ====================================================================== */
/* Server status bits. */
#define QX_HMM_COST        0x00000001 /* values are non-negative costs (flags bit 0 at init) */
#define QX_HMM_SHORT       0x00000010
#define QX_HMM_FLOAT       0x00000020
#define QX_HMM_LEFT_RIGHT  0x00001000
#define QX_HMM_BAND        0x00002000
#define QX_HMM_SEMICONT    0x00200000
#define QX_HMM_CONT        0x00400000
#define QX_HMM_DISCRETE    0x00800000

/* Inits copy the caller's arrays and return a positive id (the smallest free
 * one) or -1. flags bit 0 (QX_HMM_COST) declares non-negative costs (negative
 * logarithms) rather than probabilities; the evaluations need it. Impossible
 * transitions cost at least 1.0e30 (float) or 32767 (16-bit); band and
 * left-to-right matrices are recognised and scored faster. outPdfs: one
 * mixture per state (continuous) or the codebook of nSymbols mixtures
 * (semicontinuous); the handle array is copied, the mixtures must outlive the
 * server. costScaleFactor: pointer to the factor of the 16-bit output costs,
 * read at every evaluation. */
QX_API int QXsInitHMMServer(float** tprob, float** symbProb, float* iprob, int nStates, int nSymbols, int flags);
QX_API int QXwInitHMMServer(short** tprob, short** symbProb, short* iprob, int nStates, int nSymbols, int flags);
QX_API int QXsInitContHMMServer(float** tprob, float* iprob, QXsGaussMixServer** outPdfs, int nStates, int nQuant,
                                int flags);
QX_API int QXwInitContHMMServer(short** tprob, short* iprob, QXwGaussMixServer** outPdfs, int nStates, int nQuant,
                                int flags, int* costScaleFactor);
QX_API int QXsInitSemicontHMMServer(float** tprob, float** weightVect, float* iprob, QXsGaussMixServer** outPdfs,
                                    int nStates, int nSymbols, int nQuant, int flags);
QX_API int QXwInitSemicontHMMServer(short** tprob, short** weightVect, short* iprob, QXwGaussMixServer** outPdfs,
                                    int nStates, int nSymbols, int nQuant, int flags, int* costScaleFactor);
/* Frees the server and removes it from every class. */
QX_API void QXFreeHMMServer(int HMMId);
/* Classes: ids like servers; members of one flavour and data type, scored in
 * ascending id order. Add/Remove/Delete return 1 or -1; removing a
 * non-member is not an error. */
QX_API int  QXCreateHMMClass(void);
QX_API int  QXDeleteHMMClass(int classId);
QX_API int  QXAddHMMToClass(int classId, int HMMId);
QX_API int  QXRemoveHMMFromClass(int classId, int HMMId);
QX_API void QXHMMFreeAll(void);

/* Viterbi scoring: HMMOrClassId > 0 names a server, < 0 the class
 * -HMMOrClassId. Returns the least path cost and sets *bestHMMId (equal
 * scores: the higher id); on failure 3.4028235e38 or 2147483647. 16-bit:
 * doScale 1 shifts the cost right by *scaleFactor (left when negative), any
 * other doScale sets *scaleFactor to 0. nqVect: nObserv frames of nQuant. */
QX_API float QXsEvalHMMViterbi(int HMMOrClassId, const int* vect, int nObserv, int* bestHMMId);
QX_API int   QXwEvalHMMViterbi(int HMMOrClassId, const int* vect, int nObserv, int* bestHMMId, int doScale,
                               int* scaleFactor);
QX_API float QXsEvalContHMMViterbi(int HMMOrClassId, float** nqVect, int nObserv, int* bestHMMId);
QX_API int   QXwEvalContHMMViterbi(int HMMOrClassId, short** nqVect, int nObserv, int* bestHMMId, int doScale,
                                   int* scaleFactor);
QX_API float QXsEvalSemicontHMMViterbi(int HMMOrClassId, float** nqVect, int nObserv, int* bestHMMId);
QX_API int   QXwEvalSemicontHMMViterbi(int HMMOrClassId, short** nqVect, int nObserv, int* bestHMMId, int doScale,
                                       int* scaleFactor);

/* ======================================================================
 * Neural networks
 * ====================================================================== */
/* Forward pass of a perceptron of logistic neurons 1/(e^-sum + 1), no bias.
 * weights: layer 0 neuron 0's numberOfInputs weights, then neuron 1's, ...,
 * then layer 1 with layerNeuronCounts[0] weights per neuron, and so on.
 * output receives the last layer (layerNeuronCounts[numberOfLayers-1] values).
 * 16-bit form: real input = input * 2^inputScaleFactor, real weight =
 * weights * 2^weightsScaleFactor; the output is converted down with doScale
 * and *scaleFactor as by QXdwbConvertDown. */
QX_API void QXsMLPerceptron(int numberOfInputs, const float* input, int numberOfLayers, const int* layerNeuronCounts,
                            const float* weights, float* output);
QX_API void QXwMLPerceptron(int numberOfInputs, int inputScaleFactor, const short* input, int numberOfLayers,
                            const int* layerNeuronCounts, int weightsScaleFactor, const short* weights, short* output,
                            int doScale, int* scaleFactor);
/* Distances (squared, or their roots when doSqrt) from input to each of the
 * numberOfOutputs codebook vectors stored one after another in weights.
 * rankList (numberOfOutputs entries): the first min(numberOfRanks,
 * numberOfOutputs) hold the 1-based numbers of the nearest neurons, nearest
 * first; the rest hold 0-based numbers. numberOfRanks < 1 leaves it untouched.
 * The 16-bit form checks doScale/scaleFactor but never scales: its distances
 * are truncated to int. */
QX_API void QXsVQKohonen(const float* input, int numberOfInputs, int numberOfOutputs, const float* weights,
                         int numberOfRanks, short* rankList, int doSqrt, float* output);
QX_API void QXwVQKohonen(const short* input, int numberOfInputs, int numberOfOutputs, const short* weights,
                         int numberOfRanks, short* rankList, int doSqrt, int doScale, int* scaleFactor, int* output);

/* ======================================================================
 * Packed raster images
 * ====================================================================== */
/* A rectangle of rows and columns, all bounds inclusive. */
typedef struct QXRegion {
    int leftTopRow;
    int leftTopCol;
    int rightBotRow;
    int rightBotCol;
} QXRegion;

/* Images are arrays of row pointers; a row is a packed vector of its type
 * starting at the first element of its first byte (bits: column c is bit
 * 7 - c%8 of byte c/8; nibbles: column c is the high nibble of byte c/2 when
 * c is even). Pixels of a destination byte that are not written keep their
 * values. The y and t forms return the negative status when a check fails.
 * orient 1: upside down; orient 0: left to right. Input and output must not
 * share rows. */
QX_API void QXbMirrorImage(unsigned char** image, unsigned char** outImage, int nInRows, int nInCols, int orient);
QX_API void QXnMirrorImage(unsigned char** image, unsigned char** outImage, int nInRows, int nInCols, int orient);
QX_API int  QXyMirrorImage(unsigned char** image, unsigned char** outImage, int nInRows, int nInCols, int orient);
QX_API int  QXtMirrorImage(signed char** image, signed char** outImage, int nInRows, int nInCols, int orient);

/* Copies the inclusive rectangle copyRgn of image to outImage with its top
 * left pixel at (orgRow, orgCol); both images must contain it. */
QX_API void QXbCopyImage(unsigned char** image, unsigned char** outImage, const QXRegion* copyRgn, int orgRow, int orgCol);
QX_API void QXnCopyImage(unsigned char** image, unsigned char** outImage, const QXRegion* copyRgn, int orgRow, int orgCol);
QX_API int  QXyCopyImage(unsigned char** image, unsigned char** outImage, const QXRegion* copyRgn, int orgRow, int orgCol);
QX_API int  QXtCopyImage(signed char** image, signed char** outImage, const QXRegion* copyRgn, int orgRow, int orgCol);

/* angle 90 (counter-clockwise), -90 (clockwise) or 180. The rotated picture
 * is centred in the nOutRows x nOutCols output: margins keep their pixels,
 * overhang is cropped. Stops at the first bad argument and returns the error
 * handler's result; does not look at the status word. */
QX_API int QXbRotateImage(unsigned char** image, unsigned char** outImage, int angle, int nInRows, int nInCols,
                          int nOutRows, int nOutCols);
QX_API int QXnRotateImage(unsigned char** image, unsigned char** outImage, int angle, int nInRows, int nInCols,
                          int nOutRows, int nOutCols);
QX_API int QXyRotateImage(unsigned char** image, unsigned char** outImage, int angle, int nInRows, int nInCols,
                          int nOutRows, int nOutCols);
QX_API int QXtRotateImage(signed char** image, signed char** outImage, int angle, int nInRows, int nInCols,
                          int nOutRows, int nOutCols);

/* Correlation with the mask anchored at (nMaskRows/2, nMaskCols/2), zero
 * padding, no flip. Data type codes: image/out 0 signed byte, 1 nibble,
 * 2 unsigned byte, 3 bit; mask 0 signed byte, 1 short. image, mask and
 * outImage are row-pointer arrays of those types; outImage has the image's
 * geometry. convolveRegion may be NULL (whole image); pixels outside it are
 * not touched. Sums truncate to int, then doScale 1 shifts right by
 * *scaleFactor (left when negative), 3 saturates to the output type, 0 and 2
 * change nothing; the low bits are stored. Returns 0, or a negative status. */
QX_API int QXMaskConvolve(void* image, void* mask, void* outImage, int imageDataType, int maskDataType, int outDataType,
                          int nImageRows, int nImageCols, int nMaskRows, int nMaskCols, const QXRegion* convolveRegion,
                          int doScale, int* scaleFactor);

#ifdef __cplusplus
}
#endif

#endif /* KVXPX_H */
