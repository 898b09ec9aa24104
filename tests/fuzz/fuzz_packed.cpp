// Packed vector arithmetic and logic: every form on hostile lengths, start
// positions, shift counts and scale factors. Only the destination's elements
// may change, inputs never; the plain and vector paths agree.
#include <functional>

#include "fuzz_common.h"

using namespace kvxfuzz;

namespace {

using u8 = unsigned char;
using s8 = signed char;

// Element position of element 0 for a start position (bits: 7 is the top bit
// of the first byte; nibbles: 1 is the high nibble), -1 when it names none.
long long first_of(int bits, int startPos) {
    if (bits == 1) return startPos >= 0 && startPos <= 7 ? 7 - startPos : -1;
    if (bits == 4) return startPos == 0 || startPos == 1 ? 1 - startPos : -1;
    return 0;
}

// Bytes a vector of n elements from startPos covers (0 when it covers none).
long long bytes_of(int bits, int startPos, int n) {
    const long long first = first_of(bits, startPos);
    if (n <= 0 || first < 0) return 0;
    return ((first + n) * bits + 7) / 8;
}

struct Vec {
    int bits, pos, n;
    Buf buf;
    Vec(FuzzedDataProvider& in, int bits_, int pos_, int n_) : bits(bits_), pos(pos_), n(n_), buf(in, bytes_of(bits_, pos_, n_)) {}
    void written(Outcome& o) const {
        buf.only(bits, first_of(bits, pos) < 0 ? 0 : first_of(bits, pos), n);
        buf.into(o.bytes);
    }
};

// One arithmetic call: its operands and scaling arguments.
struct Args {
    void *a, *b, *d;
    int sp, dp, n, ds;
    int* sf;
    unsigned char s[4];
    template <class T> T* A() const { return static_cast<T*>(a); }
    template <class T> T* B() const { return static_cast<T*>(b); }
    template <class T> T* D() const { return static_cast<T*>(d); }
    template <class T> T val() const { T v; std::memcpy(&v, s, sizeof v); return v; }
};

struct ArithFn {
    int bits;
    bool nib;
    int (*call)(const Args&);
};

// The three forms (2, 3, 2s) of one operation on one type.
#define INT_FORMS(bits, T, op, t)                                                                              \
    {bits, false, [](const Args& x) { return QX##t##b##op##2(x.A<T>(), x.D<T>(), x.n, x.ds, x.sf); }},        \
    {bits, false, [](const Args& x) { return QX##t##b##op##3(x.A<T>(), x.B<T>(), x.D<T>(), x.n, x.ds, x.sf); }}, \
    {bits, false, [](const Args& x) { return QX##t##b##op##2s(x.val<T>(), x.D<T>(), x.n, x.ds, x.sf); }}
#define NIB_FORMS(op)                                                                                                 \
    {4, true, [](const Args& x) { return QXnb##op##2(x.A<u8>(), x.D<u8>(), x.sp, x.dp, x.n, x.ds, x.sf); }},              \
    {4, true, [](const Args& x) { return QXnb##op##3(x.A<u8>(), x.B<u8>(), x.D<u8>(), x.sp, x.dp, x.n, x.ds, x.sf); }},   \
    {4, true, [](const Args& x) { return QXnb##op##2s(x.val<u8>(), x.D<u8>(), x.dp, x.n, x.ds, x.sf); }}
#define FLOAT_FORMS(op)                                                                          \
    {32, false, [](const Args& x) { return QXsb##op##2(x.A<float>(), x.D<float>(), x.n); }},                \
    {32, false, [](const Args& x) { return QXsb##op##3(x.A<float>(), x.B<float>(), x.D<float>(), x.n); }},  \
    {32, false, [](const Args& x) { return QXsb##op##2s(x.val<float>(), x.D<float>(), x.n); }}
#define ALL_FORMS(op) NIB_FORMS(op), INT_FORMS(8, u8, op, y), INT_FORMS(8, s8, op, t), INT_FORMS(16, short, op, w), FLOAT_FORMS(op)

const ArithFn kArith[] = {ALL_FORMS(Add), ALL_FORMS(Sub), ALL_FORMS(Mpy)};

void arith(FuzzedDataProvider& in, Outcome& o, const ArithFn& f) {
    const int n = any_int(in);
    const int sp = f.nib ? (in.ConsumeBool() ? in.ConsumeIntegralInRange<int>(-1, 2) : any_int(in)) : 0;
    const int dp = f.nib ? (in.ConsumeBool() ? in.ConsumeIntegralInRange<int>(-1, 2) : any_int(in)) : 0;
    const int ds = do_scale(in);
    int sf = in.ConsumeBool() ? in.ConsumeIntegralInRange<int>(-40, 40) : any_int(in);
    if (n > kCap) return;
    Args x{};
    for (unsigned char& c : x.s) c = in.ConsumeIntegral<u8>();
    Vec a(in, f.bits, sp, n), b(in, f.bits, sp, n), d(in, f.bits, dp, n);
    x.a = a.buf.body(), x.b = b.buf.body(), x.d = d.buf.body();
    x.sp = sp, x.dp = dp, x.n = n, x.ds = ds, x.sf = &sf;
    const int r = f.call(x);
    a.buf.unchanged();
    b.buf.unchanged();
    d.written(o);
    o.add(r);
    o.add(sf);
}

// Unary forms: abs, shifts, min/max, sums.
void unary(FuzzedDataProvider& in, Outcome& o) {
    const int which = in.ConsumeIntegralInRange<int>(0, 26);
    const int sumType = which == 26 ? in.ConsumeIntegralInRange<int>(0, 3) : 0;  // y t w s
    const int n = any_int(in);
    const int pos = in.ConsumeIntegralInRange<int>(-1, 8);
    const int shift = any_int(in);
    const int ds = do_scale(in);
    int sf = in.ConsumeBool() ? in.ConsumeIntegralInRange<int>(-40, 40) : any_int(in);
    if (n > kCap) return;
    static constexpr int widths[] = {8, 16, 32, 8, 16, 32, 8, 8, 16, 8, 8, 16, 4, 4, 4, 4, 8, 8, 8, 8, 16, 16, 32, 32, 1, 4, 8};
    static constexpr int sumWidths[] = {8, 8, 16, 32};
    const int bits = which == 26 ? sumWidths[sumType] : widths[which];
    const int p = bits < 8 ? pos : 0;
    Vec v(in, bits, p, n), w(in, bits, p, n);
    int r = 0, position = -7;
    switch (which) {
    case 0: r = QXtbAbs(v.buf.as<s8>(), n); break;
    case 1: r = QXwbAbs(v.buf.as<short>(), n); break;
    case 2: r = QXsbAbs(v.buf.as<float>(), n); break;
    case 3: r = QXtbAbs2(w.buf.as<s8>(), v.buf.as<s8>(), n); break;
    case 4: r = QXwbAbs2(w.buf.as<short>(), v.buf.as<short>(), n); break;
    case 5: r = QXsbAbs2(w.buf.as<float>(), v.buf.as<float>(), n); break;
    case 6: r = QXybShiftL(v.buf.as<u8>(), n, shift); break;
    case 7: r = QXtbShiftL(v.buf.as<s8>(), n, shift); break;
    case 8: r = QXwbShiftL(v.buf.as<short>(), n, shift); break;
    case 9: r = QXybShiftR(v.buf.as<u8>(), n, shift); break;
    case 10: r = QXtbShiftR(v.buf.as<s8>(), n, shift); break;
    case 11: r = QXwbShiftR(v.buf.as<short>(), n, shift); break;
    case 12: r = QXnbShiftL(v.buf.as<u8>(), p, n, shift); break;
    case 13: r = QXnbShiftR(v.buf.as<u8>(), p, n, shift); break;
    case 14: r = QXnMin(w.buf.as<u8>(), p, n, &position); break;
    case 15: r = QXnMax(w.buf.as<u8>(), p, n, &position); break;
    case 16: r = QXyMin(w.buf.as<u8>(), n, &position); break;
    case 17: r = QXyMax(w.buf.as<u8>(), n, &position); break;
    case 18: r = QXtMin(w.buf.as<s8>(), n, &position); break;
    case 19: r = QXtMax(w.buf.as<s8>(), n, &position); break;
    case 20: r = QXwMin(w.buf.as<short>(), n, &position); break;
    case 21: r = QXwMax(w.buf.as<short>(), n, &position); break;
    case 22: { float f = QXsMin(w.buf.as<float>(), n, &position); o.add(f); break; }
    case 23: { float f = QXsMax(w.buf.as<float>(), n, &position); o.add(f); break; }
    case 24: r = QXbSum(w.buf.as<u8>(), p, n, ds, &sf); break;
    case 25: r = QXnSum(w.buf.as<u8>(), p, n, ds, &sf); break;
    case 26: {
        if (sumType == 0) r = QXySum(w.buf.as<u8>(), n, ds, &sf);
        if (sumType == 1) r = QXtSum(w.buf.as<s8>(), n, ds, &sf);
        if (sumType == 2) r = QXwSum(w.buf.as<short>(), n, ds, &sf);
        if (sumType == 3) { float f = QXsSum(w.buf.as<float>(), n); o.add(f); }
        break;
    }
    }
    w.buf.unchanged();
    v.written(o);
    o.add(r);
    o.add(position);
    o.add(sf);
}

// Fill, copy, complement and the bitwise operations.
void logic(FuzzedDataProvider& in, Outcome& o) {
    int type = in.ConsumeIntegralInRange<int>(0, 5);             // b n y t w s
    const int op = in.ConsumeIntegralInRange<int>(0, 12);        // zero set copy not and2 and3 and2s or2 or3 or2s xor2 xor3 xor2s
    if (type == 0 && op >= 4 && (op - 4) % 3 == 2) type = 1;     // no bit form with a scalar
    const int n = any_int(in);
    const int sp = in.ConsumeBool() ? in.ConsumeIntegralInRange<int>(-1, 8) : any_int(in);
    const int dp = in.ConsumeBool() ? in.ConsumeIntegralInRange<int>(-1, 8) : any_int(in);
    const u8 val = in.ConsumeIntegral<u8>();
    const short wval = in.ConsumeIntegral<short>();
    const float fval = static_cast<float>(in.ConsumeIntegral<short>()) / 7.0f;
    if (n > kCap) return;
    static constexpr int widths[] = {1, 4, 8, 8, 16, 32};
    const int bits = widths[type];
    Vec a(in, bits, bits < 8 ? sp : 0, n), b(in, bits, bits < 8 ? sp : 0, n), d(in, bits, bits < 8 ? dp : 0, n);
    u8 *A = a.buf.as<u8>(), *B = b.buf.as<u8>(), *D = d.buf.as<u8>();
    short *WA = a.buf.as<short>(), *WB = b.buf.as<short>(), *WD = d.buf.as<short>();
    s8* TD = d.buf.as<s8>();
    float *FA = a.buf.as<float>(), *FD = d.buf.as<float>();
    // Zero, set, copy and complement per type b n y t w s (the signed bytes
    // and the floats complemented as bytes and words, as a caller may pass them).
    const std::function<void()> plain[6][4] = {
        {[&] { QXbbZero(D, dp, n); }, [&] { QXbbSet(val, D, dp, n); }, [&] { QXbbCopy(A, D, sp, dp, n); }, [&] { QXbbNot(D, dp, n); }},
        {[&] { QXnbZero(D, dp, n); }, [&] { QXnbSet(val, D, dp, n); }, [&] { QXnbCopy(A, D, sp, dp, n); }, [&] { QXnbNot(D, dp, n); }},
        {[&] { QXybZero(D, n); }, [&] { QXybSet(val, D, n); }, [&] { QXybCopy(A, D, n); }, [&] { QXybNot(D, n); }},
        {[&] { QXtbZero(TD, n); }, [&] { QXtbSet(static_cast<s8>(val), TD, n); }, [&] { QXtbCopy(a.buf.as<s8>(), TD, n); },
         [&] { QXybNot(D, n); }},
        {[&] { QXwbZero(WD, n); }, [&] { QXwbSet(wval, WD, n); }, [&] { QXwbCopy(WA, WD, n); }, [&] { QXwbNot(WD, n); }},
        {[&] { QXsbZero(FD, n); }, [&] { QXsbSet(fval, FD, n); }, [&] { QXsbCopy(FA, FD, n); }, [&] { QXwbNot(WD, n); }}};
    switch (op) {
    case 0: case 1: case 2: case 3: plain[type][op](); break;
    default: {
        // and/or/xor in the forms 2, 3, 2s; the bit type has no scalar form.
        using Pos2 = void (*)(const u8*, u8*, int, int, int);
        using Pos3 = void (*)(const u8*, const u8*, u8*, int, int, int);
        static const Pos2 b2[] = {QXbbAnd2, QXbbOr2, QXbbXor2}, n2[] = {QXnbAnd2, QXnbOr2, QXnbXor2};
        static const Pos3 b3[] = {QXbbAnd3, QXbbOr3, QXbbXor3}, n3[] = {QXnbAnd3, QXnbOr3, QXnbXor3};
        static void (*const y2[])(const u8*, u8*, int) = {QXybAnd2, QXybOr2, QXybXor2};
        static void (*const y3[])(const u8*, const u8*, u8*, int) = {QXybAnd3, QXybOr3, QXybXor3};
        static void (*const w2[])(const short*, short*, int) = {QXwbAnd2, QXwbOr2, QXwbXor2};
        static void (*const w3[])(const short*, const short*, short*, int) = {QXwbAnd3, QXwbOr3, QXwbXor3};
        static void (*const n2s[])(u8, u8*, int, int) = {QXnbAnd2s, QXnbOr2s, QXnbXor2s};
        static void (*const y2s[])(u8, u8*, int) = {QXybAnd2s, QXybOr2s, QXybXor2s};
        static void (*const w2s[])(short, short*, int) = {QXwbAnd2s, QXwbOr2s, QXwbXor2s};
        const int k = (op - 4) / 3, form = (op - 4) % 3, width = type <= 1 ? type : type <= 3 ? 2 : 3;   // b n y w
        if (form == 0)
            width == 0 ? b2[k](A, D, sp, dp, n) : width == 1 ? n2[k](A, D, sp, dp, n) : width == 2 ? y2[k](A, D, n) : w2[k](WA, WD, n);
        else if (form == 1)
            width == 0 ? b3[k](A, B, D, sp, dp, n) : width == 1 ? n3[k](A, B, D, sp, dp, n) : width == 2 ? y3[k](A, B, D, n)
                                                                                                : w3[k](WA, WB, WD, n);
        else
            width <= 1 ? n2s[k](val, D, dp, n) : width == 2 ? y2s[k](val, D, n) : w2s[k](wval, WD, n);
    }
    }
    a.buf.unchanged();
    b.buf.unchanged();
    d.written(o);  // type 5 with the short forms: the first half of the floats' bytes
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return on_both_paths(data, size, [](FuzzedDataProvider& in, Outcome& o) {
        switch (in.ConsumeIntegralInRange<int>(0, 2)) {
        case 0: {
            arith(in, o, kArith[in.ConsumeIntegralInRange<std::size_t>(0, std::size(kArith) - 1)]);
            break;
        }
        case 1: unary(in, o); break;
        default: logic(in, o); break;
        }
    });
}
