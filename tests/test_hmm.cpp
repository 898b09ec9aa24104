// HMM servers and classes, and discrete Viterbi scoring checked against an
// exhaustive search over every state path.
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "kvx_test.h"
#include "qx_hmm.h"

using kvxtest::FailAllocation;
using kvxtest::LibTest;
using kvxtest::Rep;

namespace {

class Hmm : public LibTest {
protected:
    void SetUp() override {
        LibTest::SetUp();
        QXHMMFreeAll();
        live_ = qx::testing::live_blocks();
    }
    void TearDown() override {
        QXHMMFreeAll();
        LibTest::TearDown();
    }
    long live_ = 0;
};

// A model held in row-pointer form, as callers pass it.
template <class T>
struct Model {
    int N, S;
    std::vector<std::vector<T>> A, B;
    std::vector<T> pi;
    std::vector<T*> Arows, Brows;

    Model(int n, int s) : N(n), S(s), A(n, std::vector<T>(n)), B(n, std::vector<T>(s)), pi(n) {}
    T** a() {
        Arows.clear();
        for (auto& r : A) Arows.push_back(r.data());
        return Arows.data();
    }
    T** b() {
        Brows.clear();
        for (auto& r : B) Brows.push_back(r.data());
        return Brows.data();
    }
};

enum class Shape { Band, LeftRight, Full };

template <class T>
T impossible_cost();
template <>
float impossible_cost<float>() { return 1.0e30f; }
template <>
short impossible_cost<short>() { return 32767; }

// Random costs; transitions outside the shape are impossible.
template <class T>
Model<T> random_model(std::mt19937& g, int n, int s, Shape shape) {
    Model<T> m(n, s);
    std::uniform_int_distribution<int> small(0, 40);
    auto draw = [&]() -> T {
        if constexpr (std::is_same_v<T, float>)
            return static_cast<float>(small(g)) * 0.37f;
        else
            return static_cast<short>(small(g) * 7);
    };
    for (int i = 0; i < n; ++i) {
        for (int j = 0; j < n; ++j) {
            bool allowed = shape == Shape::Full || (j >= i && (shape == Shape::LeftRight || j < i + 3));
            m.A[i][j] = allowed ? draw() : impossible_cost<T>();
        }
        for (int k = 0; k < s; ++k)
            m.B[i][k] = draw();
        m.pi[i] = draw();
    }
    return m;
}

// The least cost over every state path, each path summed in the recurrence's
// order: s = pi + b, then s = b + (s + a) per frame.
template <class T, class Acc>
Acc brute_force(const Model<T>& m, const std::vector<int>& o) {
    const int T_ = static_cast<int>(o.size());
    std::vector<int> path(T_, 0);
    Acc best{};
    bool first = true;
    while (true) {
        Acc s = static_cast<Acc>(m.pi[path[0]]) + static_cast<Acc>(m.B[path[0]][o[0]]);
        for (int t = 1; t < T_; ++t)
            s = static_cast<Acc>(m.B[path[t]][o[t]]) + (s + static_cast<Acc>(m.A[path[t - 1]][path[t]]));
        if (first || s < best)
            best = s;
        first = false;
        int t = 0;
        while (t < T_ && ++path[t] == m.N)
            path[t++] = 0;
        if (t == T_)
            break;
    }
    return best;
}

// The same least cost by the plain recurrence over the whole matrix, for
// models too large to search.
template <class T, class Acc>
Acc min_plus(const Model<T>& m, const std::vector<int>& o) {
    std::vector<Acc> s(m.N), t(m.N);
    for (int j = 0; j < m.N; ++j)
        s[j] = static_cast<Acc>(m.pi[j]) + static_cast<Acc>(m.B[j][o[0]]);
    for (std::size_t k = 1; k < o.size(); ++k) {
        for (int j = 0; j < m.N; ++j) {
            Acc best = s[0] + static_cast<Acc>(m.A[0][j]);
            for (int i = 1; i < m.N; ++i)
                best = std::min(best, s[i] + static_cast<Acc>(m.A[i][j]));
            t[j] = static_cast<Acc>(m.B[j][o[k]]) + best;
        }
        s.swap(t);
    }
    return *std::min_element(s.begin(), s.end());
}

int init(Model<float>& m, int flags = 1) {
    return QXsInitHMMServer(m.a(), m.b(), m.pi.data(), m.N, m.S, flags);
}
int init(Model<short>& m, int flags = 1) {
    return QXwInitHMMServer(m.a(), m.b(), m.pi.data(), m.N, m.S, flags);
}

int status_of(int id) {
    int st = 0;
    QXGetHMMServerParm(id, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &st);
    return st;
}

std::vector<int> members(int classId) {
    std::vector<int> ids;
    QXResetHMMClass(classId);
    for (int id = QXNextHMMServer(classId); id > 0; id = QXNextHMMServer(classId))
        ids.push_back(id);
    return ids;
}

}  // namespace

// ---------------------------------------------------------------------------
// Registries
// ---------------------------------------------------------------------------

