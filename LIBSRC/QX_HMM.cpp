// HMM servers and classes, and Viterbi scoring of observation sequences.
//
// Servers and classes live in two process-wide registries: circular lists
// sorted by id, each through a head record of id 0. Server ids are handed out
// densely (the smallest free id above the run of consecutive ids that starts
// at the head, tracked by a cursor). A class keeps its members sorted by id in
// a chain of 64-entry blocks, and carries one iteration over them.
//
// The evaluations work on costs (negative logarithms): every path cost is a
// sum, and the best path is the cheapest. A server's transition matrix is
// classified when it is stored: a band (jumps of at most two states), a
// left-to-right matrix, or a full one; each has its own recurrence.
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "kvxpx.h"
#include "qx_alloc.h"
#include "qx_gauss.h"
#include "qx_hmm.h"
#include "qx_report.h"

namespace qx {
namespace {

// ---------------------------------------------------------------------------
// Registries
// ---------------------------------------------------------------------------

HMMServer g_serverHead{};
HMMServer* g_cursor = nullptr;   // the record that ends the run of ids 1, 2, ... from the head
int g_serverCount = 0;

HMMClass g_classHead{};
int g_classCount = 0;

HMMServer* server_head() {
    if (g_serverHead.next == nullptr) {
        g_serverHead.next = g_serverHead.prev = &g_serverHead;
        g_cursor = &g_serverHead;
    }
    return &g_serverHead;
}

HMMClass* class_head() {
    if (g_classHead.next == nullptr)
        g_classHead.next = g_classHead.prev = &g_classHead;
    return &g_classHead;
}

HMMServer* find_server(int id) {
    HMMServer* head = server_head();
    for (HMMServer* p = head->next; p != head; p = p->next) {
        if (p->HMMId == id)
            return p;
        if (p->HMMId > id)
            break;
    }
    return nullptr;
}

HMMClass* find_class(int id) {
    HMMClass* head = class_head();
    for (HMMClass* p = head->next; p != head; p = p->next) {
        if (p->classId == id)
            return p;
        if (p->classId > id)
            break;
    }
    return nullptr;
}

// The lookup message: an unknown id, or none given (id 0).
const char* missing_text(int id) {
    return id != 0 ? "HMM server and/or class does not exist" : "current HMM server and/or class is not defined";
}

// Links a new record after the cursor with the cursor's id plus one, then
// moves the cursor over the run of consecutive ids that follows.
void link_server(HMMServer* s) {
    server_head();
    HMMServer* after = g_cursor;
    s->HMMId = after->HMMId + 1;
    s->prev = after;
    s->next = after->next;
    after->next->prev = s;
    after->next = s;
    HMMServer* c = s;
    while (c->next != &g_serverHead && c->next->HMMId == c->HMMId + 1)
        c = c->next;
    g_cursor = c;
    ++g_serverCount;
}

// ---------------------------------------------------------------------------
// Class membership
// ---------------------------------------------------------------------------

HMMClassBlock* block_for(HMMClass* c, int id) {
    HMMClassBlock* b = c->first;
    while (b != nullptr && b->largestId < id && b->next != nullptr)
        b = b->next;
    return b;
}

int entry_position(const HMMClassBlock* b, int id) {
    int pos = 0;
    while (pos < b->count && b->entries[pos].HMMId < id)
        ++pos;
    return pos;
}

bool iteration_running(const HMMClass* c) { return (c->flags & (kClassStart | kClassExhausted)) == 0; }

// 1, or -1 after "NULL pointer" when a block cannot be allocated.
int add_member(const Report& r, HMMClass* c, HMMServer* s) {
    const int id = s->HMMId;
    if (c->first == nullptr) {
        auto* b = calloc_n<HMMClassBlock>(1);
        if (b == nullptr) {
            r.raise(QX_StsNoMem, "NULL pointer");
            return -1;
        }
        b->classId = c->classId;
        b->largestId = kLargestId;
        c->first = b;
    }
    HMMClassBlock* b = block_for(c, id);
    int pos = entry_position(b, id);
    if (pos < b->count && b->entries[pos].HMMId == id)
        return 1;
    if (b->count == kClassBlockSize) {
        auto* nb = calloc_n<HMMClassBlock>(1);
        if (nb == nullptr) {
            r.raise(QX_StsNoMem, "NULL pointer");
            return -1;
        }
        constexpr int half = kClassBlockSize / 2;
        nb->classId = c->classId;
        std::memcpy(nb->entries, b->entries + half, sizeof(HMMClassEntry) * half);
        std::memset(b->entries + half, 0, sizeof(HMMClassEntry) * half);
        nb->count = half;
        b->count = half;
        nb->largestId = b->largestId;
        b->largestId = b->entries[half - 1].HMMId;
        nb->next = b->next;
        b->next = nb;
        if (c->current == b && c->index >= half) {
            c->current = nb;
            c->index -= half;
        }
        if (id > b->largestId) {
            b = nb;
            pos = entry_position(b, id);
        }
    }
    std::memmove(b->entries + pos + 1, b->entries + pos, sizeof(HMMClassEntry) * (b->count - pos));
    b->entries[pos] = HMMClassEntry{id, s};
    ++b->count;
    ++c->count;
    if (iteration_running(c) && c->current == b && pos <= c->index)
        ++c->index;   // the iteration stays on its member
    return 1;
}

void remove_member(HMMClass* c, int id) {
    HMMClassBlock* b = block_for(c, id);
    if (b == nullptr)
        return;
    int pos = entry_position(b, id);
    if (pos >= b->count || b->entries[pos].HMMId != id)
        return;
    std::memmove(b->entries + pos, b->entries + pos + 1, sizeof(HMMClassEntry) * (b->count - pos - 1));
    --b->count;
    b->entries[b->count] = HMMClassEntry{0, nullptr};
    --c->count;
    if (c->current == b && pos <= c->index)
        --c->index;   // the next step lands on the member after the removed one
    if (b->count == 0 && b->next != nullptr) {   // the last block is kept
        if (c->first == b) {
            c->first = b->next;
        } else {
            HMMClassBlock* p = c->first;
            while (p->next != b)
                p = p->next;
            p->next = b->next;
        }
        if (c->current == b) {
            c->current = b->next;
            c->index = -1;
        }
        qx::free(b);
    }
}

void release_class(HMMClass* c) {
    for (HMMClassBlock* b = c->first; b != nullptr;) {
        HMMClassBlock* n = b->next;
        qx::free(b);
        b = n;
    }
    qx::free(c);
}

void release_arrays(HMMServer* s) {
    qx::free(s->tprob);
    qx::free(s->oprob);
    qx::free(s->iprob);
    qx::free(s->extra);
    qx::free(s->outPdfs);
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
        constexpr Report r{"QXFreeHMMClass"};
        r.raise(QX_StsInternal, "wrong HMM count");
        g_serverCount = 0;
    }
    release_arrays(s);
    qx::free(s);
}

// ---------------------------------------------------------------------------
// Parameters: value checks, topology, stored layouts
// ---------------------------------------------------------------------------

constexpr int kBand = QX_HMM_BAND;
constexpr int kLeftRight = QX_HMM_LEFT_RIGHT;
constexpr int kFloatImpossibleBits = 0x7149F2CA;   // 1.0e30f
constexpr int kShortImpossible = 32767;

inline std::uint32_t bits_of(float v) {
    std::uint32_t u;
    std::memcpy(&u, &v, sizeof u);
    return u;
}

// Probability bounds on the bit pattern: -0.0 and 0.0 .. 1.0 pass, any other
// negative pattern and every pattern above 1.0 (not-a-numbers too) fail.
inline bool below_zero(float v) { return bits_of(v) > 0x80000000u; }
inline bool above_one(float v) { return static_cast<std::int32_t>(bits_of(v)) > 0x3F800000; }
inline bool below_zero(short v) { return v < 0; }

inline bool impossible(float v, bool cost) {
    const auto b = static_cast<std::int32_t>(bits_of(v));
    return cost ? b >= kFloatImpossibleBits : b <= 0;
}
inline bool impossible(short v, bool cost) { return cost ? v >= kShortImpossible : v <= 0; }

template <class In>
int topology(In** a, int n, bool cost) {
    if (n <= 1)
        return 0;
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < i; ++j)
            if (!impossible(a[i][j], cost))
                return 0;
    if (n < 3)
        return kLeftRight;
    for (int i = 0; i < n; ++i)
        for (int j = i + 3; j < n; ++j)
            if (!impossible(a[i][j], cost))
                return kLeftRight;
    return kBand;
}

