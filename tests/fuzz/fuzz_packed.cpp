// Packed vector arithmetic and logic: every form on hostile lengths, start
// positions, shift counts and scale factors. Only the destination's elements
// may change, inputs never; the plain and vector paths agree.
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
    u8* A = a.buf.as<u8>();
    u8* B = b.buf.as<u8>();
    u8* D = d.buf.as<u8>();
    using Pos2 = void (*)(const u8*, u8*, int, int, int);
    using Pos3 = void (*)(const u8*, const u8*, u8*, int, int, int);
    using Y2 = void (*)(const u8*, u8*, int);
    using Y3 = void (*)(const u8*, const u8*, u8*, int);
    using W2 = void (*)(const short*, short*, int);
    using W3 = void (*)(const short*, const short*, short*, int);
    static const Pos2 b2[] = {QXbbAnd2, QXbbOr2, QXbbXor2}, n2[] = {QXnbAnd2, QXnbOr2, QXnbXor2};
    static const Pos3 b3[] = {QXbbAnd3, QXbbOr3, QXbbXor3}, n3[] = {QXnbAnd3, QXnbOr3, QXnbXor3};
    static const Y2 y2[] = {QXybAnd2, QXybOr2, QXybXor2};
    static const Y3 y3[] = {QXybAnd3, QXybOr3, QXybXor3};
    static const W2 w2[] = {QXwbAnd2, QXwbOr2, QXwbXor2};
    static const W3 w3[] = {QXwbAnd3, QXwbOr3, QXwbXor3};
    static void (*const n2s[])(u8, u8*, int, int) = {QXnbAnd2s, QXnbOr2s, QXnbXor2s};
    static void (*const y2s[])(u8, u8*, int) = {QXybAnd2s, QXybOr2s, QXybXor2s};
    static void (*const w2s[])(short, short*, int) = {QXwbAnd2s, QXwbOr2s, QXwbXor2s};
    short* WA = a.buf.as<short>();
    short* WB = b.buf.as<short>();
    short* WD = d.buf.as<short>();
    if (op == 0) {
        if (type == 0) QXbbZero(D, dp, n);
        if (type == 1) QXnbZero(D, dp, n);
        if (type == 2) QXybZero(D, n);
        if (type == 3) QXtbZero(d.buf.as<s8>(), n);
        if (type == 4) QXwbZero(WD, n);
        if (type == 5) QXsbZero(d.buf.as<float>(), n);
    } else if (op == 1) {
        if (type == 0) QXbbSet(val, D, dp, n);
        if (type == 1) QXnbSet(val, D, dp, n);
        if (type == 2) QXybSet(val, D, n);
        if (type == 3) QXtbSet(static_cast<s8>(val), d.buf.as<s8>(), n);
        if (type == 4) QXwbSet(wval, WD, n);
        if (type == 5) QXsbSet(fval, d.buf.as<float>(), n);
    } else if (op == 2) {
        if (type == 0) QXbbCopy(A, D, sp, dp, n);
        if (type == 1) QXnbCopy(A, D, sp, dp, n);
        if (type == 2) QXybCopy(A, D, n);
        if (type == 3) QXtbCopy(a.buf.as<s8>(), d.buf.as<s8>(), n);
        if (type == 4) QXwbCopy(WA, WD, n);
        if (type == 5) QXsbCopy(a.buf.as<float>(), d.buf.as<float>(), n);
    } else if (op == 3) {
        if (type == 0) QXbbNot(D, dp, n);
        if (type == 1) QXnbNot(D, dp, n);
        if (type == 2 || type == 3) QXybNot(D, n);
        if (type == 4 || type == 5) QXwbNot(WD, n);
    } else {
        const int k = (op - 4) / 3, form = (op - 4) % 3;  // and/or/xor; 2, 3, 2s
        if (form == 0) {
            if (type == 0) b2[k](A, D, sp, dp, n);
            if (type == 1) n2[k](A, D, sp, dp, n);
            if (type == 2 || type == 3) y2[k](A, D, n);
            if (type >= 4) w2[k](WA, WD, n);
        } else if (form == 1) {
            if (type == 0) b3[k](A, B, D, sp, dp, n);
            if (type == 1) n3[k](A, B, D, sp, dp, n);
            if (type == 2 || type == 3) y3[k](A, B, D, n);
            if (type >= 4) w3[k](WA, WB, WD, n);
        } else {
            if (type <= 1) n2s[k](val, D, dp, n);
            if (type == 2 || type == 3) y2s[k](val, D, n);
            if (type >= 4) w2s[k](wval, WD, n);
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