TEST_F(Hmm, ServerIdsAreDenseAndFreedIdsAreReused) {
    Model<float> m(2, 2);
    EXPECT_EQ(init(m), 1);
    EXPECT_EQ(init(m), 2);
    EXPECT_EQ(init(m), 3);
    QXFreeHMMServer(2);
    EXPECT_EQ(init(m), 2);
    EXPECT_EQ(init(m), 4);
    QXFreeHMMServer(1);
    QXFreeHMMServer(3);
    EXPECT_EQ(init(m), 1);
    EXPECT_EQ(init(m), 3);
    EXPECT_EQ(init(m), 5);
    EXPECT_TRUE(got().empty());
    QXHMMFreeAll();
    EXPECT_EQ(qx::testing::live_blocks(), live_);
    EXPECT_EQ(init(m), 1);
}

TEST_F(Hmm, LookupsReportMissingAndUndefinedIds) {
    Model<float> m(2, 2);
    ASSERT_EQ(init(m), 1);
    EXPECT_NE(QXHMMServer(1), nullptr);
    EXPECT_EQ(QXHMMServer(7), nullptr);
    EXPECT_TRUE(got().empty());
    EXPECT_EQ(QXHMMServer(0), nullptr);
    EXPECT_EQ(QXHMMClass(-3), nullptr);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXHMMServer", "HMMId<1"}, {-5, "QXHMMClass", "classId<1"}}));
    clear();

    int word = 5, n = 5, s = 5, st = 5;
    void *t = &n, *o = &n, *i = &n;
    EXPECT_EQ(QXGetHMMServerParm(9, &word, &t, &o, &i, &n, &s, &st), -1);
    EXPECT_EQ(word + n + s + st, 0);
    EXPECT_EQ(t, nullptr);
    EXPECT_EQ(o, nullptr);
    EXPECT_EQ(i, nullptr);
    QXGetHMMServerParm(0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXGetHMMServerParm", "HMM server and/or class does not exist"},
                                       {-5, "QXHMMServer", "HMMId<1"},
                                       {-5, "QXGetHMMServerParm", "current HMM server and/or class is not defined"}}));
    for (auto& r : kvxtest::reports())
        EXPECT_TRUE(kvxtest::names_raising_line(r));
    clear();

    EXPECT_EQ(QXGetHMMServerParm(1, &word, &t, &o, &i, &n, &s, &st), 1);
    EXPECT_EQ(n, 2);
    EXPECT_EQ(s, 2);
    EXPECT_EQ(word, 0);
    EXPECT_EQ(st, QX_HMM_DISCRETE | QX_HMM_FLOAT | QX_HMM_COST);   // all-zero costs: a full matrix
    EXPECT_EQ(t, QXHMMServer(1)->tprob);

    EXPECT_EQ(QXResetHMMClass(4), -1);
    EXPECT_EQ(QXNextHMMServer(4), -1);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXResetHMMClass", "HMM server and/or class does not exist"},
                                       {-5, "QXNextHMMServer", "HMM server and/or class does not exist"}}));
}

TEST_F(Hmm, ClassIdsAreDenseAndDeletionReleasesOnlyTheClass) {
    EXPECT_EQ(QXCreateHMMClass(), 1);
    EXPECT_EQ(QXCreateHMMClass(), 2);
    EXPECT_EQ(QXCreateHMMClass(), 3);
    Model<float> m(2, 2);
    ASSERT_EQ(init(m), 1);
    EXPECT_EQ(QXAddHMMToClass(2, 1), 1);
    EXPECT_EQ(QXDeleteHMMClass(2), 1);
    EXPECT_EQ(QXHMMClass(2), nullptr);
    EXPECT_NE(QXHMMServer(1), nullptr);
    EXPECT_EQ(QXCreateHMMClass(), 2);
    EXPECT_EQ(QXCreateHMMClass(), 4);
    EXPECT_TRUE(got().empty());

    EXPECT_EQ(QXDeleteHMMClass(9), -1);
    EXPECT_EQ(QXDeleteHMMClass(0), -1);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXDeleteHMMClass", "HMM server and/or class does not exist"},
                                       {-5, "QXDeleteHMMClass", "classId<1"}}));
}

