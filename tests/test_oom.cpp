// Out of memory: every exported function that takes memory from the heap is
// run with its 1st, 2nd, ... allocation failing until a run needs no more
// than it was given. Each failing run must report -4 at its raising line,
// give the function's failure result, leave its output as it was, and keep no
// block beyond the ones the function is known to keep (the pointer array of a
// table whose data block failed, the first buffer of QXvwbConvert); the run
// that succeeds gives what an undisturbed call gives. Caches a function fills
// are released before counting. The last test checks every distinct message.
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "kvx_test.h"

using kvxtest::FailAllocation;
using kvxtest::LibTest;

namespace {

using Values = std::vector<double>;

struct Call {
    const char* name;
    // Runs the call; returns its result in a comparable form and sets
    // `failed` when the result is the function's failure result.
    std::function<Values(bool& failed)> run;
    long kept = 0;                 // blocks a failing run may keep (leaked by design)
    bool reclaim = false;          // a kept block is the last one obtained: the test gives it back
    Values before = {};            // when given: what a failing run leaves in its output
    std::function<void()> setup = [] {}, teardown = [] {};   // around each run, allocating freely
};

// A call whose failure shows in the status word alone.
template <class F>
std::function<Values(bool&)> by_status(F f) {
    return [f](bool& failed) {
        Values r = f();
        failed = QXGetStatus() < 0;
        return r;
    };
}

template <class T>
Values values(const T* p, std::size_t n) {
    return Values(p, p + n);
}

// Every (function, text) an out-of-memory run reported, with code -4 or a trace.
std::set<std::tuple<int, std::string, std::string>>& messages() {
    static std::set<std::tuple<int, std::string, std::string>> all;
    return all;
}

// Releases every cache the library fills on demand.
void release_caches() {
    QXFreeFftTbls();
    QXFreePreemphasizeTbls();
    QXsFreeWinHammingTbls(), QXsFreeWinHanningTbls(), QXsFreeWinBartlettTbls(), QXsFreeWinBlackmanTbls();
    QXwFreeWinHammingTbls(), QXwFreeWinHanningTbls(), QXwFreeWinBartlettTbls(), QXwFreeWinBlackmanTbls();
    QXwPatternFreeAll();
    QXsPatternFreeAll();
    QXHMMFreeAll();
}

class OutOfMemory : public LibTest {
protected:
    // Returns the number of allocations the call makes.
    int each_failure(const Call& c) {
        release_caches();
        clear();
        bool failed = false;
        c.setup();
        const std::vector<double> clean = c.run(failed);
        c.teardown();
        EXPECT_FALSE(failed) << c.name << " fails without a memory failure";
        EXPECT_TRUE(got().empty()) << c.name;
        release_caches();
        for (int k = 1; k < 200; ++k) {
            const long live = qx::testing::live_blocks();
            c.setup();
            clear();
            std::vector<double> r;
            failed = false;
            {
                FailAllocation f(k);
                r = c.run(failed);
            }
            const auto reps = got();
            bool noMem = false;
            for (const auto& [code, fn, text] : reps) noMem |= code == QX_StsNoMem;
            for (const auto& rep : kvxtest::reports()) {
                if (!noMem) break;
                messages().insert({rep.code, rep.function, rep.condition});
                EXPECT_TRUE(kvxtest::names_raising_line(rep)) << c.name;
            }
            QXSetStatus(0);
            c.teardown();
            release_caches();
            QXSetStatus(0);
            if (!noMem) {  // the call needed fewer than k allocations
                EXPECT_FALSE(failed) << c.name << " allocation " << k;
                EXPECT_EQ(r, clean) << c.name;
                // (a block kept by an earlier failing run may be given back now)
                EXPECT_LE(qx::testing::live_blocks(), live) << c.name;
                return k - 1;
            }
            EXPECT_TRUE(failed) << c.name << " with allocation " << k << " failing";
            if (!c.before.empty()) {
                EXPECT_EQ(r, c.before) << c.name << " allocation " << k;
            }
            EXPECT_LE(qx::testing::live_blocks(), live + c.kept) << c.name << " with allocation " << k << " failing";
            if (c.reclaim && qx::testing::live_blocks() > live) qx::free(qx::testing::last_allocation());
            if (c.kept == 0) {
                EXPECT_EQ(qx::testing::live_blocks(), live) << c.name << " allocation " << k;
            }
        }
        ADD_FAILURE() << c.name << " never succeeds";
        return 0;
    }
};

// Row-pointer arrays and tables of every type: the caller releases them.
std::vector<Call> arrays() {
    using kvxtest::make_rows;
    const std::tuple<const char*, kvxtest::MakeRows, const char*, kvxtest::MakeRows> kinds[] = {
        {"QXbAlloc2", make_rows<QXbAlloc2>, "QXbAllocTable", make_rows<QXbAllocTable>},
        {"QXnAlloc2", make_rows<QXnAlloc2>, "QXnAllocTable", make_rows<QXnAllocTable>},
        {"QXyAlloc2", make_rows<QXyAlloc2>, "QXyAllocTable", make_rows<QXyAllocTable>},
        {"QXtAlloc2", make_rows<QXtAlloc2>, "QXtAllocTable", make_rows<QXtAllocTable>},
        {"QXwAlloc2", make_rows<QXwAlloc2>, "QXwAllocTable", make_rows<QXwAllocTable>},
        {"QXiAlloc2", make_rows<QXiAlloc2>, "QXiAllocTable", make_rows<QXiAllocTable>},
        {"QXsAlloc2", make_rows<QXsAlloc2>, "QXsAllocTable", make_rows<QXsAllocTable>}};
    std::vector<Call> calls;
    for (auto [name2, make2, nameTable, makeTable] : kinds)
        for (bool table : {false, true})
            calls.push_back({table ? nameTable : name2, [make = table ? makeTable : make2, table](bool& failed) {
                                 void** p = make(3, 5);
                                 failed = p == nullptr;
                                 if (p) table ? QX_FreeTable(p) : QX_Free2(p, 3);
                                 return Values{};
                             }, table, table});   // a table's pointer array, when its data block fails
    return calls;
}

}  // namespace

