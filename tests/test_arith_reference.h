// Per-element references for the vector arithmetic tests, written straight
// from the documented behaviour: the exact result of each element, then the
// scaling mode, with the automatic mode done the long way (walk forward, stop
// at the first result out of range, restore, rescale what was stored, go on).
#pragma once

#include <cstdint>
#include <random>
#include <vector>

namespace arithref {

enum class Op { add, sub, mul };

struct Type {
    int lo, hi;
    bool is_signed() const { return lo < 0; }
    int64_t span() const { return int64_t(hi) - lo + 1; }
};
inline constexpr Type kNib{0, 15}, kU8{0, 255}, kS8{-128, 127}, kS16{-32768, 32767};

// v modulo the element width, as the element type reads it back.
inline int wrapTo(int64_t v, Type t) {
    int64_t m = ((v % t.span()) + t.span()) % t.span();
    if (t.is_signed() && m > t.hi) m -= t.span();
    return int(m);
}

inline int64_t exact(Op op, int64_t l, int64_t r) {
    return op == Op::add ? l + r : op == Op::sub ? l - r : l * r;
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

// l op r for every k; `before` is the destination's content before the call
// (equal to l for the in-place forms).
inline Expect reference(Op op, Type t, const std::vector<int>& l, const std::vector<int>& r,
                        const std::vector<int>& before, int doScale, int scaleFactor) {
    size_t n = l.size();
    Expect e{before, scaleFactor};
    std::vector<int64_t> x(n);
    for (size_t k = 0; k < n; ++k) x[k] = exact(op, l[k], r[k]);
    auto fits = [&](int64_t v) { return v >= t.lo && v <= t.hi; };
    switch (doScale) {
    case 0:
        for (size_t k = 0; k < n; ++k) {
            e.out[k] = wrapTo(x[k], t);
            e.over |= x[k] > t.hi;
            e.under |= x[k] < t.lo;
        }
        e.scaleFactor = 0;
        break;
    case 1: {
        bool right = op == Op::mul ? scaleFactor >= 0 : scaleFactor >= 1;
        for (size_t k = 0; k < n; ++k) {
            if (right)
                e.out[k] = wrapTo(shr(x[k], scaleFactor % 32), t);
            else
                e.out[k] = wrapTo(int64_t(wrapTo(x[k], t)) * (int64_t(1) << ((-scaleFactor) % 32)), t);
        }
        break;
    }
    case 3:
        for (size_t k = 0; k < n; ++k) e.out[k] = int(std::min<int64_t>(std::max<int64_t>(x[k], t.lo), t.hi));
        e.scaleFactor = 0;
        break;
    case 2:
        e.scaleFactor = 0;
        if (op == Op::sub && !t.is_signed()) {
            for (size_t k = 0; k < n; ++k) e.out[k] = x[k] < 0 ? 0 : int(x[k]);
            break;
        }
        for (size_t k = 0; k < n; ++k) {
            if (fits(x[k])) {
                e.out[k] = int(x[k]);
                continue;
            }
            e.out[k] = before[k];  // restored
            int s = 1;
            if (op == Op::mul) {
                int64_t mx = x[k], mn = x[k];
                for (size_t j = k; j < n; ++j) {
                    mx = std::max(mx, x[j]);
                    mn = std::min(mn, x[j]);
                }
                int64_t v = (t.is_signed() && -mn > (mx < 0 ? -mx : mx)) ? mn : mx;
                s = 0;
                while (!fits(v)) {
                    v = shr(v, 1);
                    ++s;
                }
            }
            for (size_t j = 0; j < k; ++j) e.out[j] = wrapTo(shr(e.out[j], s), t);
            for (size_t j = k; j < n; ++j) e.out[j] = wrapTo(shr(x[j], s), t);
            e.scaleFactor = s;
            break;
        }
        break;
    }
    return e;
}

// Random elements: mostly small (nothing overflows), sometimes the full range.
inline std::vector<int> randomVec(std::mt19937& g, Type t, size_t n, int lo, int hi) {
    std::uniform_int_distribution<int> d(std::max(lo, t.lo), std::min(hi, t.hi));
    std::vector<int> v(n);
    for (auto& x : v) x = d(g);
    return v;
}

// The scale factors every mode is run with (fixed-shift mode uses them all).
inline const std::vector<int>& factors() {
    static const std::vector<int> f{0, 1, 2, 3, 7, 15, 31, 32, 33, 64, -1, -2, -7, -31, -32, -33, -64};
    return f;
}

// Reads and writes nibble k of a packed vector starting at position p
// (1: the high nibble of the first byte, 0: its low nibble).
inline int nib(const std::vector<uint8_t>& buf, size_t base, int p, size_t k) {
    size_t idx = (p == 1 ? 0 : 1) + k;
    uint8_t b = buf[base + idx / 2];
    return idx % 2 == 0 ? b >> 4 : b & 15;
}
inline void setNib(std::vector<uint8_t>& buf, size_t base, int p, size_t k, int v) {
    size_t idx = (p == 1 ? 0 : 1) + k;
    uint8_t& b = buf[base + idx / 2];
    b = idx % 2 == 0 ? uint8_t((b & 0x0F) | (v << 4)) : uint8_t((b & 0xF0) | (v & 15));
}

}  // namespace arithref

// ---------------------------------------------------------------------------
// Drivers that run the three forms of one operation against the reference.
#include <string>
#include <tuple>

#include "kvx_test.h"

namespace arithref {

// The overflow reports the reference predicts, as (code, function, text).
inline std::vector<kvxtest::Rep> expectedReports(const Expect& e, const std::string& name) {
    std::vector<kvxtest::Rep> v;
    if (e.over) v.emplace_back(-20, name, "");
    if (e.under) v.emplace_back(-21, name, "");
    return v;
}

inline std::vector<kvxtest::Rep> takeReports() {
    std::vector<kvxtest::Rep> v;
    for (const auto& r : kvxtest::reports()) v.emplace_back(r.code, r.function, r.condition);
    kvxtest::reports().clear();
    QXSetStatus(0);
    return v;
}

template <class T>
struct Forms {
    const char* name2;
    int (*f2)(const T*, T*, int, int, int*);
    const char* name3;
    int (*f3)(const T*, const T*, T*, int, int, int*);
    const char* name2s;
    int (*f2s)(T, T*, int, int, int*);
};

template <class T>
std::vector<int> ints(const std::vector<T>& v) {
    return std::vector<int>(v.begin(), v.end());
}
template <class T>
std::vector<T> elems(const std::vector<int>& v) {
    std::vector<T> r(v.size());
    for (size_t k = 0; k < v.size(); ++k) r[k] = T(v[k]);
    return r;
}

// One pair of random operands through the three forms, every mode and factor.
template <class T>
void runForms(Op op, Type t, const Forms<T>& f, const std::vector<int>& a, const std::vector<int>& b, int val) {
    const int n = int(a.size());
    const T guard = T(0x5A);
    for (int doScale = 0; doScale <= 3; ++doScale) {
        std::vector<int> fs = doScale == 1 ? factors() : std::vector<int>{9};
        for (int sf0 : fs) {
            SCOPED_TRACE(testing::Message() << "doScale " << doScale << " factor " << sf0 << " n " << n);
            // Form 2: srcDst = srcDst op src.
            {
                std::vector<T> src = elems<T>(a), sd = elems<T>(b);
                sd.push_back(guard);
                int sf = sf0;
                f.f2(src.data(), sd.data(), n, doScale, &sf);
                Expect e = reference(op, t, b, a, b, doScale, sf0);
                EXPECT_EQ(sd.back(), guard);
                sd.pop_back();
                EXPECT_EQ(ints(sd), e.out) << f.name2;
                EXPECT_EQ(sf, e.scaleFactor) << f.name2;
                EXPECT_EQ(takeReports(), expectedReports(e, f.name2));
            }
            // Form 3: dst = srcA op srcB, except subtraction: srcB - srcA.
            {
                std::vector<T> sa = elems<T>(a), sb = elems<T>(b), dst(n + 1, guard);
                int sf = sf0;
                f.f3(sa.data(), sb.data(), dst.data(), n, doScale, &sf);
                std::vector<int> before(n, int(guard));
                Expect e = op == Op::sub ? reference(op, t, b, a, before, doScale, sf0)
                                         : reference(op, t, a, b, before, doScale, sf0);
                EXPECT_EQ(dst.back(), guard);
                dst.pop_back();
                EXPECT_EQ(ints(dst), e.out) << f.name3;
                EXPECT_EQ(sf, e.scaleFactor) << f.name3;
                EXPECT_EQ(ints(sa), a);  // sources untouched
                EXPECT_EQ(ints(sb), b);
                EXPECT_EQ(takeReports(), expectedReports(e, f.name3));
            }
            // Form 2s: srcDst = srcDst op val.
            {
                std::vector<T> sd = elems<T>(b);
                sd.push_back(guard);
                int sf = sf0;
                f.f2s(T(val), sd.data(), n, doScale, &sf);
                Expect e = reference(op, t, b, std::vector<int>(n, val), b, doScale, sf0);
                EXPECT_EQ(sd.back(), guard);
                sd.pop_back();
                EXPECT_EQ(ints(sd), e.out) << f.name2s;
                EXPECT_EQ(sf, e.scaleFactor) << f.name2s;
                EXPECT_EQ(takeReports(), expectedReports(e, f.name2s));
            }
        }
    }
}

// Random data in several regimes: the full range, small values that never
// leave the range, and small values with one large pair somewhere (also past
// the first few thousand elements, where the work is split into blocks).
template <class T>
void checkAgainstReference(Op op, Type t, const Forms<T>& f, unsigned seed) {
    std::mt19937 g(seed);
    int small = t.is_signed() ? 5 : 7;
    for (int n : {1, 2, 3, 7, 16, 33, 100}) {
        runForms(op, t, f, randomVec(g, t, n, t.lo, t.hi), randomVec(g, t, n, t.lo, t.hi),
                 randomVec(g, t, 1, t.lo, t.hi)[0]);
        runForms(op, t, f, randomVec(g, t, n, -small, small), randomVec(g, t, n, -small, small),
                 randomVec(g, t, 1, -small, small)[0]);
    }
    for (int n : {5000, 9000}) {
        for (int spikeAt : {0, 4095, 4096, n - 1}) {
            auto a = randomVec(g, t, n, -small, small), b = randomVec(g, t, n, -small, small);
            a[spikeAt] = t.hi;
            b[spikeAt] = op == Op::sub ? t.lo : t.hi;
            // Sub2 with val = 0 and small data stays in range: the spike decides.
            runForms(op, t, f, a, b, 1);
        }
    }
}

// Nibble forms.
struct NibForms {
    const char* name2;
    int (*f2)(const unsigned char*, unsigned char*, int, int, int, int, int*);
    const char* name3;
    int (*f3)(const unsigned char*, const unsigned char*, unsigned char*, int, int, int, int, int*);
    const char* name2s;
    int (*f2s)(unsigned char, unsigned char*, int, int, int, int*);
};

// Buffers of random bytes with guard bytes before and after; the vector
// starts at byte 2 and every byte outside it, and the other nibble of its
// first and last byte, must keep its value.
inline void checkNibbles(Op op, const NibForms& f, unsigned seed) {
    std::mt19937 g(seed);
    std::uniform_int_distribution<int> byte(0, 255);
    auto buffer = [&](size_t n) {
        std::vector<uint8_t> v(n / 2 + 6);
        for (auto& x : v) x = uint8_t(byte(g));
        return v;
    };
    const size_t base = 2;
    auto read = [&](const std::vector<uint8_t>& buf, int p, int n) {
        std::vector<int> v(n);
        for (int k = 0; k < n; ++k) v[k] = nib(buf, base, p, k);
        return v;
    };
    for (int n : {1, 2, 3, 4, 5, 8, 13, 64, 301}) {
        for (int sp = 0; sp <= 1; ++sp) {
            for (int dp = 0; dp <= 1; ++dp) {
                for (int doScale = 0; doScale <= 3; ++doScale) {
                    for (int sf0 : doScale == 1 ? std::vector<int>{0, 1, 2, 33, -1, -3} : std::vector<int>{4}) {
                        SCOPED_TRACE(testing::Message() << "n " << n << " srcPos " << sp << " dstPos " << dp
                                                        << " doScale " << doScale << " factor " << sf0);
                        auto src = buffer(n), sd = buffer(n), sb = buffer(n);
                        // Half of the cases with small values, where the automatic mode keeps them.
                        if (n % 2) {
                            for (auto& x : src) x &= 0x33;
                            for (auto& x : sd) x &= 0x33;
                        }
                        auto a = read(src, sp, n), b = read(sd, dp, n);
                        auto srcCopy = src;
                        {   // Form 2
                            auto buf = sd;
                            int sf = sf0;
                            f.f2(src.data() + base, buf.data() + base, sp, dp, n, doScale, &sf);
                            Expect e = reference(op, kNib, b, a, b, doScale, sf0);
                            auto want = sd;
                            for (int k = 0; k < n; ++k) setNib(want, base, dp, k, e.out[k]);
                            EXPECT_EQ(buf, want) << f.name2;
                            EXPECT_EQ(sf, e.scaleFactor) << f.name2;
                            EXPECT_EQ(src, srcCopy);
                            EXPECT_EQ(takeReports(), expectedReports(e, f.name2));
                        }
                        {   // Form 3: both sources at srcStartPos
                            auto bsrc = sd;   // as srcB, read at sp
                            auto b3 = read(bsrc, sp, n);
                            auto dst = sb;
                            int sf = sf0;
                            f.f3(src.data() + base, bsrc.data() + base, dst.data() + base, sp, dp, n, doScale, &sf);
                            std::vector<int> before = read(sb, dp, n);
                            Expect e = op == Op::sub ? reference(op, kNib, b3, a, before, doScale, sf0)
                                                     : reference(op, kNib, a, b3, before, doScale, sf0);
                            auto want = sb;
                            for (int k = 0; k < n; ++k) setNib(want, base, dp, k, e.out[k]);
                            EXPECT_EQ(dst, want) << f.name3;
                            EXPECT_EQ(sf, e.scaleFactor) << f.name3;
                            EXPECT_EQ(takeReports(), expectedReports(e, f.name3));
                        }
                        {   // Form 2s
                            int val = a[0];
                            auto buf = sd;
                            int sf = sf0;
                            f.f2s(uint8_t(val), buf.data() + base, dp, n, doScale, &sf);
                            Expect e = reference(op, kNib, b, std::vector<int>(n, val), b, doScale, sf0);
                            auto want = sd;
                            for (int k = 0; k < n; ++k) setNib(want, base, dp, k, e.out[k]);
                            EXPECT_EQ(buf, want) << f.name2s;
                            EXPECT_EQ(sf, e.scaleFactor) << f.name2s;
                            EXPECT_EQ(takeReports(), expectedReports(e, f.name2s));
                        }
                    }
                }
            }
        }
    }
}

}  // namespace arithref
