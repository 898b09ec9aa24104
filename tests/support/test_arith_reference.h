// Per-element references for the vector arithmetic tests, written straight
// from the documented behaviour: the exact result of each element, then the
// scaling mode, with the automatic mode done the long way (walk forward, stop
// at the first result out of range, restore, rescale what was stored, go on).
// The forms of every operation are wrapped behind int vectors so that one
// table drives them all.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "kvx_test.h"
#include "qx_scale_x86.h"

namespace arithref {

enum class Op { add, sub, mul };

struct Type {
    int lo, hi;
    bool is_signed() const { return lo < 0; }
    int64_t span() const { return int64_t(hi) - lo + 1; }
};
inline constexpr Type kNib{0, 15}, kU8{0, 255}, kS8{-128, 127}, kS16{-32768, 32767}, kI32{INT32_MIN, INT32_MAX};

// v modulo the element width, as the element type reads it back.
inline int wrapTo(int64_t v, Type t) {
    int64_t m = ((v % t.span()) + t.span()) % t.span();
    return int(t.is_signed() && m > t.hi ? m - t.span() : m);
}

// Arithmetic right shift of an exact value (floor division by 2^s).
inline int64_t shr(int64_t v, int s) {
    int64_t d = int64_t(1) << s;
    return v >= 0 ? v / d : -((-v + d - 1) / d);
}

struct Expect {
    std::vector<int> out;
    int scaleFactor;
    bool over = false, under = false;
};

// l op r for every k; `before` is the destination's content before the call.
inline Expect reference(Op op, Type t, const std::vector<int>& l, const std::vector<int>& r,
                        const std::vector<int>& before, int doScale, int scaleFactor) {
    const size_t n = l.size();
    Expect e{before, doScale == 1 ? scaleFactor : 0};
    std::vector<int64_t> x(n);
    for (size_t k = 0; k < n; ++k)
        x[k] = op == Op::add ? int64_t(l[k]) + r[k] : op == Op::sub ? int64_t(l[k]) - r[k] : int64_t(l[k]) * r[k];
    auto fits = [&](int64_t v) { return v >= t.lo && v <= t.hi; };
    for (size_t k = 0; k < n; ++k) {
        if (doScale == 0) {
            e.out[k] = wrapTo(x[k], t);
            e.over |= x[k] > t.hi;
            e.under |= x[k] < t.lo;
        } else if (doScale == 1) {
            bool right = op == Op::mul ? scaleFactor >= 0 : scaleFactor >= 1;
            e.out[k] = right ? wrapTo(shr(x[k], scaleFactor % 32), t)
                             : wrapTo(int64_t(wrapTo(x[k], t)) * (int64_t(1) << ((-scaleFactor) % 32)), t);
        } else if (doScale == 3 || (op == Op::sub && !t.is_signed())) {  // unsigned differences clamp at 0
            e.out[k] = int(std::clamp<int64_t>(x[k], t.lo, t.hi));
        } else if (fits(x[k])) {
            e.out[k] = int(x[k]);
        } else {  // automatic: this element stays, one count rescales the rest
            int s = 1;
            if (op == Op::mul) {
                int64_t mx = *std::max_element(x.begin() + k, x.end()), mn = *std::min_element(x.begin() + k, x.end());
                int64_t v = (t.is_signed() && -mn > (mx < 0 ? -mx : mx)) ? mn : mx;
                for (s = 0; !fits(v); ++s) v = shr(v, 1);
            }
            for (size_t j = 0; j < k; ++j) e.out[j] = wrapTo(shr(e.out[j], s), t);
            for (size_t j = k; j < n; ++j) e.out[j] = wrapTo(shr(x[j], s), t);
            e.scaleFactor = s;
            break;
        }
    }
    return e;
}

inline std::vector<int> randomVec(std::mt19937& g, Type t, size_t n, int lo, int hi) {
    std::uniform_int_distribution<int> d(std::max(lo, t.lo), std::min(hi, t.hi));
    std::vector<int> v(n);
    for (auto& x : v) x = d(g);
    return v;
}

// Nibble k of a packed vector that starts at byte `base`, position p
// (1: the high nibble of the first byte, 0: its low nibble).
inline int nib(const std::vector<uint8_t>& buf, size_t base, int p, size_t k) {
    return int(kvxtest::packed_get(4, buf.data() + base, long(1 - p + k)));
}
inline void setNib(std::vector<uint8_t>& buf, size_t base, int p, size_t k, int v) {
    kvxtest::packed_set(4, buf.data() + base, long(1 - p + k), unsigned(v));
}

// Runs `body` on every kernel path the processor has.
template <class F>
void allPaths(F body) {
    kvxtest::on_every_path([&](int) { body(); });
}

// The reports made since the last call, then a clean status.
inline std::vector<kvxtest::Rep> takeReports() {
    std::vector<kvxtest::Rep> v;
    for (const auto& r : kvxtest::reports()) v.emplace_back(r.code, r.function, r.condition);
    kvxtest::reports().clear();
    QXSetStatus(0);
    return v;
}

// One form of an operation: (a, b, d, doScale, &scaleFactor, srcStartPos,
// dstStartPos) -> return code. Form "2" is d op= a, "3" is d = a op b (b - a
// for subtraction), "2s" is d op= a[0]. d holds the destination before the
// call and after it; the wrappers check that nothing around it changed.
using Call = std::function<int(const std::vector<int>&, const std::vector<int>&, std::vector<int>&, int, int*, int, int)>;
struct Forms {
    std::string name;
    Op op;
    Type t;
    Call f[3];
};
inline const char* const kSuffix[3] = {"2", "3", "2s"};

template <class T>
std::vector<T> elems(const std::vector<int>& v) {
    std::vector<T> r(v.size());
    std::transform(v.begin(), v.end(), r.begin(), [](int x) { return T(x); });
    return r;
}

template <class T>
Forms forms(const char* name, Op op, Type t, int (*f2)(const T*, T*, int, int, int*),
            int (*f3)(const T*, const T*, T*, int, int, int*), int (*f2s)(T, T*, int, int, int*)) {
    auto run = [](const std::vector<int>& a, const std::vector<int>& b, std::vector<int>& d, auto call) {
        std::vector<T> sa = elems<T>(a), sb = elems<T>(b), v = elems<T>(d);
        v.push_back(T(0x5A));
        int ret = call(sa.data(), sb.data(), v.data(), int(d.size()));
        EXPECT_EQ(v.back(), T(0x5A)) << "written past the end";
        EXPECT_TRUE(std::equal(a.begin(), a.end(), sa.begin()) && std::equal(b.begin(), b.end(), sb.begin()));
        d.assign(v.begin(), v.end() - 1);
        return ret;
    };
    return {name, op, t,
            {[=](auto& a, auto& b, auto& d, int ds, int* sf, int, int) {
                 return run(a, b, d, [&](T* sa, T*, T* v, int n) { return f2(sa, v, n, ds, sf); });
             },
             [=](auto& a, auto& b, auto& d, int ds, int* sf, int, int) {
                 return run(a, b, d, [&](T* sa, T* sb, T* v, int n) { return f3(sa, sb, v, n, ds, sf); });
             },
             [=](auto& a, auto& b, auto& d, int ds, int* sf, int, int) {
                 return run(a, b, d, [&](T*, T*, T* v, int n) { return f2s(T(a[0]), v, n, ds, sf); });
             }}};
}

// Nibble vectors sit at byte 2 of patterned buffers; every nibble outside
// them must keep its value.
inline Forms nibForms(const char* name, Op op, int (*f2)(const unsigned char*, unsigned char*, int, int, int, int, int*),
                      int (*f3)(const unsigned char*, const unsigned char*, unsigned char*, int, int, int, int, int*),
                      int (*f2s)(unsigned char, unsigned char*, int, int, int, int*)) {
    auto pack = [](const std::vector<int>& v, int p) {
        std::vector<uint8_t> buf(v.size() / 2 + 6);
        for (size_t k = 0; k < buf.size(); ++k) buf[k] = uint8_t(0xA7 * (k + 1));
        for (size_t k = 0; k < v.size(); ++k) setNib(buf, 2, p, k, v[k]);
        return buf;
    };
    auto run = [pack](const std::vector<int>& a, const std::vector<int>& b, std::vector<int>& d, int sp, int dp,
                      auto call) {
        auto sa = pack(a, sp), sb = pack(b, sp), v = pack(d, dp), sa0 = sa, sb0 = sb, was = v;
        int ret = call(sa.data() + 2, sb.data() + 2, v.data() + 2, int(d.size()));
        for (size_t k = 0; k < d.size(); ++k) {
            d[k] = nib(v, 2, dp, k);
            setNib(v, 2, dp, k, nib(was, 2, dp, k));
        }
        EXPECT_EQ(v, was) << "a nibble outside the vector changed";
        EXPECT_TRUE(sa == sa0 && sb == sb0) << "a source changed";
        return ret;
    };
    using U = unsigned char;
    return {name, op, kNib,
            {[=](auto& a, auto& b, auto& d, int ds, int* sf, int sp, int dp) {
                 return run(a, b, d, sp, dp, [&](U* sa, U*, U* v, int n) { return f2(sa, v, sp, dp, n, ds, sf); });
             },
             [=](auto& a, auto& b, auto& d, int ds, int* sf, int sp, int dp) {
                 return run(a, b, d, sp, dp,
                            [&](U* sa, U* sb, U* v, int n) { return f3(sa, sb, v, sp, dp, n, ds, sf); });
             },
             [=](auto& a, auto& b, auto& d, int ds, int* sf, int sp, int dp) {
                 return run(a, b, d, sp, dp, [&](U*, U*, U* v, int n) { return f2s(U(a[0]), v, dp, n, ds, sf); });
             }}};
}

inline const Forms kYAdd = forms("QXybAdd", Op::add, kU8, QXybAdd2, QXybAdd3, QXybAdd2s);
inline const Forms kTAdd = forms("QXtbAdd", Op::add, kS8, QXtbAdd2, QXtbAdd3, QXtbAdd2s);
inline const Forms kWAdd = forms("QXwbAdd", Op::add, kS16, QXwbAdd2, QXwbAdd3, QXwbAdd2s);
inline const Forms kNAdd = nibForms("QXnbAdd", Op::add, QXnbAdd2, QXnbAdd3, QXnbAdd2s);
inline const Forms kYSub = forms("QXybSub", Op::sub, kU8, QXybSub2, QXybSub3, QXybSub2s);
inline const Forms kTSub = forms("QXtbSub", Op::sub, kS8, QXtbSub2, QXtbSub3, QXtbSub2s);
inline const Forms kWSub = forms("QXwbSub", Op::sub, kS16, QXwbSub2, QXwbSub3, QXwbSub2s);
inline const Forms kNSub = nibForms("QXnbSub", Op::sub, QXnbSub2, QXnbSub3, QXnbSub2s);
inline const Forms kYMpy = forms("QXybMpy", Op::mul, kU8, QXybMpy2, QXybMpy3, QXybMpy2s);
inline const Forms kTMpy = forms("QXtbMpy", Op::mul, kS8, QXtbMpy2, QXtbMpy3, QXtbMpy2s);
inline const Forms kWMpy = forms("QXwbMpy", Op::mul, kS16, QXwbMpy2, QXwbMpy3, QXwbMpy2s);
inline const Forms kNMpy = nibForms("QXnbMpy", Op::mul, QXnbMpy2, QXnbMpy3, QXnbMpy2s);

// The reference result of form `form` of f.
inline Expect expected(const Forms& f, int form, const std::vector<int>& a, const std::vector<int>& b,
                       const std::vector<int>& d, int doScale, int sf) {
    if (form == 1) return reference(f.op, f.t, f.op == Op::sub ? b : a, f.op == Op::sub ? a : b, d, doScale, sf);
    return reference(f.op, f.t, d, form == 0 ? a : std::vector<int>(d.size(), a[0]), d, doScale, sf);
}

}  // namespace arithref
