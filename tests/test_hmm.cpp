// HMM servers and classes, and discrete Viterbi scoring checked against an
// exhaustive search over every state path.
#include <algorithm>
#include <cfloat>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include "kvx_test.h"
#include "model_reference.h"
#include "qx_hmm.h"

using kvxtest::Rep;
using ref::reps;
using ref::Shape;
using Reps = std::vector<Rep>;

namespace {

constexpr int kTopology = QX_HMM_BAND | QX_HMM_LEFT_RIGHT;

class Hmm : public kvxtest::LibTest {
protected:
    void SetUp() override { LibTest::SetUp(), QXHMMFreeAll(), live_ = qx::testing::live_blocks(); }
    void TearDown() override { QXHMMFreeAll(), LibTest::TearDown(); }
    long live_ = 0;
};

template <class T>
int init(ref::Chain<T>& m, int flags = 1) {
    auto a = ref::rows(m.a), b = ref::rows(m.b);
    const int n = static_cast<int>(m.pi.size()), s = static_cast<int>(m.b[0].size());
    if constexpr (std::is_same_v<T, float>)
        return QXsInitHMMServer(a.data(), b.data(), m.pi.data(), n, s, flags);
    else
        return QXwInitHMMServer(a.data(), b.data(), m.pi.data(), n, s, flags);
}

template <class T = float>
ref::Chain<T> zeros(int n, int s) {
    return {ref::Mat<T>(n, std::vector<T>(n)), ref::Mat<T>(n, std::vector<T>(s)), std::vector<T>(n)};
}

int status_of(int id) {
    int st = 0;
    return QXGetHMMServerParm(id, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &st), st;
}

std::vector<int> members(int classId) {
    std::vector<int> ids;
    QXResetHMMClass(classId);
    for (int id = QXNextHMMServer(classId); id > 0; id = QXNextHMMServer(classId)) ids.push_back(id);
    return ids;
}

template <class T>
using Acc = std::conditional_t<std::is_same_v<T, float>, float, std::int64_t>;

template <class T>
Acc<T> viterbi(int id, const std::vector<int>& o, int* best) {
    if constexpr (std::is_same_v<T, float>) {
        return QXsEvalHMMViterbi(id, o.data(), static_cast<int>(o.size()), best);
    } else {
        int sf = 5;   // doScale 0 clears the factor
        const int v = QXwEvalHMMViterbi(id, o.data(), static_cast<int>(o.size()), best, 0, &sf);
        EXPECT_EQ(sf, 0);
        return v;
    }
}

// Every topology and 1 to 12 states (the score area grows twice), each server
// alone, with one frame, and all of them as one class; then an equal copy.
template <class T>
void viterbi_against_search(std::mt19937& g) {
    std::vector<int> o(5);
    for (int& x : o) x = std::uniform_int_distribution<int>(0, 2)(g);
    const std::vector<int> one{o[0]};
    const int c = QXCreateHMMClass();
    Acc<T> want{};
    int wantId = 0, best = 0;
    std::vector<ref::Chain<T>> chains;
    std::vector<int> ids;
    for (Shape shape : {Shape::Band, Shape::LeftRight, Shape::Full})
        for (int n : {1, 2, 3, 4, 5, 9, 12}) chains.push_back(ref::random_chain<T>(g, n, 3, shape));
    for (auto& ch : chains) {
        const int id = ids.emplace_back(init(ch));
        QXAddHMMToClass(c, id);
        const Acc<T> s = ref::least_path<Acc<T>>(ch.a, ch.pi, ref::symbol_costs<Acc<T>>(ch, o));
        EXPECT_EQ(viterbi<T>(id, o, &best), s) << ch.pi.size();
        EXPECT_EQ(best, id);
        EXPECT_EQ(viterbi<T>(id, one, &best), ref::least_path<Acc<T>>(ch.a, ch.pi, ref::symbol_costs<Acc<T>>(ch, one)));
        if (wantId == 0 || s <= want) want = s, wantId = id;
    }
    EXPECT_EQ(viterbi<T>(-c, o, &best), want);
    EXPECT_EQ(best, wantId);
    const int c2 = QXCreateHMMClass(), copy = init(chains[4]);   // equal scores: the later id wins
    QXAddHMMToClass(c2, copy);
    QXAddHMMToClass(c2, ids[4]);
    viterbi<T>(-c2, o, &best);
    EXPECT_EQ(best, copy);
}

}  // namespace