inline std::size_t transition_count(int topo, int n) {
    const auto N = static_cast<std::size_t>(n);
    if (topo == kBand)
        return 3 * N;
    if (topo == kLeftRight)
        return N * (N + 1) / 2;
    return N * N;
}

// Transition costs by target state (see qx_hmm.h).
template <class C, class In>
void store_transitions(C* t, In** a, int topo, int n) {
    if (topo == kBand) {
        for (int j = 0; j < n; ++j) {
            t[3 * j] = static_cast<C>(a[j][j]);
            t[3 * j + 1] = j >= 1 ? static_cast<C>(a[j - 1][j]) : C{};
            t[3 * j + 2] = j >= 2 ? static_cast<C>(a[j - 2][j]) : C{};
        }
    } else if (topo == kLeftRight) {
        std::size_t k = 0;
        for (int j = 0; j < n; ++j)
            for (int i = 0; i <= j; ++i)
                t[k++] = static_cast<C>(a[i][j]);
    } else {
        for (int j = 0; j < n; ++j)
            for (int i = 0; i < n; ++i)
                t[static_cast<std::size_t>(j) * n + i] = static_cast<C>(a[i][j]);
    }
}

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
        if (semicont) {   // weights by state: one row per state feeds the dot product
            In* w = static_cast<In*>(out);
            for (int j = 0; j < n; ++j)
                for (int k = 0; k < nSymbols; ++k)
                    w[static_cast<std::size_t>(j) * nSymbols + k] = outTable[j][k];
        } else {          // output costs by symbol: one vector per frame
            C* o = static_cast<C*>(out);
            for (int j = 0; j < n; ++j)
                for (int k = 0; k < nSymbols; ++k)
                    o[static_cast<std::size_t>(k) * n + j] = static_cast<C>(outTable[j][k]);
        }
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
    if (c->flags & qx::kClassExhausted)
        return 0;
    if (c->flags & qx::kClassStart) {
        c->flags &= ~qx::kClassStart;
        c->current = c->first;
        c->index = 0;
        if (c->current != nullptr)
            return c->current->entries[0].HMMId;
    }
    if (c->current == nullptr) {
        c->flags |= qx::kClassExhausted;
        return 0;
    }
    if (c->index < c->current->count - 1) {
        ++c->index;
    } else {
        c->current = c->current->next;
        c->index = 0;
        if (c->current == nullptr) {
            c->flags |= qx::kClassExhausted;
            return 0;
        }
    }
    return c->current->entries[c->index].HMMId;
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
};