TEST_F(OutOfMemory, ArraysAndTables) {
    for (const Call& c : arrays()) each_failure(c);
}

TEST_F(OutOfMemory, ConversionsAndFfts) {
    const short shorts[32] = {100, -200, 300, -400, 500, -600, 700, -800, 900, -1000, 1100, -1200, 1300, -1400, 1500, -1600,
                              17, -18, 19, -20, 21, -22, 23, -24, 25, -26, 27, -28, 29, -30, 31, -32};
    std::vector<Call> calls = {
        {"QXvwbConvert", by_status([&] {
             short out[8] = {};
             int sf = 0;
             QXvwbConvert(shorts, out, 8, 1, 0, &sf);
             return values(out, 8);
         }), 1, true, Values(8, 0.0)},
        {"QXGetBitRevTbl", [](bool& failed) { failed = QXGetBitRevTbl(6) == nullptr; return Values{}; }},
        {"QXcGetFftTwdTbl", [](bool& failed) { failed = QXcGetFftTwdTbl(6) == nullptr; return Values{}; }},
        {"QXwGetFftTwdTbl", [](bool& failed) { failed = QXwGetFftTwdTbl(6) == nullptr; return Values{}; }},
    };
    // Float transforms of 64 points, short ones on both paths (order 5 on
    // 32-bit integers, order 11 through floats).
    using FloatFft = void (*)(float*, int, int);
    for (auto [name, fft] : {std::pair<const char*, FloatFft>{"QXcFft", QXcFft}, {"QXsRealFft", QXsRealFft}, {"QXsCcsFft", QXsCcsFft}})
        calls.push_back({name, by_status([fft = fft] {
                             std::vector<float> v(128);
                             for (int i = 0; i < 128; ++i) v[i] = static_cast<float>(i % 7) - 3.0f;
                             fft(v.data(), 6, QX_FORWARD);
                             return values(v.data(), v.size());
                         })});
    using ShortFft = void (*)(short*, int, int, int, int*);
    for (auto [name, fft] : {std::pair<const char*, ShortFft>{"QXvFft", QXvFft}, {"QXwRealFft", QXwRealFft}, {"QXwCcsFft", QXwCcsFft}})
        for (int order : {5, 11})
            calls.push_back({name, by_status([fft = fft, order] {
                                 std::vector<short> v(2 << order);
                                 for (std::size_t i = 0; i < v.size(); ++i) v[i] = static_cast<short>(i % 11 * 100);
                                 int sf = 0;
                                 fft(v.data(), order, QX_FORWARD, 3, &sf);
                                 return values(v.data(), v.size());
                             })});
    for (const Call& c : calls) each_failure(c);
}