TEST_F(Hmm, RegistryIdsAreDenseAndLookupsReport) {
    auto m = zeros(2, 2);
    for (int want : {1, 2, 3}) EXPECT_EQ(init(m), want);
    QXFreeHMMServer(2);   // freed ids come back first
    for (int want : {2, 4}) EXPECT_EQ(init(m), want);
    QXFreeHMMServer(1), QXFreeHMMServer(3);
    for (int want : {1, 3, 5}) EXPECT_EQ(init(m), want);
    for (int want : {1, 2, 3}) EXPECT_EQ(QXCreateHMMClass(), want);
    EXPECT_EQ(QXAddHMMToClass(2, 1), 1);
    EXPECT_EQ(QXDeleteHMMClass(2), 1);   // the class only, not its servers
    EXPECT_EQ(QXHMMClass(2), nullptr);
    EXPECT_NE(QXHMMServer(1), nullptr);
    EXPECT_EQ(QXHMMServer(7), nullptr);
    for (int want : {2, 4}) EXPECT_EQ(QXCreateHMMClass(), want);
    EXPECT_TRUE(got().empty());
    QXHMMFreeAll();
    EXPECT_EQ(qx::testing::live_blocks(), live_);
    EXPECT_EQ(init(m), 1);
    EXPECT_EQ(QXCreateHMMClass(), 1);
    const int c = 1;
    int word = 5, n = 5, s = 5, st = 5;
    void *t = &n, *o = &n, *i = &n;
    ref::each_fresh({[&] { EXPECT_EQ(QXGetHMMServerParm(9, &word, &t, &o, &i, &n, &s, &st), -1); },
                     [&] { QXGetHMMServerParm(0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr); },
                     [&] { QXHMMClass(-3); }, [&] { EXPECT_EQ(QXResetHMMClass(4), -1); EXPECT_EQ(QXNextHMMServer(4), -1); },
                     [&] { EXPECT_EQ(QXDeleteHMMClass(9), -1); EXPECT_EQ(QXDeleteHMMClass(0), -1); },
                     [&] { QXFreeHMMServer(500); }, [&] { QXFreeHMMServer(0); },
                     [&] { EXPECT_EQ(QXAddHMMToClass(c, 99), -1); EXPECT_EQ(QXAddHMMToClass(0, 0), -1); },
                     [&] { EXPECT_EQ(QXRemoveHMMFromClass(c, 500), -1); EXPECT_EQ(QXRemoveHMMFromClass(0, 0), -1); }});
    EXPECT_EQ((std::vector<void*>{t, o, i}), (std::vector<void*>(3, nullptr)));   // a missing server: all zero
    EXPECT_EQ(word + n + s + st, 0);
    const std::string none = "HMM server and/or class does not exist", undef = "current HMM server and/or class is not defined";
    EXPECT_EQ(got(), reps({{-5, "QXGetHMMServerParm", {none}}, {-5, "QXHMMServer", {"HMMId<1"}},
                           {-5, "QXGetHMMServerParm", {undef}}, {-5, "QXHMMClass", {"classId<1"}},
                           {-5, "QXResetHMMClass", {none}}, {-5, "QXNextHMMServer", {none}},
                           {-5, "QXDeleteHMMClass", {none, "classId<1"}}, {-5, "QXFreeHMMServer", {none}},
                           {-5, "QXHMMServer", {"HMMId<1"}}, {-5, "QXFreeHMMServer", {undef}},
                           {-5, "QXAddHMMToClass", {none, "classId<1", "HMMId<1"}},
                           {-5, "QXRemoveHMMFromClass", {none, "classId<1", "HMMId<1"}}}));
    EXPECT_TRUE(kvxtest::all_name_raising_lines());
}