template <class In>
constexpr bool is_float = std::is_same_v<In, float>;

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
    if (Report::failed()) {
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
    if (tprob != nullptr)
        for (int i = nStates; i-- > 0;)
            r.check(tprob[i] == nullptr, "tprob[i]==NULL");
    if (table != nullptr)
        for (int i = nStates; i-- > 0;)
            r.check(table[i] == nullptr, tt.row);
    const ValueChecks v{r, (flags & 1) != 0};
    for (int i = 0; i < nStates; ++i) {
        if (tprob != nullptr && tprob[i] != nullptr)
            for (int j = 0; j < nStates; ++j)
                v.check(tprob[i][j], "tprob[i][j]<-(float)0.0", "tprob[i][j]>(float)1.0", "tprob[i][j]<0");
        if (table != nullptr && table[i] != nullptr)
            for (int j = 0; j < nSymbols; ++j)
                v.check(table[i][j], tt.lowFloat, tt.highFloat, tt.lowShort);
    }
    if (iprob != nullptr)
        for (int i = 0; i < nStates; ++i)
            v.check(iprob[i], "iprob[i]<-(float)0.0", "iprob[i]>(float)1.0", "iprob[i]<0");
    if (Report::failed())
        return -1;
    const int status = kind | (is_float<In> ? QX_HMM_FLOAT : QX_HMM_SHORT) | (flags & 1);
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
    if (tprob != nullptr)
        for (int i = nStates; i-- > 0;)
            r.check(tprob[i] == nullptr, "tprob[i]==NULL");
    const ValueChecks v{r, (flags & 1) != 0};
    if (tprob != nullptr)
        for (int i = 0; i < nStates; ++i)
            if (tprob[i] != nullptr)
                v.check(tprob[i][i], "tprob[i][i]<-(float)0.0", "tprob[i][i]>(float)1.0", "tprob[i][i]<0");
    if (iprob != nullptr)
        for (int i = 0; i < nStates; ++i)
            v.check(iprob[i], "iprob[i]<-(float)0.0", "iprob[i]>(float)1.0", "iprob[i]<0");
    if (Report::failed())
        return -1;
    const int status = QX_HMM_CONT | (is_float<In> ? QX_HMM_FLOAT : QX_HMM_SHORT) | (flags & 1);
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

// ---------------------------------------------------------------------------
// Viterbi
// ---------------------------------------------------------------------------

// Float costs add as floats; integer costs wrap around like the 32-bit sums
// they are (no saturation).
inline float cost_add(float a, float b) { return a + b; }
inline std::int32_t cost_add(std::int32_t a, std::int32_t b) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) + static_cast<std::uint32_t>(b));
}

