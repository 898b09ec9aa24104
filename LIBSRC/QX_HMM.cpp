// HMM servers and classes: the exported registry operations, the inits that
// check and store a server's parameters, and the four evaluators' entry
// points. Every report of the family is raised here, so it names this file:
// the machinery that never reports lives in qx_hmm_registry.h (registries and
// class membership), qx_hmm_layout.h (value bounds, topology, stored layouts)
// and qx_viterbi.h (the recurrence and score area); the evaluators in
// qx_hmm_eval.h report at the line of the exported function that calls them.
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "kvxpx.h"
#include "qx_alloc.h"
#include "qx_gauss.h"
#include "qx_hmm.h"
#include "qx_hmm_eval.h"
#include "qx_hmm_layout.h"
#include "qx_hmm_registry.h"
#include "qx_report.h"

namespace qx {
namespace {

// A zeroed class block, or null after "NULL pointer".
HMMClassBlock* new_block(const Report& r) {
    auto* b = calloc_n<HMMClassBlock>(1);
    if (b == nullptr)
        r.raise(QX_StsNoMem, "NULL pointer");
    return b;
}

// 1, or -1 after "NULL pointer" when a block cannot be allocated.
int add_member(const Report& r, HMMClass* c, HMMServer* s) {
    const int id = s->HMMId;
    if (c->first == nullptr) {
        c->first = new_block(r);
        if (c->first == nullptr)
            return -1;
        c->first->classId = c->classId;
        c->first->largestId = kLargestId;
    }
    HMMClassBlock* b = block_for(c, id);
    int pos = entry_position(b, id);
    if (pos < b->count && b->entries[pos].HMMId == id)
        return 1;
    if (b->count == kClassBlockSize) {
        HMMClassBlock* nb = new_block(r);
        if (nb == nullptr)
            return -1;
        split_block(c, b, nb);
        if (id > b->largestId) {
            b = nb;
            pos = entry_position(b, id);
        }
    }
    insert_member(c, b, pos, s);
    return 1;
}

// Removes the server from every class and from the registry, then frees it.
void release_server(HMMServer* s) {
    HMMClass* chead = class_head();
    for (HMMClass* c = chead->next; c != chead; c = c->next)
        remove_member(c, s->HMMId);
    if (g_cursor->HMMId >= s->HMMId)
        g_cursor = s->prev;   // the freed id is handed out next
    s->prev->next = s->next;
    s->next->prev = s->prev;
    if (--g_serverCount < 0) {
        constexpr qx::Report r{"QXFreeHMMClass"};
        r.raise(QX_StsInternal, "wrong HMM count");
        g_serverCount = 0;
    }
    release_arrays(s);
    qx::free(s);
}

// ---------------------------------------------------------------------------
// Parameters: value checks, topology, stored layouts
// ---------------------------------------------------------------------------

// Stores the caller's arrays of one data type: In is the caller's element
// (float or short), C the stored cost (float or 32-bit int).
template <class In, class C>
int set_parameters(const Report& r, HMMServer* s, In** tprob, In** outTable, In* iprob, int nStates, int nSymbols,
                   int status) {
    const int n = nStates;
    const bool semicont = (status & QX_HMM_SEMICONT) != 0;
    const bool cost = (status & QX_HMM_COST) != 0;
    int topo = status & (kBand | kLeftRight);
    C* t = nullptr;
    C* ip = nullptr;
    void* out = nullptr;
    bool failed = false;
    if (tprob != nullptr) {
        topo = topology(tprob, n, cost);
        t = calloc_n<C>(transition_count(topo, n));
        ip = calloc_n<C>(static_cast<std::size_t>(n));
        failed = t == nullptr || ip == nullptr;
    }
    if (!failed && outTable != nullptr) {
        const std::size_t cells = static_cast<std::size_t>(n) * static_cast<std::size_t>(nSymbols);
        out = semicont ? static_cast<void*>(calloc_n<In>(cells)) : static_cast<void*>(calloc_n<C>(cells));
        failed = out == nullptr;
    }
    if (failed) {
        qx::free(t);
        qx::free(ip);
        qx::free(out);
        r.raise(QX_StsNoMem, "NULL pointer");
        return -1;
    }
    if (tprob != nullptr) {
        store_transitions(t, tprob, topo, n);
        for (int i = 0; i < n; ++i)
            ip[i] = static_cast<C>(iprob[i]);
        qx::free(s->tprob);
        qx::free(s->iprob);
        s->tprob = t;
        s->iprob = ip;
    }
    if (outTable != nullptr) {
        if (semicont)
            store_weights(static_cast<In*>(out), outTable, n, nSymbols);
        else
            store_output_costs(static_cast<C*>(out), outTable, n, nSymbols);
        qx::free(s->oprob);
        s->oprob = out;
    }
    s->nStates = n;
    s->nSymbols = nSymbols;
    s->status = (status & ~(kBand | kLeftRight)) | topo;
    return 1;
}

}  // namespace
}  // namespace qx

