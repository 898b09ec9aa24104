// Absolute value, shifts, minimum and maximum and sums against references,
// and the argument checks of the whole family.
#include <cmath>
#include <cstring>
#include <functional>
#include <numeric>
#include <limits>
#include <random>
#include <set>
#include <vector>

#include "test_arith_reference.h"

using namespace arithref;
using kvxtest::Rep;

namespace {

class Misc : public kvxtest::LibTest {};

template <class T>
std::vector<T> randomData(std::mt19937& g, int n) {
    std::uniform_int_distribution<int> d(std::numeric_limits<T>::min(), std::numeric_limits<T>::max());
    std::vector<T> v(n);
    for (auto& x : v) x = T(d(g));
    return v;
}

// The element-wise reference of a unary operation.
template <class T, class F>
std::vector<T> map(std::vector<T> v, F f) {
    for (auto& x : v) x = T(f(x));
    return v;
}

template <class T, class F>
std::vector<T> applied(std::vector<T> v, F f, int shift) {
    f(v.data(), int(v.size()), shift);
    return v;
}

// The first minimum and the first maximum of v.
template <class T, class Mn, class Mx>
void checkMinMax(const std::vector<T>& v, Mn mn, Mx mx) {
    int lo = 0, hi = 0, pos = -1, n = int(v.size());
    for (int k = 1; k < n; ++k) lo = v[k] < v[lo] ? k : lo, hi = v[k] > v[hi] ? k : hi;
    EXPECT_EQ(mn(v.data(), n, &pos), v[lo]);
    EXPECT_EQ(pos, lo);
    EXPECT_EQ(mx(v.data(), n, &pos), v[hi]);
    EXPECT_EQ(pos, hi);
}

template <class T>
void checkAbs(const std::vector<T>& v, int (*abs1)(T*, int), int (*abs2)(const T*, T*, int), Type t = {}) {
    // Bit for bit: the most negative integer stays, and so does -0.0f.
    auto want = map(v, [&](T x) {
        if constexpr (std::is_floating_point_v<T>) return x < 0 ? -x : x;
        else return wrapTo(x < 0 ? -int64_t(x) : x, t);
    });
    auto in = v, out = v;
    abs1(in.data(), int(v.size()));
    abs2(v.data(), out.data(), int(v.size()));
    EXPECT_EQ(std::memcmp(in.data(), want.data(), v.size() * sizeof(T)), 0);
    EXPECT_EQ(std::memcmp(out.data(), want.data(), v.size() * sizeof(T)), 0);
}

// A sum in every mode: fixed shift with several factors, the others exact
// (nothing here leaves the int range).
template <class F>
void checkSum(int64_t exact, F sum) {
    for (int doScale = 0; doScale <= 3; ++doScale) {
        for (int sf0 : doScale == 1 ? std::vector<int>{0, 1, 33, -2} : std::vector<int>{5}) {
            int sf = sf0;
            int64_t want = doScale != 1 ? exact : sf0 >= 0 ? shr(exact, sf0 % 32) : exact * (int64_t(1) << (-sf0 % 32));
            EXPECT_EQ(sum(doScale, &sf), wrapTo(want, kI32)) << doScale << " " << sf0;
            EXPECT_EQ(sf, doScale == 1 ? sf0 : 0);
        }
    }
}

}  // namespace

