// The four HMM evaluators (discrete, continuous, semicontinuous; float and
// 16-bit) over one server or a class: the argument checks, the walk over the
// servers, the per-server set-up every evaluator shares (parameter fetch,
// status-bit checks, score area) and the frame costs of each flavour.
//
// Every report goes out with the location the exported function passes in
// (`loc`, its own line in QX_HMM.cpp), so the reports name that file.
#pragma once

#include <cfloat>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <type_traits>

#include "kvxpx.h"
#include "qx_alloc.h"
#include "qx_hmm.h"
#include "qx_hmm_registry.h"
#include "qx_report.h"
#include "qx_viterbi.h"

namespace qx::hmm {

using qx::where;

template <class In>
constexpr bool is_float = std::is_same_v<In, float>;

// Costs: float for float servers, 32-bit integers for 16-bit ones.
template <class In>
using Cost = std::conditional_t<is_float<In>, float, std::int32_t>;

constexpr float kWorstFloat = FLT_MAX;   // 3.4028235e38
constexpr std::int32_t kWorstInt = 2147483647;

template <class C>
constexpr C worst() {
    if constexpr (std::is_same_v<C, float>)
        return kWorstFloat;
    else
        return kWorstInt;
}

// The 16-bit result: doScale 1 shifts by the caller's factor (right for a
// positive one, left for a negative one, counts modulo 32); any other doScale
// returns the cost as it is with factor 0. The worst cost of a failed
// evaluation comes back untouched.
inline int scale_result(std::int32_t best, int doScale, int* scaleFactor) {
    if (best == kWorstInt && qx::Report::failed())
        return best;
    if (doScale == 1) {
        const int sf = scaleFactor != nullptr ? *scaleFactor : 0;
        if (sf >= 0)
            return best >> (sf & 31);
        const unsigned count = (0u - static_cast<unsigned>(sf)) & 31u;
        return static_cast<std::int32_t>(static_cast<std::uint32_t>(best) << count);
    }
    if (scaleFactor != nullptr)
        *scaleFactor = 0;
    return best;
}

// Walks one server or a class. body(id, score) returns false to end the call
// with the initial best; the best server is taken with less-or-equal (float:
// also an unordered comparison), so the last of equal scores wins.
template <class C, class Body>
C over_servers(const Report& r, int HMMOrClassId, int* bestHMMId, Body&& body, where loc) {
    const C initial = worst<C>();
    C best = initial;
    auto take = [&](int id, C score) {
        bool better;
        if constexpr (std::is_same_v<C, float>)
            better = !(score > best);
        else
            better = score <= best;
        if (better) {
            best = score;
            *bestHMMId = id;
        }
    };
    if (HMMOrClassId > 0) {
        C score{};
        if (!body(HMMOrClassId, score))
            return initial;
        take(HMMOrClassId, score);
        return best;
    }
    const int classId = static_cast<int>(0u - static_cast<unsigned>(HMMOrClassId));
    if (QXHMMClass(classId) == nullptr) {
        r.raise(QX_StsBadArg, "HMM server and/or class does not exist", loc);
        return initial;
    }
    QXResetHMMClass(classId);
    for (int id = QXNextHMMServer(classId); id > 0; id = QXNextHMMServer(classId)) {
        C score{};
        if (!body(id, score))
            return initial;
        take(id, score);
    }
    return best;
}

// The arguments every evaluator checks first, in their order; `rows` names
// the observations (vect or nqVect).
inline void check_call(const Report& r, int HMMOrClassId, int nObserv, const void* rows, const char* rowsText,
                       const int* bestHMMId, where loc) {
    r.check(HMMOrClassId == 0, "HMMOrClassId==0", loc);
    r.check(nObserv < 1, "nObserv<=0", loc);
    r.check(rows == nullptr, rowsText, loc);
    r.check(bestHMMId == nullptr, "bestHMMId==0", loc);
}

// A status bit a server must carry, and the text its absence is reported with.
struct RequiredBit {
    int bit;
    const char* missing;
};
constexpr RequiredBit kFloatData{QX_HMM_FLOAT, "!(status&0x00000020)"};
constexpr RequiredBit kShortData{QX_HMM_SHORT, "!(status&0x00000010)"};
constexpr RequiredBit kCosts{QX_HMM_COST, "!(status&0x00000001)"};
constexpr RequiredBit kDiscrete{QX_HMM_DISCRETE, "!(status&0x00800000)"};
constexpr RequiredBit kContinuous{QX_HMM_CONT, "!(status&0x00400000)"};
constexpr RequiredBit kSemicontinuous{QX_HMM_SEMICONT, "!(status&0x00200000)"};

// One server's parameters as the registry gives them.
struct Parms {
    int word = 0, nStates = 0, nSymbols = 0, status = 0;
    void* tp = nullptr;
    void* op = nullptr;
    void* ip = nullptr;