TEST_F(Hmm, ClassesIterateAscendingAcrossSplitsAdditionsAndRemovals) {
    auto m = zeros(1, 1);
    for (int i = 0; i < 200; ++i) ASSERT_EQ(init(m), i + 1);
    const int c = QXCreateHMMClass();
    EXPECT_EQ(members(c), std::vector<int>{});   // empty: 0 at the first call
    std::vector<int> even, odd, want;            // 64 even ids fill one block; the 65th splits it 32 + 33
    for (int i = 0; i < 65; ++i) even.push_back(2 * i + 10);
    for (int id = 1; id <= 199; id += 2) odd.push_back(id);
    std::mt19937 g(7);
    std::shuffle(even.begin(), even.end() - 1, g);
    std::shuffle(odd.begin(), odd.end(), g);
    for (int k = 0; k < 64; ++k) ASSERT_EQ(QXAddHMMToClass(c, even[k]), 1);
    qx::HMMClass* cls = QXHMMClass(c);
    EXPECT_EQ(cls->first->next, nullptr);
    EXPECT_EQ(QXAddHMMToClass(c, even[64]), 1);
    ASSERT_NE(cls->first->next, nullptr);
    EXPECT_EQ((std::vector<int>{cls->count, cls->first->count, cls->first->next->count, cls->first->largestId,
                                cls->first->next->largestId}),
              (std::vector<int>{65, 32, 33, cls->first->entries[31].HMMId, 0x1FFFFFFF}));
    for (int id : odd) ASSERT_EQ(QXAddHMMToClass(c, id), 1);   // many more splits
    EXPECT_EQ(QXAddHMMToClass(c, 10), 1);                       // already a member
    for (int id = 1; id <= 199; ++id)
        if (id % 2 || (id >= 10 && id <= 138)) want.push_back(id);
    EXPECT_EQ(members(c), want);
    EXPECT_EQ(QXNextHMMServer(c), 0);   // stays exhausted

    // An iteration stays on its member while additions split its block.
    const int c2 = QXCreateHMMClass();
    for (int id = 70; id < 134; ++id) QXAddHMMToClass(c2, id);
    QXResetHMMClass(c2);
    for (int k = 0; k < 40; ++k) QXNextHMMServer(c2);   // on 109, past the half of the block
    for (int id : {1, 2, 135}) QXAddHMMToClass(c2, id);   // the member moves to the upper half
    EXPECT_EQ(QXNextHMMServer(c2), 110);
    EXPECT_EQ(QXRemoveHMMFromClass(c2, 105), 1);
    EXPECT_EQ(QXNextHMMServer(c2), 111);   // before the member, in its block
    EXPECT_EQ(QXAddHMMToClass(c2, 105), 1);
    EXPECT_EQ(QXNextHMMServer(c2), 112);
    EXPECT_EQ(QXRemoveHMMFromClass(c2, 112), 1);
    EXPECT_EQ(QXNextHMMServer(c2), 113);   // the member itself: the next follows

    // Freeing a server leaves every class; emptied blocks are released but the last.
    EXPECT_EQ(QXRemoveHMMFromClass(c2, 7), 1);   // not a member: silent
    QXFreeHMMServer(5);
    EXPECT_EQ(cls->count, 164);
    std::erase(want, 5);
    const long before = qx::testing::live_blocks();
    for (int id : want) EXPECT_EQ(QXRemoveHMMFromClass(c, id), 1);
    EXPECT_LT(qx::testing::live_blocks(), before);
    EXPECT_TRUE(cls->count == 0 && cls->first != nullptr && cls->first->next == nullptr);
    EXPECT_EQ(members(c), std::vector<int>{});
    EXPECT_EQ(QXAddHMMToClass(c, 50), 1);
    EXPECT_EQ(QXAddHMMToClass(c, 3), 1);
    EXPECT_EQ(members(c), (std::vector<int>{3, 50}));
    EXPECT_TRUE(got().empty());
}

