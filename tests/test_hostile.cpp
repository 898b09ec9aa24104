// Extreme ints from a hostile caller: each case calls a function once with an
// extreme value and once with an ordinary value of the same kind (another
// rejected length, another factor beyond the shift width, ...). Both calls
// must make the same reports and leave the same results; run under the
// sanitizers, the extreme call must also stay defined.
#include <climits>
#include <cstdint>
#include <cstring>
#include <functional>
#include <vector>

#include "kvx_test.h"

using kvxtest::LibTest;
using kvxtest::Rep;

namespace {

using Bytes = std::vector<std::uint8_t>;

template <class T>
void put(Bytes& out, const T* p, std::size_t n) {
    const auto* b = reinterpret_cast<const std::uint8_t*>(p);
    out.insert(out.end(), b, b + n * sizeof(T));
}
template <class T>
void put(Bytes& out, const T& v) { put(out, &v, 1); }

struct Case {
    const char* what;
    int extreme, ordinary;
    std::function<Bytes(int)> call;   // the results the call leaves
};

class Hostile : public LibTest {
protected:
    void run(const std::vector<Case>& cases) {
        for (const Case& c : cases) {
            SCOPED_TRACE(c.what);
            clear();
            const Bytes a = c.call(c.extreme);
            const auto ra = got();
            const int sa = QXGetStatus();
            clear();
            const Bytes b = c.call(c.ordinary);
            EXPECT_EQ(ra, got());
            EXPECT_EQ(sa, QXGetStatus());
            EXPECT_EQ(a, b);
        }
    }
};

const short kShorts[16] = {1200, -3400, 5600, -7800, 910, -1112, 1314, -1516,
                           1718, -1920, 2122, -2324, 2526, -2728, 2930, -3132};

// The short FFTs on order 3 with doScale 1 and the factor under test.
Bytes short_fft(void (*fft)(short*, int, int, int, int*), int flags, int factor) {
    std::vector<short> v(kShorts, kShorts + 16);
    int sf = factor;
    fft(v.data(), 3, flags, 1, &sf);
    Bytes out;  // the factor is an input with doScale 1
    put(out, v.data(), v.size());
    return out;
}

Bytes short_fft_nip(int (*fft)(const short*, short*, int, int, int, int*), int flags, int factor) {
    std::vector<short> v(16, 0);
    int sf = factor;
    const int r = fft(kShorts, v.data(), 3, flags, 1, &sf);
    Bytes out;
    put(out, v.data(), v.size());
    put(out, r);
    return out;
}

}  // namespace

TEST_F(Hostile, Conversions) {
    run({
        // 2n of a very negative n leaves the int range: still a length of zero or less.
        {"QXvwbConvert n", -1073741825, -1, [](int n) {
             short in[4] = {3, 4, 6, 8}, out[2] = {7, 7};
             int sf = 0;
             QXvwbConvert(in, out, n, 1, 0, &sf);
             Bytes b;
             put(b, out, 2);
             put(b, sf);
             return b;
         }},
        {"QXvwbConvert n", INT_MIN, -7, [](int n) {
             short in[4] = {3, 4, 6, 8}, out[2] = {7, 7};
             int sf = 0;
             QXvwbConvert(in, out, n, 1, 0, &sf);
             Bytes b;
             put(b, out, 2);
             return b;
         }},
        // A factor far below -64 is reported and the value converted all the
        // same: any factor below -1100 enlarges past every double.
        {"QXswConvertDown factor", INT_MIN, -5000, [](int f) {
             int sf = f;
             Bytes b;
             put(b, QXswConvertDown(1.5f, 1, &sf));
             put(b, QXswConvertDown(0.0f, 1, &sf));
             return b;
         }},
        {"QXdwConvertDown factor", INT_MIN, -5000, [](int f) {
             int sf = f;
             Bytes b;
             put(b, QXdwConvertDown(-2.5, 1, &sf));
             return b;
         }},
        {"QXsiConvertDown factor", INT_MIN, -5000, [](int f) {
             int sf = f;
             Bytes b;
             put(b, QXsiConvertDown(3.0f, 1, &sf));
             return b;
         }},
        {"QXdiConvertDown factor", INT_MIN, -5000, [](int f) {
             int sf = f;
             Bytes b;
             put(b, QXdiConvertDown(-3.0, 1, &sf));
             return b;
         }},
        {"QXswbConvertDown factor", INT_MIN, -5000, [](int f) {
             const float in[2] = {1.0f, -1.0f};
             short out[2] = {5, 5};
             int sf = f;
             QXswbConvertDown(in, out, 2, 1, &sf);
             Bytes b;
             put(b, out, 2);
             return b;
         }},
        {"QXwsConvertUp factor", INT_MIN, -5000, [](int f) {
             Bytes b;
             put(b, QXwsConvertUp(3, f));
             put(b, QXidConvertUp(-3, f));
             return b;
         }},
    });
}