// The best path cost through one server. rows(t) gives the output costs of
// frame t by state, or null to abandon the run (then `ok` is false).
template <class C, class Rows>
C viterbi(int topo, int n, const C* trans, const C* pi, int nObserv, Rows&& rows, C* score, C* other, bool& ok) {
    ok = false;
    const C* B = rows(0);
    if (B == nullptr)
        return C{};
    for (int j = 0; j < n; ++j)
        score[j] = cost_add(pi[j], B[j]);
    for (int t = 1; t < nObserv; ++t) {
        B = rows(t);
        if (B == nullptr)
            return C{};
        if (topo == kBand) {
            // In place, downward: the lower states still hold the last frame.
            for (int j = n - 1; j >= 2; --j) {
                const C* a = trans + 3 * j;
                C best = cost_add(score[j], a[0]);
                C c = cost_add(score[j - 1], a[1]);
                if (c < best)
                    best = c;
                c = cost_add(score[j - 2], a[2]);
                if (c < best)
                    best = c;
                score[j] = cost_add(B[j], best);
            }
            C best = cost_add(score[1], trans[3]);
            C c = cost_add(score[0], trans[4]);
            if (c < best)
                best = c;
            score[1] = cost_add(B[1], best);
            score[0] = cost_add(B[0], cost_add(score[0], trans[0]));
        } else if (topo == kLeftRight) {
            for (int j = n - 1; j >= 0; --j) {
                const C* a = trans + static_cast<std::size_t>(j) * (j + 1) / 2;   // a[0][j] .. a[j][j]
                C best = cost_add(score[j], a[j]);
                for (int i = j - 1; i >= 0; --i) {
                    C c = cost_add(score[i], a[i]);
                    if (c < best)
                        best = c;
                }
                score[j] = cost_add(B[j], best);
            }
        } else {
            for (int j = n - 1; j >= 0; --j) {
                const C* a = trans + static_cast<std::size_t>(j) * n;   // a[0][j] .. a[n-1][j]
                C best = cost_add(score[n - 1], a[n - 1]);
                for (int i = n - 2; i >= 0; --i) {
                    C c = cost_add(score[i], a[i]);
                    if (c < best)
                        best = c;
                }
                other[j] = cost_add(B[j], best);
            }
            C* swap = score;
            score = other;
            other = swap;
        }
    }
    ok = true;
    if constexpr (std::is_same_v<C, float>) {
        float m = FLT_MAX;
        for (int j = 0; j < n; ++j)
            if (score[j] < m)
                m = score[j];
        return m;
    } else {
        C m = score[n - 1];
        for (int j = n - 2; j >= 0; --j)
            if (score[j] < m)
                m = score[j];
        return m;
    }
}