TEST_F(Misc, AbsShiftMinMaxSumMatchReferences) {
    std::mt19937 g(5);
    std::uniform_int_distribution<int> byte(0, 255);
    allPaths([&] {
        for (int n : {1, 2, 15, 16, 17, 33, 127, 128, 129, 300, 4099, 70001}) {
            SCOPED_TRACE(n);
            auto y = randomData<unsigned char>(g, n);
            auto t = randomData<signed char>(g, n);
            auto w = randomData<short>(g, n);
            t[0] = -128;
            w[n - 1] = -32768;
            auto ties = map(w, [](short x) { return x % 50; });
            std::vector<float> f(ties.begin(), ties.end());
            f[0] = n % 2 ? -0.0f : -std::numeric_limits<float>::infinity();
            checkAbs(t, QXtbAbs, QXtbAbs2, kS8);
            checkAbs(w, QXwbAbs, QXwbAbs2, kS16);
            checkAbs(f, QXsbAbs, QXsbAbs2);
            for (int shift : {0, 1, 3, 7, 8, 15, 16, 17, 31, 32, 33, 63, -1, -31}) {
                SCOPED_TRACE(shift);
                const int s = shift & 31;
                auto left = [&](Type ty) { return [&, ty](int x) { return wrapTo(x * (int64_t(1) << s), ty); }; };
                EXPECT_EQ(applied(y, QXybShiftL, shift), map(y, left(kU8)));
                EXPECT_EQ(applied(y, QXybShiftR, shift), map(y, [&](int x) { return x >> s; }));
                EXPECT_EQ(applied(t, QXtbShiftL, shift), map(t, left(kS8)));
                EXPECT_EQ(applied(t, QXtbShiftR, shift), map(t, [&](int x) { return shr(x, s); }));
                EXPECT_EQ(applied(w, QXwbShiftL, shift), map(w, left(kS16)));
                EXPECT_EQ(applied(w, QXwbShiftR, shift), map(w, [&](int x) { return shr(x, s); }));
            }
            checkMinMax(y, QXyMin, QXyMax);
            checkMinMax(t, QXtMin, QXtMax);
            checkMinMax(ties, QXwMin, QXwMax);
            f[0] = 0.0f;
            checkMinMax(f, QXsMin, QXsMax);
            int64_t ys = 0, ts = 0, ws = 0;
            for (int k = 0; k < n; ++k) ys += y[k], ts += t[k], ws += w[k];
            checkSum(ys, [&](int ds, int* sf) { return QXySum(y.data(), n, ds, sf); });
            checkSum(ts, [&](int ds, int* sf) { return QXtSum(t.data(), n, ds, sf); });
            checkSum(ws, [&](int ds, int* sf) { return QXwSum(w.data(), n, ds, sf); });
            float fs = 0;
            for (float x : f) fs += x;  // small whole numbers: exact in any order
            EXPECT_EQ(QXsSum(f.data(), n), fs);

            // Nibbles and bits at every start position, with guard bytes around.
            std::vector<uint8_t> buf(n / 2 + 6);
            for (auto& x : buf) x = uint8_t(byte(g));
            for (int p = 0; p <= 1; ++p) {
                std::vector<int> v(n);
                for (int k = 0; k < n; ++k) v[k] = nib(buf, 2, p, k);
                checkMinMax(v, [&](const int*, int m, int* pos) { return int(QXnMin(buf.data() + 2, p, m, pos)); },
                            [&](const int*, int m, int* pos) { return int(QXnMax(buf.data() + 2, p, m, pos)); });
                checkSum(std::accumulate(v.begin(), v.end(), int64_t(0)),
                         [&](int ds, int* sf) { return QXnSum(buf.data() + 2, p, n, ds, sf); });
                for (int shift : {0, 1, 2, 3, 4, 33, 35}) {
                    for (auto op : {QXnbShiftL, QXnbShiftR}) {
                        auto got = buf, want = buf;
                        for (int k = 0; k < n; ++k)
                            setNib(want, 2, p, k, op == QXnbShiftL ? (v[k] << (shift & 31)) & 15 : v[k] >> (shift & 31));
                        op(got.data() + 2, p, n, shift);
                        EXPECT_EQ(got, want) << p << " " << shift;
                    }
                }
            }
            for (int p = 0; p <= 7; ++p) {
                int64_t bits = 0;
                for (int k = 0; k < n; ++k) bits += kvxtest::packed_get(1, buf.data(), 7 - p + k);
                checkSum(bits, [&](int ds, int* sf) { return QXbSum(buf.data(), p, n, ds, sf); });
            }
        }
    });
    EXPECT_TRUE(got().empty());
}

// Beyond the int range: checked raises (and returns the wrapped sum),
// automatic halves, saturating clamps; past the vector paths' blocks too.
TEST_F(Misc, SumsBeyondTheIntRange) {
    std::vector<short> high(70000, 32767), low(600001, -32768);
    std::vector<unsigned char> ones(1 << 24, 255);
    struct Case {
        const char* name;
        std::function<int(int, int*)> sum;
        int64_t exact;
    };
    const Case cases[] = {{"QXwSum ", [&](int ds, int* sf) { return QXwSum(high.data(), 70000, ds, sf); }, 70000 * 32767LL},
                          {"QXwSum ", [&](int ds, int* sf) { return QXwSum(low.data(), 600001, ds, sf); }, 600001 * -32768LL},
                          {"QXySum ", [&](int ds, int* sf) { return QXySum(ones.data(), 1 << 24, ds, sf); }, 255LL << 24}};
    for (const Case& c : cases) {
        allPaths([&] {
            int sf = 0, halvings = 0;
            int64_t halved = c.exact;
            for (; halved > INT32_MAX || halved < INT32_MIN; ++halvings) halved = shr(halved, 1);
            EXPECT_EQ(c.sum(2, &sf), halved);
            EXPECT_EQ(sf, halvings);
            EXPECT_EQ(c.sum(3, &sf), c.exact > 0 ? INT32_MAX : INT32_MIN);
            EXPECT_EQ(c.sum(0, &sf), wrapTo(c.exact, kI32));
            EXPECT_TRUE(kvxtest::all_name_raising_lines());
            EXPECT_EQ(takeReports(), (std::vector<Rep>{{c.exact > 0 ? -20 : -21, c.name, ""}}));
        });
    }
}