TEST_F(Hmm, ClassesIterateInAscendingIdOrderAcrossBlockSplits) {
    Model<float> m(1, 1);
    for (int i = 0; i < 200; ++i)
        ASSERT_EQ(init(m), i + 1);
    const int c = QXCreateHMMClass();
    EXPECT_EQ(members(c), std::vector<int>{});   // empty: 0 at the first call

    // 64 members fill one block; the 65th splits it into 32 + 33.
    std::vector<int> order;
    for (int i = 0; i < 65; ++i)
        order.push_back(2 * i + 10);
    std::mt19937 g(7);
    std::shuffle(order.begin(), order.end() - 1, g);
    for (int k = 0; k < 64; ++k)
        ASSERT_EQ(QXAddHMMToClass(c, order[k]), 1);
    qx::HMMClass* cls = QXHMMClass(c);
    EXPECT_EQ(cls->first->count, 64);
    EXPECT_EQ(cls->first->next, nullptr);
    EXPECT_EQ(QXAddHMMToClass(c, order[64]), 1);
    EXPECT_EQ(cls->count, 65);
    ASSERT_NE(cls->first->next, nullptr);
    EXPECT_EQ(cls->first->count, 32);
    EXPECT_EQ(cls->first->next->count, 33);
    EXPECT_EQ(cls->first->largestId, cls->first->entries[31].HMMId);
    EXPECT_EQ(cls->first->next->largestId, 0x1FFFFFFF);
    EXPECT_EQ(QXAddHMMToClass(c, 10), 1);   // already a member
    EXPECT_EQ(cls->count, 65);

    // Every odd id from 1 to 199 too, in random order: many more splits.
    std::vector<int> more;
    for (int id = 1; id <= 199; id += 2)
        more.push_back(id);
    std::shuffle(more.begin(), more.end(), g);
    for (int id : more)
        ASSERT_EQ(QXAddHMMToClass(c, id), 1);
    std::vector<int> want;
    for (int id = 1; id <= 199; id += 2)
        want.push_back(id);
    for (int id = 10; id <= 138; id += 2)
        want.push_back(id);
    std::sort(want.begin(), want.end());
    EXPECT_EQ(members(c), want);
    EXPECT_EQ(QXNextHMMServer(c), 0);   // stays exhausted
    EXPECT_TRUE(got().empty());
}

TEST_F(Hmm, IterationStaysOnItsMemberWhileMembersAreAdded) {
    Model<float> m(1, 1);
    for (int i = 0; i < 140; ++i)
        init(m);
    const int c = QXCreateHMMClass();
    for (int id = 70; id < 134; ++id)   // one full block
        QXAddHMMToClass(c, id);
    QXResetHMMClass(c);
    for (int k = 0; k < 40; ++k)
        QXNextHMMServer(c);   // on 109, past the half of the block
    QXAddHMMToClass(c, 1);   // splits; the member moves to the new block
    QXAddHMMToClass(c, 2);
    QXAddHMMToClass(c, 135);
    EXPECT_EQ(QXNextHMMServer(c), 110);
    QXAddHMMToClass(c, 3);
    EXPECT_EQ(QXNextHMMServer(c), 111);
    QXRemoveHMMFromClass(c, 111);   // removing the current member: the next one follows
    EXPECT_EQ(QXNextHMMServer(c), 112);
    std::vector<int> rest;
    for (int id = QXNextHMMServer(c); id > 0; id = QXNextHMMServer(c))
        rest.push_back(id);
    EXPECT_EQ(rest.size(), 133u - 112u + 1u);
    EXPECT_EQ(rest.back(), 135);
}

TEST_F(Hmm, RemovalFreeingAndBlocksLeftEmpty) {
    Model<float> m(1, 1);
    for (int i = 0; i < 100; ++i)
        init(m);
    const int c1 = QXCreateHMMClass(), c2 = QXCreateHMMClass();
    for (int id = 1; id <= 100; ++id)
        QXAddHMMToClass(c1, id);
    QXAddHMMToClass(c2, 5);
    QXAddHMMToClass(c2, 6);
    EXPECT_EQ(QXRemoveHMMFromClass(c2, 7), 1);   // not a member: silent
    EXPECT_TRUE(got().empty());

    QXFreeHMMServer(5);   // leaves both classes
    EXPECT_EQ(members(c2), std::vector<int>{6});
    EXPECT_EQ(QXHMMClass(c1)->count, 99);

    // Empty the lower blocks: they are released, the last block stays.
    long before = qx::testing::live_blocks();
    for (int id = 1; id <= 100; ++id)
        if (id != 5) {
            EXPECT_EQ(QXRemoveHMMFromClass(c1, id), 1);
        }
    EXPECT_LT(qx::testing::live_blocks(), before);
    qx::HMMClass* cls = QXHMMClass(c1);
    EXPECT_EQ(cls->count, 0);
    ASSERT_NE(cls->first, nullptr);
    EXPECT_EQ(cls->first->next, nullptr);
    EXPECT_EQ(members(c1), std::vector<int>{});
    QXAddHMMToClass(c1, 50);
    QXAddHMMToClass(c1, 3);
    EXPECT_EQ(members(c1), (std::vector<int>{3, 50}));

    EXPECT_EQ(QXRemoveHMMFromClass(c1, 500), -1);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXRemoveHMMFromClass", "HMM server and/or class does not exist"}}));
    clear();
    EXPECT_EQ(QXRemoveHMMFromClass(0, 0), -1);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXRemoveHMMFromClass", "classId<1"},
                                       {-5, "QXRemoveHMMFromClass", "HMMId<1"}}));
    clear();
    QXFreeHMMServer(500);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXFreeHMMServer", "HMM server and/or class does not exist"}}));
    clear();
    QXFreeHMMServer(0);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXHMMServer", "HMMId<1"},
                                       {-5, "QXFreeHMMServer", "current HMM server and/or class is not defined"}}));
    QXHMMFreeAll();
    EXPECT_EQ(qx::testing::live_blocks(), live_);
}

