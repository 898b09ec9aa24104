// Extreme ints from a hostile caller: each case calls a function once with an
// extreme value and once with an ordinary value of the same kind (another
// rejected length, another factor beyond the shift width, ...). Both calls
// must make the same reports and leave the same results; run under the
// sanitizers, the extreme call must also stay defined.
#include <climits>
#include <functional>
#include <vector>

#include "kvx_test.h"

namespace {

using Bytes = std::vector<unsigned char>;

// The bytes of every value (arrays whole), in order.
template <class... T>
Bytes bytes(const T&... v) {
    Bytes b;
    (b.insert(b.end(), reinterpret_cast<const unsigned char*>(&v), reinterpret_cast<const unsigned char*>(&v) + sizeof v), ...);
    return b;
}

struct Case {
    const char* what;
    int extreme, ordinary;
    std::function<Bytes(int)> call;   // the results the call leaves
};

class Hostile : public kvxtest::LibTest {
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
        QXHMMFreeAll();
    }
};

const short kShorts[16] = {1200, -3400, 5600, -7800, 910, -1112, 1314, -1516,
                           1718, -1920, 2122, -2324, 2526, -2728, 2930, -3132};

using InPlace = void (*)(short*, int, int, int, int*);
using NotInPlace = int (*)(const short*, short*, int, int, int, int*);

// A short FFT of order 3 with doScale 1 and the factor under test.
Bytes short_fft(InPlace fft, NotInPlace nip, int flags, int factor) {
    short v[16] = {};
    int sf = factor, r = 0;
    if (fft)
        std::copy(kShorts, kShorts + 16, v), fft(v, 3, flags, 1, &sf);
    else
        r = nip(kShorts, v, 3, flags, 1, &sf);
    return bytes(v, r);
}

Bytes vwb(int n) {
    short in[4] = {3, 4, 6, 8}, out[2] = {7, 7};
    int sf = 0;
    QXvwbConvert(in, out, n, 1, 0, &sf);
    return bytes(out, sf);
}

}  // namespace

TEST_F(Hostile, Conversions) {
    // 2n of a very negative n leaves the int range: still a length of zero or
    // less. A factor far below -64 is reported and the value converted all the
    // same: any factor below -1100 enlarges past every double.
    run({
        {"QXvwbConvert n", -1073741825, -1, vwb},
        {"QXvwbConvert n", INT_MIN, -7, vwb},
        {"QXswConvertDown factor", INT_MIN, -5000, [](int f) {
             int sf = f;
             const short a = QXswConvertDown(1.5f, 1, &sf);
             return bytes(a, QXswConvertDown(0.0f, 1, &sf));
         }},
        {"QXdwConvertDown factor", INT_MIN, -5000, [](int f) { return bytes(QXdwConvertDown(-2.5, 1, &f)); }},
        {"QXsiConvertDown factor", INT_MIN, -5000, [](int f) { return bytes(QXsiConvertDown(3.0f, 1, &f)); }},
        {"QXdiConvertDown factor", INT_MIN, -5000, [](int f) { return bytes(QXdiConvertDown(-3.0, 1, &f)); }},
        {"QXswbConvertDown factor", INT_MIN, -5000, [](int f) {
             const float in[2] = {1.0f, -1.0f};
             short out[2] = {5, 5};
             QXswbConvertDown(in, out, 2, 1, &f);
             return bytes(out);
         }},
        {"QXwsConvertUp factor", INT_MIN, -5000, [](int f) { return bytes(QXwsConvertUp(3, f)); }},
        {"QXidConvertUp factor", INT_MIN, -5000, [](int f) { return bytes(QXidConvertUp(-3, f)); }},
    });
}

TEST_F(Hostile, ShortFfts) {
    // On the fixed-point path the output shift is 6 + factor (+ order for a
    // scaled inverse); any shift of 31 or more leaves only the sign. Shifts
    // below 1 go left by the shift modulo 32: INT_MIN is 0 modulo 32.
    const std::pair<const char*, InPlace> inPlace[] = {{"QXvFft", QXvFft}, {"QXwRealFft", QXwRealFft}, {"QXwCcsFft", QXwCcsFft}};
    const std::pair<const char*, NotInPlace> nip[] = {{"QXvFftNip", QXvFftNip}, {"QXwRealFftNip", QXwRealFftNip},
                                                      {"QXwCcsFftNip", QXwCcsFftNip}};
    std::vector<Case> cases;
    for (int flags : {QX_FORWARD, QX_INVERSE}) {
        for (int f : {INT_MAX, INT_MAX - 6, INT_MAX - 9}) {
            for (const auto& p : inPlace)
                cases.push_back({p.first, f, 1000, [=, fft = p.second](int x) { return short_fft(fft, nullptr, flags, x); }});
            for (const auto& p : nip)
                cases.push_back({p.first, f, 1000, [=, fft = p.second](int x) { return short_fft(nullptr, fft, flags, x); }});
        }
        cases.push_back({"QXvFft", INT_MIN, -32 * 1000, [=](int x) { return short_fft(QXvFft, nullptr, flags, x); }});
        cases.push_back({"QXwRealFft", INT_MIN + 1, -32 * 1000 + 1, [=](int x) { return short_fft(QXwRealFft, nullptr, flags, x); }});
    }
    run(cases);
}

TEST_F(Hostile, HmmInits) {
    // Row checks run from the last state down: a count of INT_MIN has none.
    static float row[2] = {0.5f, 0.5f}, *rows[2] = {row, row};
    static short wrow[2] = {1, 1}, *wrows[2] = {wrow, wrow};
    static int costSf = 0;
    auto* spdf = reinterpret_cast<QXsGaussMixServer**>(rows);
    auto* wpdf = reinterpret_cast<QXwGaussMixServer**>(rows);
    const std::vector<std::pair<const char*, std::function<int(int)>>> inits = {
        {"QXsInitHMMServer", [](int n) { return QXsInitHMMServer(rows, rows, row, n, 2, 0); }},
        {"QXwInitHMMServer", [](int n) { return QXwInitHMMServer(wrows, wrows, wrow, n, 2, 0); }},
        {"QXsInitContHMMServer", [=](int n) { return QXsInitContHMMServer(rows, row, spdf, n, 2, 0); }},
        {"QXwInitContHMMServer", [=](int n) { return QXwInitContHMMServer(wrows, wrow, wpdf, n, 2, 0, &costSf); }},
        {"QXsInitSemicontHMMServer", [=](int n) { return QXsInitSemicontHMMServer(rows, rows, row, spdf, n, 2, 2, 0); }},
        {"QXwInitSemicontHMMServer",
         [=](int n) { return QXwInitSemicontHMMServer(wrows, wrows, wrow, wpdf, n, 2, 2, 0, &costSf); }},
    };
    std::vector<Case> cases;
    for (const auto& p : inits) cases.push_back({p.first, INT_MIN, -1, [init = p.second](int n) { return bytes(init(n)); }});
    run(cases);
}