// Each of the 45 arithmetic wrappers reports from its own family file
// (QX_B<op><form>.cpp), at the table line that generates it.
TEST_F(Misc, ArithmeticReportsNameTheirFamilyFile) {
    const std::string files[3][3] = {{"QX_BADD2", "QX_BADD3", "QX_BADDS"}, {"QX_BSUB2", "QX_BSUB3", "QX_BSUBS"},
                                     {"QX_BMPY2", "QX_BMPY3", "QX_BMPYS"}};
    using F2 = int (*)(const float*, float*, int);
    using F3 = int (*)(const float*, const float*, float*, int);
    using F2s = int (*)(float, float*, int);
    const std::tuple<F2, F3, F2s> floats[3] = {{QXsbAdd2, QXsbAdd3, QXsbAdd2s}, {QXsbSub2, QXsbSub3, QXsbSub2s},
                                               {QXsbMpy2, QXsbMpy3, QXsbMpy2s}};
    const Forms* ints[3][4] = {{&kNAdd, &kYAdd, &kTAdd, &kWAdd}, {&kNSub, &kYSub, &kTSub, &kWSub}, {&kNMpy, &kYMpy, &kTMpy, &kWMpy}};
    for (int op = 0; op < 3; ++op)
        for (int form = 0; form < 3; ++form) {
            std::vector<int> none, one{1};
            int sf = 0;
            for (const Forms* f : ints[op]) f->f[form](one, one, none, 0, &sf, 0, 0);   // n = 0
            const auto [f2, f3, f2s] = floats[op];
            form == 0 ? f2(nullptr, nullptr, 0) : form == 1 ? f3(nullptr, nullptr, nullptr, 0) : f2s(0, nullptr, 0);
            std::set<std::string> named;
            for (const auto& r : kvxtest::reports()) {
                EXPECT_EQ(r.file, "..\\LIBSRC\\" + files[op][form] + ".cpp") << r.function;
                EXPECT_TRUE(kvxtest::names_raising_line(r));
                named.insert(r.function);
            }
            EXPECT_EQ(named.size(), 5u) << files[op][form];
            clear();
        }
}