TEST_F(Hmm, AClassHoldsOneFlavourAndDataType) {
    Model<float> f(2, 2);
    Model<short> w(2, 2);
    const int a = init(f), b = init(w), c = init(f, 0), d = init(f);
    const int cls = QXCreateHMMClass();
    EXPECT_EQ(QXAddHMMToClass(cls, a), 1);
    for (int other : {b, c}) {   // 16-bit data; probabilities rather than costs
        EXPECT_EQ(QXAddHMMToClass(cls, other), -1);
        EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXAddHMMToClass", "wrong class for HMM server"}}));
        clear();
    }
    EXPECT_EQ(QXAddHMMToClass(cls, d), 1);
    EXPECT_EQ(QXAddHMMToClass(cls, 99), -1);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXAddHMMToClass", "HMM server and/or class does not exist"}}));
    clear();
    EXPECT_EQ(QXAddHMMToClass(0, 0), -1);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXAddHMMToClass", "classId<1"}, {-5, "QXAddHMMToClass", "HMMId<1"}}));
    clear();
    // Emptied, a class takes the kind of its next first member.
    QXRemoveHMMFromClass(cls, a);
    QXRemoveHMMFromClass(cls, d);
    EXPECT_EQ(QXAddHMMToClass(cls, b), 1);
    EXPECT_EQ(QXHMMClass(cls)->flags & 0x00E000F3u, 0x00800011u);
    EXPECT_TRUE(got().empty());
}

TEST_F(Hmm, AllocationFailuresLeaveNothingBehind) {
    Model<float> m(3, 2);
    for (long nth = 1; nth <= 4; ++nth) {
        clear();
        {
            FailAllocation f(nth);
            EXPECT_EQ(init(m), -1) << nth;
        }
        EXPECT_EQ(got().front(), (Rep{-4, nth == 1 ? "QXsInitHMMServer" : "QXSetHMMServerParm", "NULL pointer"}));
        if (nth > 1) {
            EXPECT_EQ(got().back(), (Rep{-1, "QXsInitHMMServer", ""}));
        }
        EXPECT_EQ(qx::testing::live_blocks(), live_);
    }
    clear();
    {
        FailAllocation f(1);
        EXPECT_EQ(QXCreateHMMClass(), -1);
    }
    EXPECT_EQ(got(), (std::vector<Rep>{{-4, "QXCreateHMMClass", "NULL pointer"}}));
    clear();
    const int id = init(m), c = QXCreateHMMClass();
    {
        FailAllocation f(1);
        EXPECT_EQ(QXAddHMMToClass(c, id), -1);
    }
    EXPECT_EQ(got(), (std::vector<Rep>{{-4, "QXAddHMMToClass", "NULL pointer"}}));
    clear();
    EXPECT_EQ(QXAddHMMToClass(c, id), 1);
    std::vector<int> o{0, 1};
    int best = 0;
    {
        FailAllocation f(1);
        EXPECT_EQ(QXsEvalHMMViterbi(id, o.data(), 2, &best), FLT_MAX);
    }
    EXPECT_EQ(got(), (std::vector<Rep>{{-4, "QXsEvalHMMViterbi", "NULL pointer"}}));
    EXPECT_EQ(best, 0);
}

// ---------------------------------------------------------------------------
// Init checks and the parameter setter
// ---------------------------------------------------------------------------