// The score area of one call: reused across the servers of a class, grown
// only when a server has more states than it holds, released on return.
class ScoreArea {
public:
    // cellsPerState * capacity + extraCells 32-bit cells.
    ScoreArea(int cellsPerState, int extraCells) : perState_(cellsPerState), extra_(extraCells) {}
    ~ScoreArea() { qx::free(area_); }
    ScoreArea(const ScoreArea&) = delete;
    ScoreArea& operator=(const ScoreArea&) = delete;

    bool reserve(int nStates) {
        if (area_ != nullptr && nStates <= capacity_)
            return true;
        qx::free(area_);
        capacity_ = nStates > 8 ? nStates : 8;
        const std::size_t cells =
            static_cast<std::size_t>(perState_) * static_cast<std::size_t>(capacity_) + static_cast<std::size_t>(extra_);
        area_ = calloc_n<std::int32_t>(cells);
        return area_ != nullptr;
    }

    // The first score vector for a server whose transitions are at `trans`:
    // moved 6 * capacity cells on when the two would share cache sets
    // (within 64 bytes of each other modulo 4 KB), after `lead` cells, and
    // rounded up to 8 bytes.
    std::int32_t* scores(const void* trans, int lead) const {
        auto base = reinterpret_cast<std::uintptr_t>(area_);
        std::intptr_t d = static_cast<std::intptr_t>((reinterpret_cast<std::uintptr_t>(trans) - base) & 0xFFF);
        if (d > 2048)
            d -= 4096;
        if (d < 65 && d > -65)
            base += static_cast<std::uintptr_t>(6) * static_cast<std::uintptr_t>(capacity_) * 4;
        base += static_cast<std::uintptr_t>(lead) * 4;
        base = (base + 7) & ~static_cast<std::uintptr_t>(7);
        return reinterpret_cast<std::int32_t*>(base);
    }

    int capacity() const { return capacity_; }

private:
    int perState_;
    int extra_;
    int capacity_ = 0;
    std::int32_t* area_ = nullptr;
};