// ---------------------------------------------------------------------------
// Internal registry routines
// ---------------------------------------------------------------------------

// These depart from the usual shape: each looks its record up first and
// reports an unknown id whether or not an error is pending; only
// QXSetHMMServerParm tests the status, after its own checks.

qx::HMMServer* QXHMMServer(int HMMId) {
    constexpr qx::Report r{"QXHMMServer"};
    if (r.check(HMMId < 1, "HMMId<1"))
        return nullptr;
    return qx::find_server(HMMId);
}

qx::HMMClass* QXHMMClass(int classId) {
    constexpr qx::Report r{"QXHMMClass"};
    if (r.check(classId < 1, "classId<1"))
        return nullptr;
    return qx::find_class(classId);
}

int QXResetHMMClass(int classId) {
    constexpr qx::Report r{"QXResetHMMClass"};
    qx::HMMClass* c = QXHMMClass(classId);
    if (c == nullptr) {
        r.raise(QX_StsBadArg, qx::missing_text(classId));
        return -1;
    }
    c->flags = (c->flags & ~qx::kClassExhausted) | qx::kClassStart;
    c->current = c->first;
    c->index = 0;
    return 1;
}

int QXNextHMMServer(int classId) {
    constexpr qx::Report r{"QXNextHMMServer"};
    qx::HMMClass* c = QXHMMClass(classId);
    if (c == nullptr) {
        r.raise(QX_StsBadArg, qx::missing_text(classId));
        return -1;
    }
    return qx::next_member(c);
}

int QXSetHMMServerParm(int HMMId, int word, void* tprob, void* outTable, void* iprob, int nStates, int nSymbols,
                       int status) {
    constexpr qx::Report r{"QXSetHMMServerParm"};
    qx::HMMServer* s = QXHMMServer(HMMId);
    if (s == nullptr) {
        r.raise(QX_StsBadArg, qx::missing_text(HMMId));
        return -1;
    }
    if (nStates >= 0 && (tprob == nullptr || iprob == nullptr))
        r.raise(QX_StsBadArg, "change HMM nStates without data");
    if (nSymbols >= 0 && outTable == nullptr)
        r.raise(QX_StsBadArg, "change HMM nSymbols without data");
    const int st = status < 0 ? s->status : status;
    if ((st & (QX_HMM_SHORT | QX_HMM_FLOAT)) == 0)
        r.raise(QX_StsError, "wrong HMM flavor");
    if (qx::Report::failed())
        return -1;
    const int n = nStates < 0 ? s->nStates : nStates;
    const int m = nSymbols < 0 ? s->nSymbols : nSymbols;
    if (tprob == nullptr || iprob == nullptr) {   // transitions and initial costs change together
        tprob = nullptr;
        iprob = nullptr;
    }
    int res;
    if (st & QX_HMM_FLOAT)
        res = qx::set_parameters<float, float>(r, s, static_cast<float**>(tprob), static_cast<float**>(outTable),
                                               static_cast<float*>(iprob), n, m, st);
    else
        res = qx::set_parameters<short, std::int32_t>(r, s, static_cast<short**>(tprob),
                                                      static_cast<short**>(outTable), static_cast<short*>(iprob),
                                                      n, m, st);
    if (res > 0)
        s->word = word;
    return res;
}