TEST_F(Hmm, DiscreteInitChecksInOrder) {
    EXPECT_EQ(QXsInitHMMServer(nullptr, nullptr, nullptr, 0, 0, 0), -1);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXsInitHMMServer", "tprob==0"},
                                       {-5, "QXsInitHMMServer", "symbProb==0"},
                                       {-5, "QXsInitHMMServer", "iprob==0"},
                                       {-5, "QXsInitHMMServer", "nStates<=0"},
                                       {-5, "QXsInitHMMServer", "nSymbols<=0"}}));
    for (auto& r : kvxtest::reports())
        EXPECT_TRUE(kvxtest::names_raising_line(r));
    clear();

    // Null rows: the transition rows from the last, then the output rows.
    Model<float> m(3, 2);
    float** a = m.a();
    float** b = m.b();
    a[2] = nullptr;
    a[0] = nullptr;
    b[1] = nullptr;
    EXPECT_EQ(QXsInitHMMServer(a, b, m.pi.data(), 3, 2, 0), -1);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXsInitHMMServer", "tprob[i]==NULL"},
                                       {-5, "QXsInitHMMServer", "tprob[i]==NULL"},
                                       {-5, "QXsInitHMMServer", "symbProb[i]==NULL"}}));
    clear();

    // Bounds on the bit pattern: -0.0 and 1.0 pass; NaN fails one of them.
    Model<float> p(2, 2);
    p.A = {{1.0f, -0.0f}, {0.5f, 1.0000001f}};
    p.B = {{-0.25f, std::numeric_limits<float>::quiet_NaN()}, {0.0f, 1.0f}};
    p.pi = {-std::numeric_limits<float>::quiet_NaN(), 2.0f};
    EXPECT_EQ(QXsInitHMMServer(p.a(), p.b(), p.pi.data(), 2, 2, 0), -1);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXsInitHMMServer", "symbProb[i][j]<-(float)0.0"},
                                       {-5, "QXsInitHMMServer", "symbProb[i][j]>(float)1.0"},
                                       {-5, "QXsInitHMMServer", "tprob[i][j]>(float)1.0"},
                                       {-5, "QXsInitHMMServer", "iprob[i]<-(float)0.0"},
                                       {-5, "QXsInitHMMServer", "iprob[i]>(float)1.0"}}));
    clear();
    // As costs only the lower bounds apply.
    EXPECT_EQ(QXsInitHMMServer(p.a(), p.b(), p.pi.data(), 2, 2, 1), -1);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXsInitHMMServer", "symbProb[i][j]<-(float)0.0"},
                                       {-5, "QXsInitHMMServer", "iprob[i]<-(float)0.0"}}));
    clear();
    p.B[0][0] = 0.0f;
    p.pi[0] = 0.0f;
    EXPECT_EQ(QXsInitHMMServer(p.a(), p.b(), p.pi.data(), 2, 2, 1), 1);
    EXPECT_TRUE(got().empty());

    Model<short> w(2, 1);
    w.A = {{0, -1}, {3, 4}};
    w.B = {{-2}, {0}};
    w.pi = {0, -7};
    EXPECT_EQ(QXwInitHMMServer(w.a(), w.b(), w.pi.data(), 2, 1, 0), -1);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXwInitHMMServer", "tprob[i][j]<0"},
                                       {-5, "QXwInitHMMServer", "symbProb[i][j]<0"},
                                       {-5, "QXwInitHMMServer", "iprob[i]<0"}}));
    clear();
    // A pending error stops the init before any work.
    const long live = qx::testing::live_blocks();
    QXSetStatus(-5);
    EXPECT_EQ(init(m), -1);
    EXPECT_TRUE(got().empty());
    EXPECT_EQ(qx::testing::live_blocks(), live);
}

TEST_F(Hmm, MixtureInitChecksInOrder) {
    EXPECT_EQ(QXsInitContHMMServer(nullptr, nullptr, nullptr, 0, 0, 1), -1);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXsInitContHMMServer", "tprob==0"},
                                       {-5, "QXsInitContHMMServer", "iprob==0"},
                                       {-5, "QXsInitContHMMServer", "outPdfs==0"},
                                       {-5, "QXsInitContHMMServer", "nStates<=0"},
                                       {-5, "QXsInitContHMMServer", "nQuant<=0"}}));
    clear();
    Model<float> m(2, 2);
    m.A = {{-1.0f, -1.0f}, {5.0f, 2.0f}};   // only the diagonal is checked
    m.pi = {0.5f, -3.0f};
    QXsGaussMixServer* pdfs[2] = {nullptr, nullptr};
    EXPECT_EQ(QXsInitContHMMServer(m.a(), m.pi.data(), pdfs, 2, 3, 0), -1);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXsInitContHMMServer", "tprob[i][i]<-(float)0.0"},
                                       {-5, "QXsInitContHMMServer", "tprob[i][i]>(float)1.0"},
                                       {-5, "QXsInitContHMMServer", "iprob[i]<-(float)0.0"}}));
    clear();
    Model<short> w(2, 2);
    w.A = {{-1, 0}, {0, 0}};
    w.pi = {0, -1};
    QXwGaussMixServer* wpdfs[2] = {nullptr, nullptr};
    int csf = 0;
    EXPECT_EQ(QXwInitContHMMServer(w.a(), w.pi.data(), wpdfs, 2, 3, 1, &csf), -1);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXwInitContHMMServer", "tprob[i][i]<0"},
                                       {-5, "QXwInitContHMMServer", "iprob[i]<0"}}));
    clear();

    EXPECT_EQ(QXsInitSemicontHMMServer(nullptr, nullptr, nullptr, nullptr, 0, 0, 0, 1), -1);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXsInitSemicontHMMServer", "tprob==0"},
                                       {-5, "QXsInitSemicontHMMServer", "weightVect==0"},
                                       {-5, "QXsInitSemicontHMMServer", "iprob==0"},
                                       {-5, "QXsInitSemicontHMMServer", "nStates<=0"},
                                       {-5, "QXsInitSemicontHMMServer", "nSymbols<=0"}}));
    clear();
    Model<float> s(2, 2);
    s.A = {{0.5f, 1.5f}, {0.0f, 0.0f}};
    s.B = {{0.5f, -0.5f}, {0.0f, 0.0f}};
    float** sb = s.b();
    EXPECT_EQ(QXsInitSemicontHMMServer(s.a(), sb, s.pi.data(), pdfs, 2, 2, 3, 0), -1);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXsInitSemicontHMMServer", "tprob[i][j]>(float)1.0"},
                                       {-5, "QXsInitSemicontHMMServer", "weightVect[i][j]<-(float)0.0"}}));
    clear();
    sb[0] = nullptr;
    EXPECT_EQ(QXsInitSemicontHMMServer(s.a(), sb, s.pi.data(), pdfs, 2, 2, 3, 0), -1);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXsInitSemicontHMMServer", "weightVect[i]==NULL"}}));
    clear();
    Model<short> ws(1, 2);
    ws.B = {{3, -3}};
    EXPECT_EQ(QXwInitSemicontHMMServer(ws.a(), ws.b(), ws.pi.data(), wpdfs, 1, 2, 3, 1, &csf), -1);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXwInitSemicontHMMServer", "weightVect[i][j]<0"}}));
    clear();

    // Handles are copied: the caller's array may change afterwards.
    m.A = {{0.0f, 0.0f}, {0.0f, 0.0f}};
    m.pi = {0.0f, 0.0f};
    w.A = {{0, 0}, {0, 0}};
    w.pi = {0, 0};
    EXPECT_EQ(QXsInitContHMMServer(m.a(), m.pi.data(), pdfs, 2, 3, 1), 1);
    EXPECT_EQ(status_of(1), QX_HMM_CONT | QX_HMM_FLOAT | QX_HMM_COST);
    EXPECT_NE(QXHMMServer(1)->outPdfs, reinterpret_cast<void**>(pdfs));
    EXPECT_EQ(QXHMMServer(1)->nQuant, 3);
    long live = qx::testing::live_blocks();
    {
        FailAllocation f(4);   // record, transitions, initial costs, then the handle copy
        EXPECT_EQ(QXwInitContHMMServer(w.a(), w.pi.data(), wpdfs, 2, 3, 1, &csf), -1);
    }
    EXPECT_EQ(got(), (std::vector<Rep>{{-4, "QXwInitContHMMServer", "NULL pointer"}}));
    EXPECT_EQ(qx::testing::live_blocks(), live);
}