// Checks run in order and stop the work; some report under odd names.
TEST_F(Misc, ChecksReportTheirTextsInOrder) {
    int sf65 = 65, sfm65 = -65, sf99 = 99, sf70 = 70, sf = 0;
    unsigned char v[2] = {1, 2};
    float fv[1] = {1};
    using G = std::vector<std::pair<std::string, std::vector<std::string>>>;  // function, its texts
    const std::vector<std::pair<std::function<void()>, G>> table{
        {[&] { QXybAdd2(nullptr, nullptr, 0, 1, &sf65); }, {{"QXybAdd2", {"*scaleFactor>64", "n<=0", "src==0", "dst==0"}}}},
        {[&] { QXtbSub3(nullptr, nullptr, nullptr, -1, 1, &sfm65); },
         {{"QXtbSub3", {"*scaleFactor<-64", "n<=0", "srcA==0", "srcB==0", "dst==0"}}}},
        {[&] { QXwbAdd2s(1, nullptr, 0, 4, nullptr); }, {{"QXwbAdd2s", {"doScale>3", "scaleFactor==0", "n<=0", "dst==0"}}}},
        {[&] { QXybSub2s(1, nullptr, 3, -1, &sf99); }, {{"QXybSub2s", {"doScale<0", "dst==0"}}}},
        {[&] { QXnbAdd3(nullptr, v, v, -1, 2, 0, 0, &sf); }, {{"QXnbAdd3", {"srcStartPos<0", "dstStartPos>1", "n<=0", "srcA==0"}}}},
        {[&] { QXnbSub2(v, nullptr, 2, -1, 1, 0, nullptr); },
         {{"QXnbSub2", {"srcStartPos>1", "dstStartPos<0", "scaleFactor==0", "dst==0"}}}},
        {[&] { QXnbAdd2s(1, v, 2, 1, 0, nullptr); }, {{"QXnbAdd2s", {"dstStartPos>1", "scaleFactor==0"}}}},
        {[&] { QXsbSub3(nullptr, fv, nullptr, 0); }, {{"QXsbSub3", {"n<=0", "srcA==0", "dst==0"}}}},
        {[&] { QXsbMpy2(nullptr, nullptr, 0); }, {{"QXsbMpy2", {"n<=0", "src==0", "dst==0"}}}},
        {[&] { QXsbMpy2s(2.0f, nullptr, 0); }, {{"QXsbMpy2s", {"n<=0", "dst==0"}}}},
        {[&] { QXybMpy2(nullptr, nullptr, 0, 1, &sf65); },
         {{"QXtbMpy2", {"*scaleFactor>64"}}, {"QXybMpy2", {"n<=0", "src==0", "dst==0"}}}},
        {[&] { QXybMpy2(nullptr, nullptr, 1, -1, nullptr); },
         {{"QXtbMpy2", {"doScale<0", "scaleFactor==0"}}, {"QXybMpy2", {"src==0", "dst==0"}}}},
        {[&] { QXnbMpy2s(3, v, 3, -2, 5, &sf); }, {{"QXnbMpy2s", {"dstStartPos>1", "doScale>3", "n<=0"}}}},
        {[&] { QXtbAbs(nullptr, 0); }, {{"QXtbAbs", {"n<=0", "dst==0"}}}},
        {[&] { QXsbAbs2(nullptr, nullptr, -3); }, {{"QXsbAbs2", {"n<=0", "src==0", "dst==0"}}}},
        {[&] { QXwbShiftR(nullptr, 0, 1); }, {{"QXwbShiftL", {"n<=0", "dst==0"}}}},
        {[&] { QXybShiftL(v, -1, 1); }, {{"QXybShiftL", {"n<=0"}}}},
        {[&] { QXnbShiftR(nullptr, -1, 0, 1); }, {{"QXnbShiftR", {"dstStartPos<0", "n<=0", "dst==0"}}}},
        {[&] { EXPECT_EQ(QXnMax(nullptr, 2, 0, nullptr), 0); }, {{"QXnMax", {"src==0", "position==0", "startPos>1", "n<=0"}}}},
        {[&] { EXPECT_EQ(QXyMin(nullptr, 0, nullptr), 0); }, {{"QXyMin", {"n<=0", "src==0", "position==0"}}}},
        {[&] { EXPECT_EQ(QXbSum(nullptr, 8, 0, 1, &sf70), 0); }, {{"QXbSum ", {"*scaleFactor>64", "dst==0", "startPos>7", "n<=0"}}}},
        {[&] { QXnSum(nullptr, -1, 1, 4, nullptr); }, {{"QXnSum ", {"doScale>3", "scaleFactor==0", "dst==0", "startPos<0"}}}},
        {[&] { QXtSum(nullptr, 0, -1, &sf); }, {{"QXtSum ", {"doScale<0", "n<=0", "dst==0"}}}},
        {[&] { QXsSum(nullptr, 0); }, {{"QXsSum ", {"n<=0", "dst==0"}}}},
    };
    for (const auto& [call, groups] : table) {
        call();
        std::vector<Rep> want;
        for (const auto& [fn, texts] : groups)
            for (const auto& text : texts) want.emplace_back(-5, fn, text);
        EXPECT_EQ(got(), want);
        EXPECT_TRUE(kvxtest::all_name_raising_lines());
        clear();
    }
    // n = 0 writes nothing; a pending error stops a valid call before any work.
    QXybAdd2s(1, v, 0, 0, &sf);
    clear();
    QXSetStatus(-4);
    EXPECT_EQ(QXybAdd2s(1, v, 2, 0, &sf), -4);
    EXPECT_EQ(QXsbMpy2s(2.0f, fv, 1), -4);
    EXPECT_EQ(std::vector<int>(v, v + 2), (std::vector<int>{1, 2}));
    EXPECT_EQ(fv[0], 1.0f);
}