int QXGetHMMServerParm(int HMMId, int* word, void** tprob, void** outTable, void** iprob, int* nStates,
                       int* nSymbols, int* status) {
    constexpr qx::Report r{"QXGetHMMServerParm"};
    qx::HMMServer* s = QXHMMServer(HMMId);
    auto put = [](auto* out, auto value) {
        if (out != nullptr)
            *out = value;
    };
    if (s == nullptr) {
        put(word, 0);
        put(tprob, nullptr);
        put(outTable, nullptr);
        put(iprob, nullptr);
        put(nStates, 0);
        put(nSymbols, 0);
        put(status, 0);
        r.raise(QX_StsBadArg, qx::missing_text(HMMId));
        return -1;
    }
    put(word, s->word);
    put(tprob, s->tprob);
    put(outTable, s->oprob);
    put(iprob, s->iprob);
    put(nStates, s->nStates);
    put(nSymbols, s->nSymbols);
    put(status, s->status);
    return 1;
}

namespace qx {
namespace {

// ---------------------------------------------------------------------------
// Init
// ---------------------------------------------------------------------------

// The value checks of one element: the lower bound always, the upper bound
// only for probabilities.
struct ValueChecks {
    const Report& r;
    bool cost;
    // One entry, with the float texts (below zero, above one) and the short
    // text (below zero): the texts of the entry's own element type apply.
    void check(float v, const char* low, const char* high, const char*, where loc = where::current()) const {
        r.check(below_zero(v), low, loc);
        if (!cost)
            r.check(above_one(v), high, loc);
    }
    void check(short v, const char*, const char*, const char* low, where loc = where::current()) const {
        r.check(below_zero(v), low, loc);
    }
    // The initial probabilities; a missing array is passed over.
    template <class In>
    void initial(const In* iprob, int nStates) const {
        if (iprob != nullptr)
            for (int i = 0; i < nStates; ++i)
                check(iprob[i], "iprob[i]<-(float)0.0", "iprob[i]>(float)1.0", "iprob[i]<0");
    }
};

// The row checks of a table, last row first; a missing table is passed over.
// The count goes down only while it is positive, so INT_MIN has no rows.
template <class In>
void check_rows(const Report& r, In* const* rows, int nRows, const char* text) {
    if (rows != nullptr)
        for (int i = nRows; i > 0; --i)
            r.check(rows[i - 1] == nullptr, text);
}

using hmm::is_float;

// Registers a record, stores its parameters, and for the mixture flavours
// copies the handle array. Returns the id or -1.
template <class In>
int register_server(const Report& r, In** tprob, In** outTable, In* iprob, int nStates, int nSymbols, int status,
                    void* const* handles, int nHandles, int nQuant, int* costScaleFactor) {
    auto* s = calloc_n<HMMServer>(1);
    if (s == nullptr) {
        r.raise(QX_StsNoMem, "NULL pointer");
        return -1;
    }
    link_server(s);
    const int id = s->HMMId;
    QXSetHMMServerParm(id, 0, tprob, outTable, iprob, nStates, nSymbols, status);
    if (qx::Report::failed()) {
        release_server(s);
        r.raise(QX_StsBackTrace, "");
        return -1;
    }
    if (handles != nullptr) {
        s->outPdfs = calloc_n<void*>(static_cast<std::size_t>(nHandles));
        if (s->outPdfs == nullptr) {
            r.raise(QX_StsNoMem, "NULL pointer");
            release_server(s);
            return -1;
        }
        std::memcpy(s->outPdfs, handles, sizeof(void*) * static_cast<std::size_t>(nHandles));
    }
    s->nQuant = nQuant;
    s->costScaleFactor = costScaleFactor;
    return id;
}

// The check texts of the second nStates x nSymbols table of a discrete server
// (symbol probabilities) or a semi-continuous one (mixture weights).
struct TableTexts {
    const char* null;
    const char* row;
    const char* lowFloat;
    const char* highFloat;
    const char* lowShort;
};

// Discrete and semi-continuous servers: checks the transition table, the
// second table and the initial probabilities, then registers the server.
template <class In>
int init_tabled(const Report& r, In** tprob, In** table, const TableTexts& tt, In* iprob, int nStates, int nSymbols,
                int flags, int kind, void* const* outPdfs, int nPdfs, int nQuant, int* costScaleFactor) {
    r.check(tprob == nullptr, "tprob==0");
    r.check(table == nullptr, tt.null);
    r.check(iprob == nullptr, "iprob==0");
    r.check(nStates <= 0, "nStates<=0");
    r.check(nSymbols <= 0, "nSymbols<=0");
    // Every check runs; only what cannot be read (a missing array or row) is
    // passed over.
    check_rows(r, tprob, nStates, "tprob[i]==NULL");
    check_rows(r, table, nStates, tt.row);
    const ValueChecks v{r, (flags & QX_HMM_COST) != 0};
    for (int i = 0; i < nStates; ++i) {
        if (tprob != nullptr && tprob[i] != nullptr)
            for (int j = 0; j < nStates; ++j)
                v.check(tprob[i][j], "tprob[i][j]<-(float)0.0", "tprob[i][j]>(float)1.0", "tprob[i][j]<0");
        if (table != nullptr && table[i] != nullptr)
            for (int j = 0; j < nSymbols; ++j)
                v.check(table[i][j], tt.lowFloat, tt.highFloat, tt.lowShort);
    }
    v.initial(iprob, nStates);
    if (qx::Report::failed())
        return -1;
    const int status = kind | (is_float<In> ? QX_HMM_FLOAT : QX_HMM_SHORT) | (flags & QX_HMM_COST);
    return register_server<In>(r, tprob, table, iprob, nStates, nSymbols, status, outPdfs, nPdfs, nQuant,
                               costScaleFactor);
}

template <class In>
int init_discrete(const Report& r, In** tprob, In** symbProb, In* iprob, int nStates, int nSymbols, int flags) {
    constexpr TableTexts tt{"symbProb==0", "symbProb[i]==NULL", "symbProb[i][j]<-(float)0.0",
                            "symbProb[i][j]>(float)1.0", "symbProb[i][j]<0"};
    return init_tabled<In>(r, tprob, symbProb, tt, iprob, nStates, nSymbols, flags, QX_HMM_DISCRETE, nullptr, 0, 0,
                           nullptr);
}

template <class In>
int init_continuous(const Report& r, In** tprob, In* iprob, void* const* outPdfs, int nStates, int nQuant,
                    int flags, int* costScaleFactor) {
    r.check(tprob == nullptr, "tprob==0");
    r.check(iprob == nullptr, "iprob==0");
    r.check(outPdfs == nullptr, "outPdfs==0");
    r.check(nStates <= 0, "nStates<=0");
    r.check(nQuant <= 0, "nQuant<=0");
    check_rows(r, tprob, nStates, "tprob[i]==NULL");
    const ValueChecks v{r, (flags & QX_HMM_COST) != 0};
    if (tprob != nullptr)
        for (int i = 0; i < nStates; ++i)
            if (tprob[i] != nullptr)
                v.check(tprob[i][i], "tprob[i][i]<-(float)0.0", "tprob[i][i]>(float)1.0", "tprob[i][i]<0");
    v.initial(iprob, nStates);
    if (qx::Report::failed())
        return -1;
    const int status = QX_HMM_CONT | (is_float<In> ? QX_HMM_FLOAT : QX_HMM_SHORT) | (flags & QX_HMM_COST);
    return register_server<In>(r, tprob, nullptr, iprob, nStates, -1, status, outPdfs, nStates, nQuant,
                               costScaleFactor);
}

template <class In>
int init_semicontinuous(const Report& r, In** tprob, In** weightVect, In* iprob, void* const* outPdfs, int nStates,
                        int nSymbols, int nQuant, int flags, int* costScaleFactor) {
    constexpr TableTexts tt{"weightVect==0", "weightVect[i]==NULL", "weightVect[i][j]<-(float)0.0",
                            "weightVect[i][j]>(float)1.0", "weightVect[i][j]<0"};
    return init_tabled<In>(r, tprob, weightVect, tt, iprob, nStates, nSymbols, flags, QX_HMM_SEMICONT, outPdfs,
                           nSymbols, nQuant, costScaleFactor);
}

void free_all() {
    HMMClass* chead = class_head();
    for (HMMClass* c = chead->next; c != chead;) {
        HMMClass* n = c->next;
        release_class(c);
        c = n;
    }
    chead->next = chead->prev = chead;
    g_classCount = 0;
    HMMServer* shead = server_head();
    while (shead->next != shead)
        release_server(shead->next);
    g_serverCount = 0;
    g_cursor = shead;
}

}  // namespace
}  // namespace qx