TEST_F(Hmm, SetterMessagesAndKeptValues) {
    Model<float> m(3, 2);
    const int id = init(m);
    EXPECT_EQ(QXSetHMMServerParm(id, 0, nullptr, nullptr, nullptr, 3, 2, -1), -1);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXSetHMMServerParm", "change HMM nStates without data"},
                                       {-5, "QXSetHMMServerParm", "change HMM nSymbols without data"}}));
    clear();
    EXPECT_EQ(QXSetHMMServerParm(id, 0, nullptr, nullptr, nullptr, -1, -1, QX_HMM_DISCRETE), -1);
    EXPECT_EQ(got(), (std::vector<Rep>{{-2, "QXSetHMMServerParm", "wrong HMM flavor"}}));
    clear();
    // Negative values keep the server's; a new word is stored.
    EXPECT_EQ(QXSetHMMServerParm(id, 42, nullptr, nullptr, nullptr, -1, -1, -1), 1);
    int word = 0, n = 0, s = 0;
    QXGetHMMServerParm(id, &word, nullptr, nullptr, nullptr, &n, &s, nullptr);
    EXPECT_EQ(word, 42);
    EXPECT_EQ(n, 3);
    EXPECT_EQ(s, 2);
    EXPECT_TRUE(got().empty());
}

TEST_F(Hmm, TopologyIsClassifiedFromImpossibleTransitions) {
    std::mt19937 g(3);
    struct Case {
        int n;
        Shape shape;
        int bits;
    };
    for (Case c : {Case{3, Shape::Band, QX_HMM_BAND}, Case{6, Shape::Band, QX_HMM_BAND},
                   Case{2, Shape::Band, QX_HMM_LEFT_RIGHT}, Case{2, Shape::LeftRight, QX_HMM_LEFT_RIGHT},
                   Case{4, Shape::LeftRight, QX_HMM_LEFT_RIGHT}, Case{1, Shape::Band, 0}, Case{4, Shape::Full, 0}}) {
        auto f = random_model<float>(g, c.n, 2, c.shape);
        if (c.shape == Shape::LeftRight && c.n > 3)
            f.A[0][3] = 1.0f;   // a jump of three states
        EXPECT_EQ(status_of(init(f)) & 0x3000, c.bits) << c.n;
        auto w = random_model<short>(g, c.n, 2, c.shape);
        if (c.shape == Shape::LeftRight && c.n > 3)
            w.A[0][3] = 32766;
        EXPECT_EQ(status_of(init(w)) & 0x3000, c.bits) << c.n;
    }
    // Probabilities: impossible means not above 0 (-0.0 included).
    Model<float> p(3, 1);
    p.A = {{0.5f, 0.5f, -0.0f}, {0.0f, 0.5f, 0.5f}, {-0.0f, 0.0f, 1.0f}};
    p.B = {{1.0f}, {1.0f}, {1.0f}};
    p.pi = {1.0f, 0.0f, 0.0f};
    EXPECT_EQ(status_of(init(p, 0)), QX_HMM_DISCRETE | QX_HMM_FLOAT | QX_HMM_BAND);
    // Just below the impossible cost is a real transition.
    Model<float> q(3, 1);
    q.A = {{0, 0, 0}, {9.9999e29f, 0, 0}, {1.0e30f, 1.0e30f, 0}};
    EXPECT_EQ(status_of(init(q)) & 0x3000, 0);
    EXPECT_TRUE(got().empty());
}