    int topology() const { return status & (QX_HMM_BAND | QX_HMM_LEFT_RIGHT); }
};

// The set-up every evaluator makes per server: the parameters (a failed
// lookup adds a trace report), then the data-type, cost and flavour bits.
// False when the call must end.
template <class In>
bool fetch(const Report& r, int id, const RequiredBit& flavour, Parms& p, where loc) {
    QXGetHMMServerParm(id, &p.word, &p.tp, &p.op, &p.ip, &p.nStates, &p.nSymbols, &p.status);
    if (qx::Report::failed()) {
        r.raise(QX_StsBackTrace, "", loc);
        return false;
    }
    const RequiredBit& type = is_float<In> ? kFloatData : kShortData;
    for (const RequiredBit* b : {&type, &kCosts, &flavour})
        r.check(!(p.status & b->bit), b->missing, loc);
    return true;
}

// The score vectors for p in the call's area (grown when p has more states):
// scores, then `other` and a cost row capacity() cells apart each; null after
// "NULL pointer" when the area cannot grow.
template <class C>
C* score_vectors(const Report& r, ScoreArea& area, const Parms& p, where loc) {
    constexpr bool isFloat = std::is_same_v<C, float>;
    if (!area.reserve(p.nStates)) {
        r.raise(QX_StsNoMem, "NULL pointer", loc);
        return nullptr;
    }
    std::int32_t* cells = area.scores(p.tp, isFloat ? 0 : 2);
    if (!isFloat && p.topology() == QX_HMM_BAND)
        cells[-1] = cells[-2] = kBandGuardCost;
    return reinterpret_cast<C*>(cells);
}

template <class C, class Rows>
C run(const Parms& p, int nObserv, Rows&& rows, C* scores, const ScoreArea& area, bool& ok) {
    return viterbi<C>(p.topology(), p.nStates, static_cast<const C*>(p.tp), static_cast<const C*>(p.ip), nObserv,
                      rows, scores, scores + area.capacity(), ok);
}

// ------------------------------------------------------------------ discrete

template <class C>
C eval_discrete(const Report& r, int HMMOrClassId, const int* vect, int nObserv, int* bestHMMId,
                where loc = where::current()) {
    using In = std::conditional_t<std::is_same_v<C, float>, float, short>;
    check_call(r, HMMOrClassId, nObserv, vect, "vect==0", bestHMMId, loc);
    if (qx::Report::failed())
        return worst<C>();
    ScoreArea area(8, is_float<In> ? 0 : 4);
    auto body = [&](int id, C& score) {
        Parms p;
        if (!fetch<In>(r, id, kDiscrete, p, loc))
            return false;
        r.check(p.nStates <= 0, "nStates<=0", loc);
        r.check(p.nSymbols <= 0, "nSymbols<=0", loc);
        r.check(p.tp == nullptr, "tprob==0", loc);
        r.check(p.op == nullptr, "oprob==0", loc);
        r.check(p.ip == nullptr, "iprob==0", loc);
        for (int ii = 0; ii < nObserv; ++ii) {
            r.check(vect[ii] < 0, "vect[ii]<0", loc);
            r.check(vect[ii] > p.nSymbols - 1, "vect[ii]>nSymbols-1", loc);
        }
        if (qx::Report::failed())
            return false;
        C* scores = score_vectors<C>(r, area, p, loc);
        if (scores == nullptr)
            return false;
        const C* out = static_cast<const C*>(p.op);
        auto rows = [&](int t) { return out + static_cast<std::size_t>(vect[t]) * p.nStates; };
        bool ok;
        score = run(p, nObserv, rows, scores, area, ok);
        return ok;
    };
    return over_servers<C>(r, HMMOrClassId, bestHMMId, body, loc);
}

// ------------------------------------------- continuous and semicontinuous

constexpr double kLog10Of2 = 0.301029995663981195213738894724493027;
constexpr double kCostOffset = 8.729869874255455;   // 29 * log10(2): the 2^29 base of 16-bit costs

inline double decimal_log(double x) { return kLog10Of2 * std::log2(x); }

// One mixture's density at x (16-bit: with the fixed factor -15).
template <class In>
double mixture_density(void* pdf, const In* x, int nQuant) {
    if constexpr (is_float<In>) {
        return QXsEvalGaussMix(static_cast<QXsGaussMixServer*>(pdf), x, nQuant);
    } else {
        int sf = -15;
        return QXwEvalGaussMix(static_cast<QXwGaussMixServer*>(pdf), x, nQuant, 1, &sf);
    }
}

// The semicontinuous codebook outputs g[t][k], built from the first server
// evaluated and shared by the rest of the call.
template <class In>
class Codebook {
public:
    Codebook() = default;
    ~Codebook() { qx::free(table_); }
    Codebook(const Codebook&) = delete;
    Codebook& operator=(const Codebook&) = delete;

    bool built() const { return table_ != nullptr; }
    int symbols() const { return symbols_; }
    const In* row(int t) const { return table_ + static_cast<std::size_t>(t) * symbols_; }