// Walks one server or a class. body(id, score) returns false to end the call
// with the initial best; the best server is taken with less-or-equal (float:
// also an unordered comparison), so the last of equal scores wins.
template <class C, class Body>
C over_servers(const Report& r, int HMMOrClassId, int* bestHMMId, C initial, Body&& body) {
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
        r.raise(QX_StsBadArg, "HMM server and/or class does not exist");
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

constexpr float kWorstFloat = FLT_MAX;             // 3.4028235e38
constexpr std::int32_t kWorstInt = 2147483647;

// The 16-bit result: doScale 1 shifts by the caller's factor (right for a
// positive one, left for a negative one, counts modulo 32); any other doScale
// returns the cost as it is with factor 0. The worst cost of a failed
// evaluation comes back untouched.
int scale_result(std::int32_t best, int doScale, int* scaleFactor) {
    if (best == kWorstInt && Report::failed())
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

template <class C>
constexpr C worst() {
    if constexpr (std::is_same_v<C, float>)
        return kWorstFloat;
    else
        return kWorstInt;
}

// Discrete scoring: C float for the float entry, int32 for the 16-bit one.
template <class C>
C eval_discrete(const Report& r, int HMMOrClassId, const int* vect, int nObserv, int* bestHMMId) {
    constexpr bool isFloat = std::is_same_v<C, float>;
    r.check(HMMOrClassId == 0, "HMMOrClassId==0");
    r.check(nObserv < 1, "nObserv<=0");
    r.check(vect == nullptr, "vect==0");
    r.check(bestHMMId == nullptr, "bestHMMId==0");
    if (Report::failed())
        return worst<C>();
    ScoreArea area(8, isFloat ? 0 : 4);
    auto body = [&](int id, C& score) {
        int word, nStates, nSymbols, status;
        void *tp, *op, *ip;
        QXGetHMMServerParm(id, &word, &tp, &op, &ip, &nStates, &nSymbols, &status);
        if (Report::failed()) {
            r.raise(QX_StsBackTrace, "");
            return false;
        }
        if constexpr (isFloat)
            r.check(!(status & 0x00000020), "!(status&0x00000020)");
        else
            r.check(!(status & 0x00000010), "!(status&0x00000010)");
        r.check(!(status & 0x00000001), "!(status&0x00000001)");
        r.check(!(status & 0x00800000), "!(status&0x00800000)");
        r.check(nStates <= 0, "nStates<=0");
        r.check(nSymbols <= 0, "nSymbols<=0");
        r.check(tp == nullptr, "tprob==0");
        r.check(op == nullptr, "oprob==0");
        r.check(ip == nullptr, "iprob==0");
        for (int ii = 0; ii < nObserv; ++ii) {
            r.check(vect[ii] < 0, "vect[ii]<0");
            r.check(vect[ii] > nSymbols - 1, "vect[ii]>nSymbols-1");
        }
        if (Report::failed())
            return false;
        if (!area.reserve(nStates)) {
            r.raise(QX_StsNoMem, "NULL pointer");
            return false;
        }
        const int topo = status & (kBand | kLeftRight);
        std::int32_t* cells = area.scores(tp, isFloat ? 0 : 2);
        if (!isFloat && topo == kBand)
            cells[-1] = cells[-2] = kLargestId;
        C* s = reinterpret_cast<C*>(cells);
        C* other = s + area.capacity();
        const C* out = static_cast<const C*>(op);
        auto rows = [&](int t) { return out + static_cast<std::size_t>(vect[t]) * nStates; };
        bool ok;
        score = viterbi<C>(topo, nStates, static_cast<const C*>(tp), static_cast<const C*>(ip), nObserv, rows, s,
                           other, ok);
        return ok;
    };
    return over_servers<C>(r, HMMOrClassId, bestHMMId, worst<C>(), body);
}

// ---------------------------------------------------------------------------
// Continuous and semicontinuous scoring
// ---------------------------------------------------------------------------

constexpr double kLog10Of2 = 0.301029995663981195213738894724493027;
constexpr double kCostOffset = 8.729869874255455;   // 29 * log10(2): the 2^29 base of 16-bit costs

inline double decimal_log(double x) { return kLog10Of2 * std::log2(x); }

template <class In>
using MixServer = std::conditional_t<is_float<In>, QXsGaussMixServer, QXwGaussMixServer>;

// In: float or short feature data; C: float or 32-bit integer costs.
template <class In, bool Semicont>
auto eval_mixture(const Report& r, int HMMOrClassId, In** nqVect, int nObserv, int* bestHMMId) {
    using C = std::conditional_t<is_float<In>, float, std::int32_t>;
    constexpr bool isFloat = is_float<In>;
    r.check(HMMOrClassId == 0, "HMMOrClassId==0");
    r.check(nObserv < 1, "nObserv<=0");
    r.check(nqVect == nullptr, "nqVect==0");
    r.check(bestHMMId == nullptr, "bestHMMId==0");
    if (nqVect != nullptr)
        for (int l = 0; l < nObserv; ++l)
            r.check(nqVect[l] == nullptr, Semicont ? "nqVect[i]==NULL" : "nqVect[l]==NULL");
    if (Report::failed())
        return worst<C>();

    ScoreArea area(9, isFloat ? 0 : 8);
    // Semicontinuous codebook outputs g[t][k], from the first server evaluated.
    In* table = nullptr;
    int tableSymbols = 0;
    struct TableGuard {
        In*& p;
        ~TableGuard() { qx::free(p); }
    } guard{table};

    auto mixture_density = [](void* pdf, const In* x, int nQuant) -> double {
        if constexpr (isFloat) {
            return QXsEvalGaussMix(static_cast<QXsGaussMixServer*>(pdf), x, nQuant);
        } else {
            int sf = -15;
            return QXwEvalGaussMix(static_cast<QXwGaussMixServer*>(pdf), x, nQuant, 1, &sf);
        }
    };

    auto build_table = [&](const HMMServer* s) -> bool {
        const std::size_t cells = static_cast<std::size_t>(nObserv) * static_cast<std::size_t>(s->nSymbols);
        table = isFloat ? calloc_n<In>(cells) : calloc_n<In>(cells + 16);
        if (table == nullptr) {
            r.raise(QX_StsNoMem, "NULL pointer");
            return false;
        }
        tableSymbols = s->nSymbols;
        for (int t = 0; t < nObserv; ++t) {
            In* row = table + static_cast<std::size_t>(t) * tableSymbols;
            for (int k = 0; k < tableSymbols; ++k) {
                double g = mixture_density(s->outPdfs[k], nqVect[t], s->nQuant);
                if (Report::failed()) {
                    r.raise(QX_StsBackTrace, "");
                    return false;
                }
                if constexpr (isFloat)
                    row[k] = static_cast<float>(g);
                else   // the low 16 bits of the integer density
                    row[k] = static_cast<short>(static_cast<std::uint16_t>(static_cast<std::uint32_t>(
                        static_cast<std::int32_t>(g))));
            }
        }
        return true;
    };

    auto body = [&](int id, C& score) {
        int word, nStates, nSymbols, status;
        void *tp, *op, *ip;
        QXGetHMMServerParm(id, &word, &tp, &op, &ip, &nStates, &nSymbols, &status);
        if (Report::failed()) {
            r.raise(QX_StsBackTrace, "");
            return false;
        }
        const HMMServer* s = find_server(id);
        if constexpr (isFloat)
            r.check(!(status & 0x00000020), "!(status&0x00000020)");
        else
            r.check(!(status & 0x00000010), "!(status&0x00000010)");
        r.check(!(status & 0x00000001), "!(status&0x00000001)");
        if constexpr (Semicont)
            r.check(!(status & 0x00200000), "!(status&0x00200000)");
        else
            r.check(!(status & 0x00400000), "!(status&0x00400000)");
        r.check(nStates <= 0, "nStates<=0");
        if constexpr (Semicont)
            r.check(nSymbols <= 0, "nSymbols<=0");
        r.check(s->nQuant <= 0, "ser->nQuant<=0");
        r.check(tp == nullptr, "tprob==0");
        r.check(ip == nullptr, "iprob==0");
        r.check(s->outPdfs == nullptr, "ser->outPdfs==0");
        if (Report::failed())
            return false;
        if (!area.reserve(nStates)) {
            r.raise(QX_StsNoMem, "NULL pointer");
            return false;
        }
        if (Semicont && table == nullptr && !build_table(s))
            return false;
        const int topo = status & (kBand | kLeftRight);
        std::int32_t* cells = area.scores(tp, isFloat ? 0 : 2);
        if (!isFloat && topo == kBand)
            cells[-1] = cells[-2] = kLargestId;
        C* sc = reinterpret_cast<C*>(cells);
        C* other = sc + area.capacity();
        C* cost = other + area.capacity();
        const int nQuant = s->nQuant;
        // Weights are read with the codebook's width, which all members share.
        const int width = nSymbols < tableSymbols ? nSymbols : tableSymbols;
        auto rows = [&](int t) -> const C* {
            for (int j = nStates - 1; j >= 0; --j) {
                double p;
                if constexpr (Semicont) {
                    const In* w = static_cast<const In*>(op) + static_cast<std::size_t>(j) * nSymbols;
                    const In* g = table + static_cast<std::size_t>(t) * tableSymbols;
                    if constexpr (isFloat) {
                        p = QXsDotP(w, g, width);
                    } else {
                        int scratch = 0;
                        p = QXwDotP(w, g, width, 0, &scratch);
                    }
                } else {
                    p = mixture_density(s->outPdfs[j], nqVect[t], nQuant);
                }
                if (Report::failed())
                    return nullptr;
                if constexpr (isFloat) {
                    cost[j] = static_cast<float>(-decimal_log(p));
                } else {
                    cost[j] = QXdiConvertDown(kCostOffset - decimal_log(p), 1, s->costScaleFactor);
                    if (Report::failed())
                        return nullptr;
                }
            }
            return cost;
        };
        bool ok;
        score = viterbi<C>(topo, nStates, static_cast<const C*>(tp), static_cast<const C*>(ip), nObserv, rows, sc,
                           other, ok);
        if (!ok)
            r.raise(QX_StsBackTrace, "");
        return ok;
    };
    return over_servers<C>(r, HMMOrClassId, bestHMMId, worst<C>(), body);
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
    c->flags = qx::kClassStart;
    // The smallest id above the run of consecutive ids from the head.
    qx::HMMClass* after = qx::class_head();
    while (after->next != qx::class_head() && after->next->classId == after->classId + 1)
        after = after->next;
    c->classId = after->classId + 1;
    c->prev = after;
    c->next = after->next;
    after->next->prev = c;
    after->next = c;
    ++qx::g_classCount;
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
    return qx::eval_discrete<float>(r, HMMOrClassId, vect, nObserv, bestHMMId);
}

QX_API int QXwEvalHMMViterbi(int HMMOrClassId, const int* vect, int nObserv, int* bestHMMId, int doScale,
                             int* scaleFactor) {
    constexpr qx::Report r{"QXwEvalHMMViterbi"};
    const std::int32_t best = qx::eval_discrete<std::int32_t>(r, HMMOrClassId, vect, nObserv, bestHMMId);
    return qx::scale_result(best, doScale, scaleFactor);
}

QX_API float QXsEvalContHMMViterbi(int HMMOrClassId, float** nqVect, int nObserv, int* bestHMMId) {
    constexpr qx::Report r{"QXsEvalContHMMViterbi"};
    return qx::eval_mixture<float, false>(r, HMMOrClassId, nqVect, nObserv, bestHMMId);
}

QX_API int QXwEvalContHMMViterbi(int HMMOrClassId, short** nqVect, int nObserv, int* bestHMMId, int doScale,
                                 int* scaleFactor) {
    constexpr qx::Report r{"QXwEvalContHMMViterbi"};
    const std::int32_t best = qx::eval_mixture<short, false>(r, HMMOrClassId, nqVect, nObserv, bestHMMId);
    return qx::scale_result(best, doScale, scaleFactor);
}

QX_API float QXsEvalSemicontHMMViterbi(int HMMOrClassId, float** nqVect, int nObserv, int* bestHMMId) {
    constexpr qx::Report r{"QXsEvalSemicontHMMViterbi"};
    return qx::eval_mixture<float, true>(r, HMMOrClassId, nqVect, nObserv, bestHMMId);
}

QX_API int QXwEvalSemicontHMMViterbi(int HMMOrClassId, short** nqVect, int nObserv, int* bestHMMId, int doScale,
                                     int* scaleFactor) {
    constexpr qx::Report r{"QXwEvalSemicontHMMViterbi"};
    const std::int32_t best = qx::eval_mixture<short, true>(r, HMMOrClassId, nqVect, nObserv, bestHMMId);
    return qx::scale_result(best, doScale, scaleFactor);
}

}  // extern "C"