// ---------------------------------------------------------------------------
// Discrete Viterbi
// ---------------------------------------------------------------------------

TEST_F(Hmm, ViterbiMatchesExhaustiveSearchForEveryTopology) {
    std::mt19937 g(11);
    for (Shape shape : {Shape::Band, Shape::LeftRight, Shape::Full}) {
        for (int n = 1; n <= 5; ++n) {
            for (int rep = 0; rep < 3; ++rep) {
                const int S = 3, T = n >= 5 ? 5 : 6;
                std::uniform_int_distribution<int> sym(0, S - 1);
                std::vector<int> o(T);
                for (int& x : o)
                    x = sym(g);
                auto f = random_model<float>(g, n, S, shape);
                const int fid = init(f);
                int best = 0;
                float got_f = QXsEvalHMMViterbi(fid, o.data(), T, &best);
                EXPECT_EQ(got_f, (brute_force<float, float>(f, o))) << n;
                EXPECT_EQ(best, fid);

                auto w = random_model<short>(g, n, S, shape);
                const int wid = init(w);
                int sf = 5;
                int got_w = QXwEvalHMMViterbi(wid, o.data(), T, &best, 0, &sf);
                EXPECT_EQ(got_w, (brute_force<short, std::int64_t>(w, o))) << n;
                EXPECT_EQ(best, wid);
                EXPECT_EQ(sf, 0);
                QXFreeHMMServer(fid);
                QXFreeHMMServer(wid);
            }
        }
    }
    EXPECT_TRUE(got().empty());
    EXPECT_EQ(qx::testing::live_blocks(), live_);
}

TEST_F(Hmm, ClassScoringPicksTheLeastCostAndTheLastOfEqualOnes) {
    std::mt19937 g(5);
    std::vector<int> o{0, 2, 1, 1, 0};
    const int c = QXCreateHMMClass();
    float want = FLT_MAX;
    int wantId = 0;
    std::vector<Model<float>> models;
    for (int k = 0; k < 6; ++k)
        models.push_back(random_model<float>(g, 2 + k % 3, 3, k % 2 ? Shape::Full : Shape::Band));
    models.push_back(models[2]);   // a copy scores the same: the higher id wins
    for (auto& m : models) {
        const int id = init(m);
        QXAddHMMToClass(c, id);
        float s = brute_force<float, float>(m, o);
        if (s <= want) {
            want = s;
            wantId = id;
        }
    }
    int best = -9;
    EXPECT_EQ(QXsEvalHMMViterbi(-c, o.data(), 5, &best), want);
    EXPECT_EQ(best, wantId);

    // Two equal models: the later id.
    const int c2 = QXCreateHMMClass();
    QXAddHMMToClass(c2, 7);
    QXAddHMMToClass(c2, 3);
    EXPECT_FLOAT_EQ(QXsEvalHMMViterbi(-c2, o.data(), 5, &best), (brute_force<float, float>(models[2], o)));
    EXPECT_EQ(best, 7);

    // nObserv 1: the least pi + b.
    Model<float>& m = models[0];
    float least = FLT_MAX;
    for (int j = 0; j < m.N; ++j)
        least = std::min(least, m.pi[j] + m.B[j][2]);
    const int one = 2;
    EXPECT_EQ(QXsEvalHMMViterbi(1, &one, 1, &best), least);

    // An empty class: the initial best, bestHMMId untouched.
    const int empty = QXCreateHMMClass();
    best = -9;
    EXPECT_EQ(QXsEvalHMMViterbi(-empty, o.data(), 5, &best), FLT_MAX);
    int sf = 0;
    EXPECT_EQ(QXwEvalHMMViterbi(-empty, o.data(), 5, &best, 0, &sf), 2147483647);
    EXPECT_EQ(best, -9);
    EXPECT_TRUE(got().empty());

    EXPECT_EQ(QXsEvalHMMViterbi(-40, o.data(), 5, &best), FLT_MAX);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXsEvalHMMViterbi", "HMM server and/or class does not exist"}}));
}

TEST_F(Hmm, AServerWithoutFiniteScoreStillTiesTheInitialBest) {
    // A not-a-number output cost (a positive pattern passes the cost check)
    // leaves the server's minimum at the largest float, which ties the
    // initial best and is taken.
    Model<float> a(1, 1);
    a.B[0][0] = std::numeric_limits<float>::quiet_NaN();
    const int ia = init(a);
    const int c = QXCreateHMMClass();
    QXAddHMMToClass(c, ia);
    int best = 0;
    const int o = 0;
    EXPECT_EQ(QXsEvalHMMViterbi(-c, &o, 1, &best), FLT_MAX);
    EXPECT_EQ(best, ia);
    EXPECT_TRUE(got().empty());
}