// ---------------------------------------------------------------------------
// Exported functions
// ---------------------------------------------------------------------------

extern "C" {

QX_API int QXsInitHMMServer(float** tprob, float** symbProb, float* iprob, int nStates, int nSymbols, int flags) {
    constexpr qx::Report r{"QXsInitHMMServer"};
    return qx::init_discrete<float>(r, tprob, symbProb, iprob, nStates, nSymbols, flags);
}

QX_API int QXwInitHMMServer(short** tprob, short** symbProb, short* iprob, int nStates, int nSymbols, int flags) {
    constexpr qx::Report r{"QXwInitHMMServer"};
    return qx::init_discrete<short>(r, tprob, symbProb, iprob, nStates, nSymbols, flags);
}

QX_API int QXsInitContHMMServer(float** tprob, float* iprob, QXsGaussMixServer** outPdfs, int nStates, int nQuant,
                                int flags) {
    constexpr qx::Report r{"QXsInitContHMMServer"};
    return qx::init_continuous<float>(r, tprob, iprob, reinterpret_cast<void* const*>(outPdfs), nStates, nQuant,
                                      flags, nullptr);
}

QX_API int QXwInitContHMMServer(short** tprob, short* iprob, QXwGaussMixServer** outPdfs, int nStates, int nQuant,
                                int flags, int* costScaleFactor) {
    constexpr qx::Report r{"QXwInitContHMMServer"};
    return qx::init_continuous<short>(r, tprob, iprob, reinterpret_cast<void* const*>(outPdfs), nStates, nQuant,
                                      flags, costScaleFactor);
}

QX_API int QXsInitSemicontHMMServer(float** tprob, float** weightVect, float* iprob, QXsGaussMixServer** outPdfs,
                                    int nStates, int nSymbols, int nQuant, int flags) {
    constexpr qx::Report r{"QXsInitSemicontHMMServer"};
    return qx::init_semicontinuous<float>(r, tprob, weightVect, iprob, reinterpret_cast<void* const*>(outPdfs),
                                          nStates, nSymbols, nQuant, flags, nullptr);
}

QX_API int QXwInitSemicontHMMServer(short** tprob, short** weightVect, short* iprob, QXwGaussMixServer** outPdfs,
                                    int nStates, int nSymbols, int nQuant, int flags, int* costScaleFactor) {
    constexpr qx::Report r{"QXwInitSemicontHMMServer"};
    return qx::init_semicontinuous<short>(r, tprob, weightVect, iprob, reinterpret_cast<void* const*>(outPdfs),
                                          nStates, nSymbols, nQuant, flags, costScaleFactor);
}

// Departs from the usual shape: the lookup reports first, the status test
// comes after it.
QX_API void QXFreeHMMServer(int HMMId) {
    constexpr qx::Report r{"QXFreeHMMServer"};
    qx::HMMServer* s = QXHMMServer(HMMId);
    if (s == nullptr) {
        r.raise(QX_StsBadArg, qx::missing_text(HMMId));
        return;
    }
    if (qx::Report::failed())
        return;
    qx::release_server(s);
}

QX_API int QXCreateHMMClass(void) {
    constexpr qx::Report r{"QXCreateHMMClass"};
    if (qx::Report::failed())
        return -1;
    auto* c = qx::calloc_n<qx::HMMClass>(1);
    if (c == nullptr) {
        r.raise(QX_StsNoMem, "NULL pointer");
        return -1;
    }
    qx::link_class(c);
    return c->classId;
}

QX_API int QXDeleteHMMClass(int classId) {
    constexpr qx::Report r{"QXDeleteHMMClass"};
    r.check(classId < 1, "classId<1");
    if (qx::Report::failed())
        return -1;
    qx::HMMClass* c = qx::find_class(classId);
    if (c == nullptr) {
        r.raise(QX_StsBadArg, qx::missing_text(classId));
        return -1;
    }
    c->prev->next = c->next;
    c->next->prev = c->prev;
    qx::release_class(c);
    if (--qx::g_classCount < 0) {
        r.raise(QX_StsInternal, "wrong HMM class count");
        qx::g_classCount = 0;
        return -1;
    }
    return 1;
}

QX_API int QXAddHMMToClass(int classId, int HMMId) {
    constexpr qx::Report r{"QXAddHMMToClass"};
    r.check(classId < 1, "classId<1");
    r.check(HMMId < 1, "HMMId<1");
    if (qx::Report::failed())
        return -1;
    qx::HMMClass* c = qx::find_class(classId);
    qx::HMMServer* s = qx::find_server(HMMId);
    if (c == nullptr || s == nullptr) {
        r.raise(QX_StsBadArg, "HMM server and/or class does not exist");
        return -1;
    }
    const std::uint32_t kind = static_cast<std::uint32_t>(s->status) & qx::kClassMemberMask;
    if (c->count == 0)   // the first member decides the class's kind
        c->flags = (c->flags & ~qx::kClassMemberMask) | kind;
    else if ((c->flags & qx::kClassMemberMask) != kind) {
        r.raise(QX_StsBadArg, "wrong class for HMM server");
        return -1;
    }
    return qx::add_member(r, c, s);
}

QX_API int QXRemoveHMMFromClass(int classId, int HMMId) {
    constexpr qx::Report r{"QXRemoveHMMFromClass"};
    r.check(classId < 1, "classId<1");
    r.check(HMMId < 1, "HMMId<1");
    if (qx::Report::failed())
        return -1;
    qx::HMMClass* c = qx::find_class(classId);
    if (c == nullptr || qx::find_server(HMMId) == nullptr) {
        r.raise(QX_StsBadArg, "HMM server and/or class does not exist");
        return -1;
    }
    qx::remove_member(c, HMMId);
    return 1;
}

QX_API void QXHMMFreeAll(void) { qx::free_all(); }

QX_API float QXsEvalHMMViterbi(int HMMOrClassId, const int* vect, int nObserv, int* bestHMMId) {
    constexpr qx::Report r{"QXsEvalHMMViterbi"};
    return qx::hmm::eval_discrete<float>(r, HMMOrClassId, vect, nObserv, bestHMMId);
}

QX_API int QXwEvalHMMViterbi(int HMMOrClassId, const int* vect, int nObserv, int* bestHMMId, int doScale,
                             int* scaleFactor) {
    constexpr qx::Report r{"QXwEvalHMMViterbi"};
    const std::int32_t best = qx::hmm::eval_discrete<std::int32_t>(r, HMMOrClassId, vect, nObserv, bestHMMId);
    return qx::hmm::scale_result(best, doScale, scaleFactor);
}

QX_API float QXsEvalContHMMViterbi(int HMMOrClassId, float** nqVect, int nObserv, int* bestHMMId) {
    constexpr qx::Report r{"QXsEvalContHMMViterbi"};
    return qx::hmm::eval_mixture<float, false>(r, HMMOrClassId, nqVect, nObserv, bestHMMId);
}

QX_API int QXwEvalContHMMViterbi(int HMMOrClassId, short** nqVect, int nObserv, int* bestHMMId, int doScale,
                                 int* scaleFactor) {
    constexpr qx::Report r{"QXwEvalContHMMViterbi"};
    const std::int32_t best = qx::hmm::eval_mixture<short, false>(r, HMMOrClassId, nqVect, nObserv, bestHMMId);
    return qx::hmm::scale_result(best, doScale, scaleFactor);
}

QX_API float QXsEvalSemicontHMMViterbi(int HMMOrClassId, float** nqVect, int nObserv, int* bestHMMId) {
    constexpr qx::Report r{"QXsEvalSemicontHMMViterbi"};
    return qx::hmm::eval_mixture<float, true>(r, HMMOrClassId, nqVect, nObserv, bestHMMId);
}

QX_API int QXwEvalSemicontHMMViterbi(int HMMOrClassId, short** nqVect, int nObserv, int* bestHMMId, int doScale,
                                     int* scaleFactor) {
    constexpr qx::Report r{"QXwEvalSemicontHMMViterbi"};
    const std::int32_t best = qx::hmm::eval_mixture<short, true>(r, HMMOrClassId, nqVect, nObserv, bestHMMId);
    return qx::hmm::scale_result(best, doScale, scaleFactor);
}

}  // extern "C"