TEST_F(Hmm, AClassHoldsOneFlavourAndDataType) {
    auto f = zeros(2, 2);
    auto w = zeros<short>(2, 2);
    const int a = init(f), b = init(w), p = init(f, 0), d = init(f), cls = QXCreateHMMClass();
    EXPECT_EQ(QXAddHMMToClass(cls, a), 1);
    ref::each_fresh({[&] { EXPECT_EQ(QXAddHMMToClass(cls, b), -1); },     // 16-bit data
                     [&] { EXPECT_EQ(QXAddHMMToClass(cls, p), -1); }});   // probabilities rather than costs
    EXPECT_EQ(QXAddHMMToClass(cls, d), 1);
    EXPECT_EQ(got(), (Reps(2, Rep{-5, "QXAddHMMToClass", "wrong class for HMM server"})));
    clear();
    QXRemoveHMMFromClass(cls, a), QXRemoveHMMFromClass(cls, d);   // emptied, it takes the kind of its next member
    EXPECT_EQ(QXAddHMMToClass(cls, b), 1);
    const unsigned kind = QX_HMM_DISCRETE | QX_HMM_CONT | QX_HMM_SEMICONT | QX_HMM_SHORT | QX_HMM_FLOAT | QX_HMM_COST;
    EXPECT_EQ(QXHMMClass(cls)->flags & kind, unsigned{QX_HMM_DISCRETE | QX_HMM_SHORT | QX_HMM_COST});
    EXPECT_TRUE(got().empty());
}

TEST_F(Hmm, InitAndSetterChecksInOrder) {
    auto m = zeros(3, 2), p = zeros(2, 2);
    auto w = zeros<short>(2, 1);
    auto a = ref::rows(m.a), b = ref::rows(m.b);
    a[2] = a[0] = b[1] = nullptr;   // null rows: transitions from the last, then outputs
    const float nan = std::numeric_limits<float>::quiet_NaN();
    p.a = {{1.0f, -0.0f}, {0.5f, 1.0000001f}};   // bounds on the bit pattern: -0.0 and 1.0 pass, NaN fails
    p.b = {{-0.25f, nan}, {0.0f, 1.0f}};
    p.pi = {-nan, 2.0f};
    w.a[0][1] = w.b[0][0] = w.pi[1] = -1;
    ref::each_fresh({[&] { EXPECT_EQ(QXsInitHMMServer(nullptr, nullptr, nullptr, 0, 0, 0), -1); },
                     [&] { EXPECT_EQ(QXsInitHMMServer(a.data(), b.data(), m.pi.data(), 3, 2, 0), -1); },
                     [&] { EXPECT_EQ(init(p, 0), -1); }, [&] { EXPECT_EQ(init(p, 1), -1); },   // costs: lower bounds only
                     [&] { EXPECT_EQ(init(w, 0), -1); },
                     [&] { EXPECT_EQ(QXSetHMMServerParm(init(m), 0, nullptr, nullptr, nullptr, 3, 2, -1), -1); },
                     [&] { EXPECT_EQ(QXSetHMMServerParm(1, 0, nullptr, nullptr, nullptr, -1, -1, QX_HMM_DISCRETE), -1); }});
    EXPECT_EQ(got(), reps({{-5, "QXsInitHMMServer", {"tprob==0", "symbProb==0", "iprob==0", "nStates<=0", "nSymbols<=0",
                                                     "tprob[i]==NULL", "tprob[i]==NULL", "symbProb[i]==NULL",
                                                     "symbProb[i][j]<-(float)0.0", "symbProb[i][j]>(float)1.0",
                                                     "tprob[i][j]>(float)1.0", "iprob[i]<-(float)0.0", "iprob[i]>(float)1.0",
                                                     "symbProb[i][j]<-(float)0.0", "iprob[i]<-(float)0.0"}},
                           {-5, "QXwInitHMMServer", {"tprob[i][j]<0", "symbProb[i][j]<0", "iprob[i]<0"}},
                           {-5, "QXSetHMMServerParm", {"change HMM nStates without data", "change HMM nSymbols without data"}},
                           {-2, "QXSetHMMServerParm", {"wrong HMM flavor"}}}));
    EXPECT_TRUE(kvxtest::all_name_raising_lines());
    clear();
    m.a[1][0] = -1.0f;   // the readable rows are checked although other arguments fail
    EXPECT_EQ(QXsInitHMMServer(a.data(), b.data(), nullptr, 3, 0, 1), -1);
    EXPECT_EQ(got(), reps({{-5, "QXsInitHMMServer", {"iprob==0", "nSymbols<=0", "tprob[i]==NULL", "tprob[i]==NULL",
                                                     "symbProb[i]==NULL", "tprob[i][j]<-(float)0.0"}}}));
    m.a[1][0] = 0.0f;
    clear();
    p.b[0][0] = p.pi[0] = 0.0f;
    EXPECT_EQ(init(p, 1), 2);
    EXPECT_EQ(QXSetHMMServerParm(1, 42, nullptr, nullptr, nullptr, -1, -1, -1), 1);   // negatives keep, the word is stored
    int word = 0, n = 0, s = 0;
    QXGetHMMServerParm(1, &word, nullptr, nullptr, nullptr, &n, &s, nullptr);
    EXPECT_EQ((std::vector<int>{word, n, s}), (std::vector<int>{42, 3, 2}));
    QXSetStatus(-5);   // a pending error stops an init before any work
    EXPECT_EQ(init(m), -1);
    EXPECT_TRUE(got().empty());
}