TEST_F(Hmm, ShortResultsAreShiftedByTheScaleFactor) {
    Model<short> m(2, 2);
    m.A = {{3, 4}, {32767, 1}};
    m.B = {{10, 20}, {30, 5}};
    m.pi = {2, 9};
    const int id = init(m);
    std::vector<int> o{0, 1, 1};
    const std::int64_t want = brute_force<short, std::int64_t>(m, o);
    int best = 0, sf = -2;
    EXPECT_EQ(QXwEvalHMMViterbi(id, o.data(), 3, &best, 1, &sf), want * 4);
    EXPECT_EQ(sf, -2);
    sf = 2;
    EXPECT_EQ(QXwEvalHMMViterbi(id, o.data(), 3, &best, 1, &sf), want >> 2);
    sf = 33;   // counts modulo 32
    EXPECT_EQ(QXwEvalHMMViterbi(id, o.data(), 3, &best, 1, &sf), want >> 1);
    sf = -31;   // wraps without a trap
    EXPECT_EQ(QXwEvalHMMViterbi(id, o.data(), 3, &best, 1, &sf),
              static_cast<std::int32_t>(static_cast<std::uint32_t>(want) << 31));
    sf = 7;
    EXPECT_EQ(QXwEvalHMMViterbi(id, o.data(), 3, &best, 3, &sf), want);
    EXPECT_EQ(sf, 0);
    EXPECT_TRUE(got().empty());
}

TEST_F(Hmm, EvaluationChecksInOrder) {
    int best = 0, sf = 0;
    EXPECT_EQ(QXsEvalHMMViterbi(0, nullptr, 0, nullptr), FLT_MAX);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXsEvalHMMViterbi", "HMMOrClassId==0"},
                                       {-5, "QXsEvalHMMViterbi", "nObserv<=0"},
                                       {-5, "QXsEvalHMMViterbi", "vect==0"},
                                       {-5, "QXsEvalHMMViterbi", "bestHMMId==0"}}));
    for (auto& r : kvxtest::reports())
        EXPECT_TRUE(kvxtest::names_raising_line(r));
    clear();

    Model<float> p(2, 3);   // probabilities, not costs
    const int pid = init(p, 0);
    std::vector<int> o{0, 3, -1};
    EXPECT_EQ(QXwEvalHMMViterbi(pid, o.data(), 3, &best, 0, &sf), 2147483647);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXwEvalHMMViterbi", "!(status&0x00000010)"},
                                       {-5, "QXwEvalHMMViterbi", "!(status&0x00000001)"},
                                       {-5, "QXwEvalHMMViterbi", "vect[ii]>nSymbols-1"},
                                       {-5, "QXwEvalHMMViterbi", "vect[ii]<0"}}));
    clear();

    Model<float> c(2, 2);
    QXsGaussMixServer* pdfs[2] = {nullptr, nullptr};
    const int cid = QXsInitContHMMServer(c.a(), c.pi.data(), pdfs, 2, 4, 1);
    EXPECT_EQ(QXsEvalHMMViterbi(cid, o.data(), 1, &best), FLT_MAX);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXsEvalHMMViterbi", "!(status&0x00800000)"},
                                       {-5, "QXsEvalHMMViterbi", "nSymbols<=0"},
                                       {-5, "QXsEvalHMMViterbi", "oprob==0"},
                                       {-5, "QXsEvalHMMViterbi", "vect[ii]>nSymbols-1"}}));
    clear();

    EXPECT_EQ(QXsEvalHMMViterbi(9, o.data(), 1, &best), FLT_MAX);
    EXPECT_EQ(got(), (std::vector<Rep>{{-5, "QXGetHMMServerParm", "HMM server and/or class does not exist"},
                                       {-1, "QXsEvalHMMViterbi", ""}}));
    clear();
    // A pending error returns at once.
    QXSetStatus(-3);
    EXPECT_EQ(QXsEvalHMMViterbi(pid, o.data(), 1, &best), FLT_MAX);
    EXPECT_TRUE(got().empty());
}

TEST_F(Hmm, ScoreAreaGrowsAcrossTheServersOfAClass) {
    // From 3 to 9 to 40 states within one class (the area grows twice), 16-bit
    // band models with their guard cells among them; each server checked alone
    // against a plain min-plus recurrence over the whole matrix.
    std::mt19937 g(21);
    std::vector<int> o{1, 0, 1, 1, 0, 0, 1};
    const int c = QXCreateHMMClass();
    std::int64_t want = INT64_MAX;
    int wantId = 0;
    for (int n : {3, 9, 40, 2, 12}) {
        for (Shape shape : {Shape::Band, Shape::LeftRight, Shape::Full}) {
            auto m = random_model<short>(g, n, 2, shape);
            const int id = init(m);
            QXAddHMMToClass(c, id);
            const std::int64_t s = min_plus<short, std::int64_t>(m, o);
            int best = 0, sf = 0;
            EXPECT_EQ(QXwEvalHMMViterbi(id, o.data(), 7, &best, 0, &sf), s) << n;
            if (s <= want) {
                want = s;
                wantId = id;
            }
        }
    }
    int best = 0, sf = 0;
    EXPECT_EQ(QXwEvalHMMViterbi(-c, o.data(), 7, &best, 0, &sf), want);
    EXPECT_EQ(best, wantId);
    EXPECT_TRUE(got().empty());
}