    // False after "NULL pointer", or after a trace report when a density fails.
    bool build(const Report& r, const HMMServer* s, In* const* nqVect, int nObserv, where loc) {
        const std::size_t cells = static_cast<std::size_t>(nObserv) * static_cast<std::size_t>(s->nSymbols);
        table_ = is_float<In> ? calloc_n<In>(cells) : calloc_n<In>(cells + 16);
        if (table_ == nullptr) {
            r.raise(QX_StsNoMem, "NULL pointer", loc);
            return false;
        }
        symbols_ = s->nSymbols;
        for (int t = 0; t < nObserv; ++t) {
            In* out = table_ + static_cast<std::size_t>(t) * symbols_;
            for (int k = 0; k < symbols_; ++k) {
                const double g = mixture_density(s->outPdfs[k], nqVect[t], s->nQuant);
                if (qx::Report::failed()) {
                    r.raise(QX_StsBackTrace, "", loc);
                    return false;
                }
                if constexpr (is_float<In>)
                    out[k] = static_cast<float>(g);
                else   // the low 16 bits of the integer density
                    out[k] = static_cast<short>(static_cast<std::uint16_t>(static_cast<std::uint32_t>(
                        static_cast<std::int32_t>(g))));
            }
        }
        return true;
    }

private:
    In* table_ = nullptr;
    int symbols_ = 0;
};

// The checks of a mixture server after its status bits.
template <bool Semicont>
void check_mixture_server(const Report& r, const Parms& p, const HMMServer* s, where loc) {
    r.check(p.nStates <= 0, "nStates<=0", loc);
    if constexpr (Semicont)
        r.check(p.nSymbols <= 0, "nSymbols<=0", loc);
    r.check(s->nQuant <= 0, "ser->nQuant<=0", loc);
    r.check(p.tp == nullptr, "tprob==0", loc);
    r.check(p.ip == nullptr, "iprob==0", loc);
    r.check(s->outPdfs == nullptr, "ser->outPdfs==0", loc);
}

// The output costs of frame t by state, into `cost`; null when a density, dot
// product or conversion fails (its own report pending).
template <class In, bool Semicont>
struct MixtureRows {
    using C = Cost<In>;
    const Parms& p;
    const HMMServer* s;
    In* const* nqVect;
    const Codebook<In>& book;
    C* cost;

    const C* operator()(int t) const {
        // Weights are read with the codebook's width, which all members share.
        const int width = p.nSymbols < book.symbols() ? p.nSymbols : book.symbols();
        for (int j = p.nStates - 1; j >= 0; --j) {
            double pr;
            if constexpr (Semicont) {
                const In* w = static_cast<const In*>(p.op) + static_cast<std::size_t>(j) * p.nSymbols;
                if constexpr (is_float<In>) {
                    pr = QXsDotP(w, book.row(t), width);
                } else {
                    int scratch = 0;
                    pr = QXwDotP(w, book.row(t), width, 0, &scratch);
                }
            } else {
                pr = mixture_density(s->outPdfs[j], nqVect[t], s->nQuant);
            }
            if (qx::Report::failed())
                return nullptr;
            if constexpr (is_float<In>) {
                cost[j] = static_cast<float>(-decimal_log(pr));
            } else {
                cost[j] = QXdiConvertDown(kCostOffset - decimal_log(pr), 1, s->costScaleFactor);
                if (qx::Report::failed())
                    return nullptr;
            }
        }
        return cost;
    }
};

// In: float or short feature data.
template <class In, bool Semicont>
Cost<In> eval_mixture(const Report& r, int HMMOrClassId, In** nqVect, int nObserv, int* bestHMMId,
                      where loc = where::current()) {
    using C = Cost<In>;
    check_call(r, HMMOrClassId, nObserv, nqVect, "nqVect==0", bestHMMId, loc);
    if (nqVect != nullptr)
        for (int l = 0; l < nObserv; ++l)
            r.check(nqVect[l] == nullptr, Semicont ? "nqVect[i]==NULL" : "nqVect[l]==NULL", loc);
    if (qx::Report::failed())
        return worst<C>();
    ScoreArea area(9, is_float<In> ? 0 : 8);
    Codebook<In> book;
    auto body = [&](int id, C& score) {
        Parms p;
        if (!fetch<In>(r, id, Semicont ? kSemicontinuous : kContinuous, p, loc))
            return false;
        const HMMServer* s = find_server(id);
        check_mixture_server<Semicont>(r, p, s, loc);
        if (qx::Report::failed())
            return false;
        C* scores = score_vectors<C>(r, area, p, loc);
        if (scores == nullptr || (Semicont && !book.built() && !book.build(r, s, nqVect, nObserv, loc)))
            return false;
        MixtureRows<In, Semicont> rows{p, s, nqVect, book, scores + 2 * area.capacity()};
        bool ok;
        score = run(p, nObserv, rows, scores, area, ok);
        if (!ok)
            r.raise(QX_StsBackTrace, "", loc);
        return ok;
    };
    return over_servers<C>(r, HMMOrClassId, bestHMMId, body, loc);
}

}  // namespace qx::hmm