TEST_F(Hmm, TopologyIsClassifiedFromImpossibleTransitions) {
    std::mt19937 g(3);
    struct Case { int n; Shape shape; int bits; };
    const int B = QX_HMM_BAND, L = QX_HMM_LEFT_RIGHT;
    for (Case c : {Case{3, Shape::Band, B}, Case{6, Shape::Band, B}, Case{2, Shape::Band, L}, Case{2, Shape::LeftRight, L},
                   Case{4, Shape::LeftRight, L}, Case{1, Shape::Band, 0}, Case{4, Shape::Full, 0}}) {
        auto f = ref::random_chain<float>(g, c.n, 2, c.shape);
        auto w = ref::random_chain<short>(g, c.n, 2, c.shape);
        if (c.shape == Shape::LeftRight && c.n > 3) f.a[0][3] = 1.0f, w.a[0][3] = 32766;   // a jump of three states
        EXPECT_EQ(status_of(init(f)) & kTopology, c.bits) << c.n;
        EXPECT_EQ(status_of(init(w)) & kTopology, c.bits) << c.n;
    }
    auto p = zeros(3, 1);   // probabilities: impossible means not above 0 (-0.0 included)
    p.a = {{0.5f, 0.5f, -0.0f}, {0.0f, 0.5f, 0.5f}, {-0.0f, 0.0f, 1.0f}};
    EXPECT_EQ(status_of(init(p, 0)), QX_HMM_DISCRETE | QX_HMM_FLOAT | QX_HMM_BAND);
    p.a = {{0, 0, 0}, {9.9999e29f, 0, 0}, {1.0e30f, 1.0e30f, 0}};   // just below the impossible cost is real
    EXPECT_EQ(status_of(init(p)) & kTopology, 0);
    EXPECT_TRUE(got().empty());
}

TEST_F(Hmm, ViterbiMatchesExhaustiveSearchAndTheLastOfEqualServersWins) {
    std::mt19937 g(11);
    viterbi_against_search<float>(g);
    viterbi_against_search<short>(g);
    const int empty = QXCreateHMMClass(), o[2] = {0, 0};   // an empty class: the initial best, bestHMMId kept
    int best = -9, sf = 0;
    EXPECT_EQ(QXsEvalHMMViterbi(-empty, o, 2, &best), FLT_MAX);
    EXPECT_EQ(QXwEvalHMMViterbi(-empty, o, 2, &best, 0, &sf), 2147483647);
    EXPECT_EQ(best, -9);
    auto nan = zeros(1, 1);   // a NaN score leaves the largest float: it ties the initial best and is taken
    nan.b[0][0] = std::numeric_limits<float>::quiet_NaN();
    QXAddHMMToClass(empty, init(nan));
    EXPECT_EQ(QXsEvalHMMViterbi(-empty, o, 1, &best), FLT_MAX);
    EXPECT_EQ(best, QXHMMClass(empty)->first->entries[0].HMMId);
    EXPECT_TRUE(got().empty());
}