TEST_F(Hostile, ShortFfts) {
    // On the fixed-point path the output shift is 6 + factor (+ order for a
    // scaled inverse); any shift of 31 or more leaves only the sign.
    std::vector<Case> cases;
    for (int flags : {QX_FORWARD, QX_INVERSE}) {
        for (int f : {INT_MAX, INT_MAX - 6, INT_MAX - 9}) {
            cases.push_back({"QXvFft", f, 1000, [flags](int x) { return short_fft(QXvFft, flags, x); }});
            cases.push_back({"QXwRealFft", f, 1000, [flags](int x) { return short_fft(QXwRealFft, flags, x); }});
            cases.push_back({"QXwCcsFft", f, 1000, [flags](int x) { return short_fft(QXwCcsFft, flags, x); }});
            cases.push_back({"QXvFftNip", f, 1000, [flags](int x) { return short_fft_nip(QXvFftNip, flags, x); }});
            cases.push_back({"QXwRealFftNip", f, 1000, [flags](int x) { return short_fft_nip(QXwRealFftNip, flags, x); }});
            cases.push_back({"QXwCcsFftNip", f, 1000, [flags](int x) { return short_fft_nip(QXwCcsFftNip, flags, x); }});
        }
        // Shifts below 1 go left by the shift modulo 32: INT_MIN is 0 modulo 32.
        cases.push_back({"QXvFft", INT_MIN, -32 * 1000, [flags](int x) { return short_fft(QXvFft, flags, x); }});
        cases.push_back({"QXwRealFft", INT_MIN + 1, -32 * 1000 + 1, [flags](int x) { return short_fft(QXwRealFft, flags, x); }});
    }
    run(cases);
}

TEST_F(Hostile, HmmInits) {
    // Row checks run from the last state down: a count of INT_MIN has none.
    float row[2] = {0.5f, 0.5f};
    float* rows[2] = {row, row};
    short wrow[2] = {1, 1};
    short* wrows[2] = {wrow, wrow};
    int costSf = 0;
    auto ids = [](int id) {
        Bytes b;
        put(b, id);
        QXSetStatus(0);
        QXHMMFreeAll();
        return b;
    };
    run({
        {"QXsInitHMMServer nStates", INT_MIN, -1, [&](int n) { return ids(QXsInitHMMServer(rows, rows, row, n, 2, 0)); }},
        {"QXwInitHMMServer nStates", INT_MIN, -1, [&](int n) { return ids(QXwInitHMMServer(wrows, wrows, wrow, n, 2, 0)); }},
        {"QXsInitContHMMServer nStates", INT_MIN, -1,
         [&](int n) { return ids(QXsInitContHMMServer(rows, row, reinterpret_cast<QXsGaussMixServer**>(rows), n, 2, 0)); }},
        {"QXwInitContHMMServer nStates", INT_MIN, -1, [&](int n) {
             return ids(QXwInitContHMMServer(wrows, wrow, reinterpret_cast<QXwGaussMixServer**>(rows), n, 2, 0, &costSf));
         }},
        {"QXsInitSemicontHMMServer nStates", INT_MIN, -1, [&](int n) {
             return ids(QXsInitSemicontHMMServer(rows, rows, row, reinterpret_cast<QXsGaussMixServer**>(rows), n, 2, 2, 0));
         }},
        {"QXwInitSemicontHMMServer nStates", INT_MIN, -1, [&](int n) {
             return ids(QXwInitSemicontHMMServer(wrows, wrows, wrow, reinterpret_cast<QXwGaussMixServer**>(rows), n, 2, 2,
                                                 0, &costSf));
         }},
    });
}