TEST_F(OutOfMemory, FrontEnd) {
    static const short samples[9] = {100, 200, 300, 400, 500, 600, 700, 800, 900};
    std::vector<Call> calls = {
        {"QXwPreemphasize", by_status([] {
             short v[8];
             std::memcpy(v, samples, sizeof v);
             int sf = 0;
             QXwPreemphasize(v, 0.9f, 8, 3, &sf);
             return values(v, 8);
         }), 0, false, values(samples, 8)},
    };
    // The windows: the float ones on 1..9, the short ones on the samples.
    using SWin = void (*)(float*, int);
    using WWin = void (*)(short*, int, int, int*);
    const std::tuple<const char*, SWin, const char*, WWin> windows[] = {
        {"QXsWinHamming", QXsWinHamming, "QXwWinHamming", QXwWinHamming}, {"QXsWinHanning", QXsWinHanning, "QXwWinHanning", QXwWinHanning},
        {"QXsWinBartlett", QXsWinBartlett, "QXwWinBartlett", QXwWinBartlett},
        {"QXsWinBlackman", QXsWinBlackman, "QXwWinBlackman", QXwWinBlackman}};
    for (auto [sName, sWin, wName, wWin] : windows) {
        calls.push_back({sName, by_status([win = sWin] {
                             float v[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
                             win(v, 9);
                             return values(v, 9);
                         }), 0, false, {1, 2, 3, 4, 5, 6, 7, 8, 9}});
        calls.push_back({wName, by_status([win = wWin] {
                             short v[9];
                             std::memcpy(v, samples, sizeof v);
                             int sf = 0;
                             win(v, 9, 3, &sf);
                             return values(v, 9);
                         }), 0, false, values(samples, 9)});
    }
    for (bool shorts : {false, true}) {
        calls.push_back({shorts ? "QXwMFCCInit" : "QXsMFCCInit", [shorts](bool& failed) {
                             QXMFCCFilters* f = (shorts ? QXwMFCCInit : QXsMFCCInit)(6, 8, 100, 4000, 8000, 0, 0, 0);
                             failed = f == nullptr;
                             Values r;
                             if (f) r = {double(f->firstPoint), double(f->lastPoint)}, QXsFreeMFCCFilters(f);
                             return r;
                         }});
        for (int doTransform : {0, 1}) {
            auto bank = std::make_shared<QXMFCCFilters*>(nullptr);
            calls.push_back({shorts ? "QXwCepstralMFCC" : "QXsCepstralMFCC", by_status([shorts, bank, doTransform] {
                                 float fv[64], fc[6] = {};
                                 short wv[64], wc[6] = {};
                                 for (int i = 0; i < 64; ++i) fv[i] = static_cast<float>(i % 5 + 1), wv[i] = static_cast<short>(100 * (i % 5 + 1));
                                 int sf = 0;
                                 if (shorts)
                                     QXwCepstralMFCC(doTransform, wv, *bank, wc, 6, 3, &sf);
                                 else
                                     QXsCepstralMFCC(doTransform, fv, *bank, fc, 6);
                                 return shorts ? values(wc, 6) : values(fc, 6);
                             }), 0, false, Values(6, 0.0),
                             [bank] { *bank = QXsMFCCInit(6, 8, 100, 4000, 8000, 0, 0, 0); },
                             [bank, shorts] { (shorts ? QXwFreeMFCCFilters : QXsFreeMFCCFilters)(*bank); }});
        }
    }
    for (const Call& c : calls) each_failure(c);
}

TEST_F(OutOfMemory, StoresAndModels) {
    static float r0[3] = {1, 2, 3}, r1[3] = {4, 5, 6}, r2[3] = {7, 8, 9};
    static float* rows[3] = {r0, r1, r2};
    static short w0[3] = {1, 2, 3}, w1[3] = {4, 5, 6}, w2[3] = {7, 8, 9};
    static short* wrows[3] = {w0, w1, w2};
    std::vector<Call> calls;
    for (bool shorts : {false, true}) {
        calls.push_back({shorts ? "QXwPatternIni" : "QXsPatternIni", [shorts](bool& failed) {
                             const int id = shorts ? QXwPatternIni(wrows, 3, 3, 0) : QXsPatternIni(rows, 3, 3);
                             failed = id < 0;
                             return Values{double(id)};
                         }});
        calls.push_back({shorts ? "QXwEvalDTW" : "QXsEvalDTW", [shorts](bool& failed) {
                             const int ids[1] = {1};
                             double ds[1] = {};
                             int is[1] = {}, sf = 0;
                             const int best = shorts ? QXwEvalDTW(ids, 1, wrows, 3, 3, 0, QX_DTW_L1 | QX_DTW_FIXED_END, 0, 0, 0, is, 3, &sf)
                                                     : QXsEvalDTW(ids, 1, rows, 3, 3, QX_DTW_L1 | QX_DTW_FIXED_END, 0.0, 0, ds);
                             failed = best < 0;
                             return Values{double(best), ds[0], double(is[0])};
                         }, 0, false, {}, [shorts] { shorts ? QXwPatternIni(wrows, 3, 3, 0) : QXsPatternIni(rows, 3, 3); }});
    }
    calls.push_back({"QXMaskConvolve", [](bool& failed) {
                         unsigned char i0[4] = {1, 2, 3, 4}, i1[4] = {5, 6, 7, 8}, o0[4] = {}, o1[4] = {};
                         unsigned char *image[2] = {i0, i1}, *out[2] = {o0, o1};
                         signed char m0[2] = {1, 2}, m1[2] = {3, 4}, *mask[2] = {m0, m1};
                         int sf = 0;
                         failed = QXMaskConvolve(image, mask, out, 2, 0, 2, 2, 4, 2, 2, nullptr, 3, &sf) < 0;
                         Values v = values(o0, 4), w = values(o1, 4);
                         v.insert(v.end(), w.begin(), w.end());
                         return v;
                     }, 1, true, Values(8, 0.0)});  // the mask table's pointer array, when its data block fails
    for (bool shorts : {false, true}) {
        calls.push_back({shorts ? "QXwMLPerceptron" : "QXsMLPerceptron", by_status([shorts] {
                             const int counts[2] = {2, 1};
                             const float fin[2] = {0.5f, -0.25f}, fw[6] = {0.1f, 0.2f, 0.3f, 0.4f, 0.5f, 0.6f};
                             const short win[2] = {100, -50}, ww[6] = {10, 20, 30, 40, 50, 60};
                             float fo[1] = {};
                             short wo[1] = {};
                             int sf = 0;
                             if (shorts)
                                 QXwMLPerceptron(2, -8, win, 2, counts, -8, ww, wo, 3, &sf);
                             else
                                 QXsMLPerceptron(2, fin, 2, counts, fw, fo);
                             return Values{fo[0], double(wo[0])};
                         }), 2, false, {0.0, 0.0}});  // the blocks of earlier layers may be kept
        // Scored and released; the first exponential table may be kept when the
        // second fails (rebuilt on the next use).
        calls.push_back({shorts ? "QXwEvalGaussMix" : "QXsEvalGaussMix", [shorts](bool& failed) {
                             float fw[1] = {1.0f}, fm[2] = {0.5f, 0.5f}, fd[2] = {1.0f, 1.0f}, *fmean[1] = {fm}, *fdiag[1] = {fd};
                             short ww[1] = {1}, wm[2] = {1, 1}, wd[2] = {1, 1}, *wmean[1] = {wm}, *wdiag[1] = {wd};
                             const float fv[2] = {0.0f, 1.0f};
                             const short wv[2] = {0, 2};
                             int sf = 0;
                             Values r;
                             QXwGaussMixServer* ws = shorts ? QXwInitGaussMixServer(ww, wmean, nullptr, wdiag, 2, 1, 1, 0) : nullptr;
                             QXsGaussMixServer* fs = shorts ? nullptr : QXsInitGaussMixServer(fw, fmean, nullptr, fdiag, 2, 1, 1);
                             failed = !ws && !fs;
                             if (failed) return r;
                             r.push_back(shorts ? QXwEvalGaussMix(ws, wv, 2, 3, &sf) : QXsEvalGaussMix(fs, fv, 2));
                             failed = QXGetStatus() < 0;
                             QXSetStatus(0);  // as a caller does before cleaning up
                             shorts ? QXwFreeGaussMixServer(ws) : QXsFreeGaussMixServer(fs);
                             return r;
                         }, 1});
        // Discrete servers: init, then a Viterbi score through a class.
        calls.push_back({shorts ? "QXwInitHMMServer" : "QXsInitHMMServer", [shorts](bool& failed) {
                             float t0[2] = {0.5f, 0.5f}, t1[2] = {9.0f, 0.0f}, b0[2] = {0.0f, 3.0f}, b1[2] = {2.0f, 0.0f}, ip[2] = {0.0f, 9.0f};
                             float *t[2] = {t0, t1}, *b[2] = {b0, b1};
                             short wt0[2] = {1, 1}, wt1[2] = {32767, 0}, wb0[2] = {0, 3}, wb1[2] = {2, 0}, wip[2] = {0, 32767};
                             short *wt[2] = {wt0, wt1}, *wb[2] = {wb0, wb1};
                             const int id = shorts ? QXwInitHMMServer(wt, wb, wip, 2, 2, QX_HMM_COST)
                                                   : QXsInitHMMServer(t, b, ip, 2, 2, QX_HMM_COST);
                             failed = id < 0;
                             Values r{double(id)};
                             if (id <= 0) return r;
                             const int obs[3] = {0, 1, 1}, cls = QXCreateHMMClass();
                             int best = 0, sf = 0;
                             failed = cls < 0 || QXAddHMMToClass(cls, id) < 0;
                             if (failed) return r;
                             r.push_back(shorts ? QXwEvalHMMViterbi(-cls, obs, 3, &best, 3, &sf) : QXsEvalHMMViterbi(-cls, obs, 3, &best));
                             failed = QXGetStatus() < 0;
                             return r;
                         }});
    }
    // A semicontinuous server over a one-component codebook, scored.
    auto pdf = std::make_shared<QXsGaussMixServer*>(nullptr);
    calls.push_back({"QXsInitSemicontHMMServer", [pdf](bool& failed) {
                         float t0[2] = {0.5f, 0.5f}, t1[2] = {9.0f, 0.0f}, w0[1] = {1.0f}, w1[1] = {1.0f}, ip[2] = {0.0f, 1.0f};
                         float *t[2] = {t0, t1}, *w[2] = {w0, w1}, x0[1] = {0.5f}, x1[1] = {-0.5f}, *x[2] = {x0, x1};
                         QXsGaussMixServer* book[1] = {*pdf};
                         const int id = QXsInitSemicontHMMServer(t, w, ip, book, 2, 1, 1, QX_HMM_COST);
                         failed = id < 0;
                         Values r{double(id)};
                         if (id <= 0) return r;
                         int best = 0;
                         r.push_back(QXsEvalSemicontHMMViterbi(id, x, 2, &best));
                         failed = QXGetStatus() < 0;
                         return r;
                     }, 0, false, {}, [pdf] {
                         static float w = 1.0f, mean = 0.0f, ic = 1.0f, *means[1] = {&mean}, *ics[1] = {&ic};
                         *pdf = QXsInitGaussMixServer(&w, means, nullptr, ics, 1, 1, 0);
                     }, [pdf] { QXHMMFreeAll(), QXsFreeGaussMixServer(*pdf); }});
    // A class gaining its 65th member splits its block.
    auto ids = std::make_shared<std::pair<int, int>>();
    calls.push_back({"QXAddHMMToClass", [ids](bool& failed) {
                         failed = QXAddHMMToClass(ids->first, ids->second) != 1;
                         return Values{};
                     }, 0, false, {}, [ids] {
                         static float t0[1] = {1.0f}, *t[1] = {t0};
                         ids->first = QXCreateHMMClass();
                         for (int k = 0; k < 64; ++k) QXAddHMMToClass(ids->first, QXsInitHMMServer(t, t, t0, 1, 1, 0));
                         ids->second = QXsInitHMMServer(t, t, t0, 1, 1, 0);
                     }, [] { QXHMMFreeAll(); }});
    for (const Call& c : calls) each_failure(c);
}

// Declared last, so it runs last: every report of the failing runs above,
// as (code, text, functions).
TEST_F(OutOfMemory, EveryMessage) {
    const std::string mem = "insufficiency of memory for pointer  ", ctx = mem + "pQXcontext->", fft = mem + "pQXContext->";
    const std::vector<std::tuple<int, std::string, std::vector<std::string>>> table = {
        {-4, mem + "fractionalExpTable", {"BuildExpTables"}}, {-4, mem + "integralExpTable", {"BuildExpTables"}},
        {-4, fft + "Fft.sBuffer", {"Fft_Core_Short_As_Float"}}, {-4, fft + "Fft.iBuffer", {"Fft_Core_Short_As_Int"}},
        {-4, ctx + "Dct.sstoredDctFactor", {"OwnsDct"}},
        {-4, "NULL pointer", {"QXAddHMMToClass", "QXCreateHMMClass", "QXSetHMMServerParm", "QXsEvalHMMViterbi",
                              "QXsEvalSemicontHMMViterbi", "QXsInitHMMServer", "QXsInitSemicontHMMServer",
                              "QXwEvalHMMViterbi", "QXwInitHMMServer"}},
        {-4, "NULL Pointer", {"QXGetBitRevTbl", "QXcGetFftTwdTbl", "QXwGetFftTwdTbl"}},
        {-4, ctx + "Ceps.fftOut", {"QXsCepstralMFCC"}}, {-4, ctx + "Ceps.filterOutput", {"QXsCepstralMFCC"}},
        {-4, "No memory for work arrays allocation", {"QXsEvalDTW", "QXwEvalDTW"}},
        {-4, mem + "server", {"QXsInitGaussMixServer", "QXwInitGaussMixServer"}},
        {-4, mem + "filters", {"QXsMFCCInit"}}, {-4, mem + "filters->fftSpec", {"QXsMFCCInit"}},
        {-4, mem + "tempFilter", {"QXsMFCCInit"}}, {-4, "sPattern can not be allocated", {"QXsPatternIni"}},
        {-4, mem + "sCoeff", {"QXsWinBartlett", "QXsWinBlackman", "QXsWinHamming", "QXsWinHanning"}},
        {-4, mem + "tmpin", {"QXvwbConvert"}}, {-4, mem + "tmpout", {"QXvwbConvert"}},
        {-4, ctx + "Ceps.tempCeps", {"QXwCepstralMFCC"}}, {-4, ctx + "Ceps.tempVect", {"QXwCepstralMFCC"}},
        {-4, mem + "inputPtr", {"QXwMLPerceptron"}}, {-4, mem + "outputBlockPtr", {"QXwMLPerceptron"}},
        {-4, mem + "outputPtr", {"QXwMLPerceptron"}}, {-4, "wPattern can not be allocated", {"QXwPatternIni"}},
        {-4, mem + "buff", {"QXwPreemphasize", "QXwWinBartlett", "QXwWinBlackman", "QXwWinHamming", "QXwWinHanning"}},
        {-1, "Bad Ptr", {"Fft_Core_Short_As_Int", "QXcFft", "QXsCcsFft", "QXsRealFft", "QXvFft", "QXwCcsFft", "QXwRealFft"}},
        {-1, "", {"QXMaskConvolve", "QXsEvalGaussMix", "QXsInitHMMServer", "QXsInitSemicontHMMServer", "QXwEvalGaussMix",
                  "QXwInitHMMServer"}},
        {-1, ctx + "Dct.sstoredDctFactor", {"QXsCepstralMFCC"}}, {-1, "out QXsRealFftl", {"QXsCepstralMFCC", "QXsRealFftNip"}},
        {-1, fft + "Fft.iBuffer", {"QXvFft", "QXwCcsFft", "QXwRealFft"}},
        {-1, fft + "Fft.sBuffer", {"QXvFft", "QXwCcsFft", "QXwRealFft"}},
    };
    std::set<std::tuple<int, std::string, std::string>> want;
    for (const auto& [code, text, functions] : table)
        for (const auto& fn : functions) want.insert({code, fn, text});
    for (char t : std::string("bnytwis")) {   // QXbAlloc2 says "float"; QXyAllocTable's block is named QXn's
        const std::string a2 = std::string("QX") + t + "Alloc2", at = std::string("QX") + t + "AllocTable";
        want.insert({-4, a2, "The pointers vector can not be allocated"});
        want.insert({-4, a2, t == 'b' ? "Current float vector can not be allocated" : "Current vector can not be allocated"});
        want.insert({-4, at, "The pointers vector can not be allocated"});
        want.insert({-4, t == 'y' ? "QXnAllocTable" : at, "2D array vector can not be allocated"});
    }
    EXPECT_EQ(messages(), want);
}