TEST_F(Hmm, ShortResultsAreShiftedByTheScaleFactor) {
    ref::Chain<short> m{{{3, 4}, {32767, 1}}, {{10, 20}, {30, 5}}, {2, 9}};
    const int id = init(m);
    std::vector<int> o{0, 1, 1};
    const std::int64_t want = ref::least_path<std::int64_t>(m.a, m.pi, ref::symbol_costs<std::int64_t>(m, o));
    struct Case { int doScale, sf; std::int64_t result; int sfAfter; };
    for (Case c : {Case{1, -2, want * 4, -2}, Case{1, 2, want >> 2, 2}, Case{1, 33, want >> 1, 33},   // counts modulo 32
                   Case{1, -31, static_cast<std::int32_t>(static_cast<std::uint32_t>(want) << 31), -31}, Case{3, 7, want, 0}}) {
        int best = 0, sf = c.sf;
        EXPECT_EQ(QXwEvalHMMViterbi(id, o.data(), 3, &best, c.doScale, &sf), c.result) << c.sf;
        EXPECT_EQ(sf, c.sfAfter);
    }
    EXPECT_TRUE(got().empty());
}

TEST_F(Hmm, EvaluationChecksInOrder) {
    auto p = zeros(2, 3), c = zeros(2, 2);
    const int pid = init(p, 0);   // probabilities, not costs
    auto ca = ref::rows(c.a);
    QXsGaussMixServer* pdfs[2] = {nullptr, nullptr};
    const int cid = QXsInitContHMMServer(ca.data(), c.pi.data(), pdfs, 2, 4, 1);
    std::vector<int> o{0, 3, -1};
    int best = 0, sf = 0;
    ref::each_fresh({[&] { EXPECT_EQ(QXsEvalHMMViterbi(0, nullptr, 0, nullptr), FLT_MAX); },
                     [&] { EXPECT_EQ(QXwEvalHMMViterbi(pid, o.data(), 3, &best, 0, &sf), 2147483647); },
                     [&] { EXPECT_EQ(QXsEvalHMMViterbi(cid, o.data(), 1, &best), FLT_MAX); },
                     [&] { EXPECT_EQ(QXsEvalHMMViterbi(9, o.data(), 1, &best), FLT_MAX); },
                     [&] { EXPECT_EQ(QXsEvalHMMViterbi(-40, o.data(), 1, &best), FLT_MAX); }});
    const char *f = "QXsEvalHMMViterbi", *none = "HMM server and/or class does not exist";
    EXPECT_EQ(got(), reps({{-5, f, {"HMMOrClassId==0", "nObserv<=0", "vect==0", "bestHMMId==0"}},
                           {-5, "QXwEvalHMMViterbi", {"!(status&0x00000010)", "!(status&0x00000001)", "vect[ii]>nSymbols-1", "vect[ii]<0"}},
                           {-5, f, {"!(status&0x00800000)", "nSymbols<=0", "oprob==0", "vect[ii]>nSymbols-1"}},
                           {-5, "QXGetHMMServerParm", {none}}, {-1, f, {""}}, {-5, f, {none}}}));
    EXPECT_TRUE(kvxtest::all_name_raising_lines());
    clear();
    QXSetStatus(-3);   // a pending error returns at once
    EXPECT_EQ(QXsEvalHMMViterbi(pid, o.data(), 1, &best), FLT_MAX);
    EXPECT_TRUE(got().empty());
}

TEST_F(Hmm, AServerCountBelowZeroIsReportedUnderTheClassFunctionsName) {
    auto m = zeros(1, 1);
    qx::HMMServer* s = QXHMMServer(init(m));
    auto* extra = qx::calloc_n<qx::HMMServer>(1);   // linked in behind the registry's back
    extra->HMMId = 2, extra->prev = s, extra->next = s->next;
    s->next = s->next->prev = extra;
    QXFreeHMMServer(2), QXFreeHMMServer(1);   // the count falls below 0
    EXPECT_EQ(got(), (Reps{{-3, "QXFreeHMMClass", "wrong HMM count"}}));
    clear();
    EXPECT_EQ(init(m), 1);   // the count was reset
    EXPECT_TRUE(got().empty());
}
