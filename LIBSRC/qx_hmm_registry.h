// The HMM registries: the process-wide lists of servers and classes, class
// membership in blocks, and the release of records. Nothing here reports;
// the operations that can fail (adding a member, a count gone wrong) stay with
// the exported functions in QX_HMM.cpp, whose reports name that file.
//
// Servers and classes live in two circular lists sorted by id, each through a
// head record of id 0. Server ids are handed out densely (the smallest free id
// above the run of consecutive ids that starts at the head, tracked by a
// cursor). A class keeps its members sorted by id in a chain of 64-entry
// blocks, and carries one iteration over them.
#pragma once

#include <cstring>

#include "qx_alloc.h"
#include "qx_hmm.h"

namespace qx {

// ---------------------------------------------------------------------------
// Registries
// ---------------------------------------------------------------------------

inline HMMServer g_serverHead{};
inline HMMServer* g_cursor = nullptr;   // the record that ends the run of ids 1, 2, ... from the head
inline int g_serverCount = 0;

inline HMMClass g_classHead{};
inline int g_classCount = 0;

inline HMMServer* server_head() {
    if (g_serverHead.next == nullptr) {
        g_serverHead.next = g_serverHead.prev = &g_serverHead;
        g_cursor = &g_serverHead;
    }
    return &g_serverHead;
}

inline HMMClass* class_head() {
    if (g_classHead.next == nullptr)
        g_classHead.next = g_classHead.prev = &g_classHead;
    return &g_classHead;
}

// The record of `id` in a circular list sorted by id (its member `idOf`), or
// null.
template <class R>
R* find_in(R* head, int R::*idOf, int id) {
    for (R* p = head->next; p != head; p = p->next) {
        if (p->*idOf == id)
            return p;
        if (p->*idOf > id)
            break;
    }
    return nullptr;
}

inline HMMServer* find_server(int id) { return find_in(server_head(), &HMMServer::HMMId, id); }
inline HMMClass* find_class(int id) { return find_in(class_head(), &HMMClass::classId, id); }

// The lookup message: an unknown id, or none given (id 0).
inline const char* missing_text(int id) {
    return id != 0 ? "HMM server and/or class does not exist" : "current HMM server and/or class is not defined";
}

// Links a new record after the cursor with the cursor's id plus one, then
// moves the cursor over the run of consecutive ids that follows.
inline void link_server(HMMServer* s) {
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

// Links a new class with the smallest id above the run of consecutive ids
// from the head, at the start of its iteration, and counts it.
inline void link_class(HMMClass* c) {
    c->flags = kClassStart;
    HMMClass* after = class_head();
    while (after->next != class_head() && after->next->classId == after->classId + 1)
        after = after->next;
    c->classId = after->classId + 1;
    c->prev = after;
    c->next = after->next;
    after->next->prev = c;
    after->next = c;
    ++g_classCount;
}

// ---------------------------------------------------------------------------
// Class membership
// ---------------------------------------------------------------------------

inline HMMClassBlock* block_for(HMMClass* c, int id) {
    HMMClassBlock* b = c->first;
    while (b != nullptr && b->largestId < id && b->next != nullptr)
        b = b->next;
    return b;
}

inline int entry_position(const HMMClassBlock* b, int id) {
    int pos = 0;
    while (pos < b->count && b->entries[pos].HMMId < id)
        ++pos;
    return pos;
}

inline bool iteration_running(const HMMClass* c) { return (c->flags & (kClassStart | kClassExhausted)) == 0; }

// Moves the upper half of the full block b into the empty block nb, linked
// after it; a running iteration stays on its member.
inline void split_block(HMMClass* c, HMMClassBlock* b, HMMClassBlock* nb) {
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
}

// Inserts server s at position pos of block b (which has room); a running
// iteration stays on its member.
inline void insert_member(HMMClass* c, HMMClassBlock* b, int pos, HMMServer* s) {
    std::memmove(b->entries + pos + 1, b->entries + pos, sizeof(HMMClassEntry) * (b->count - pos));
    b->entries[pos] = HMMClassEntry{s->HMMId, s};
    ++b->count;
    ++c->count;
    if (iteration_running(c) && c->current == b && pos <= c->index)
        ++c->index;   // the iteration stays on its member
}

inline void remove_member(HMMClass* c, int id) {
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

// The next member of the class's iteration (the first after a reset), or 0
// once it is exhausted.
inline int next_member(HMMClass* c) {
    if (c->flags & kClassExhausted)
        return 0;
    if (c->flags & kClassStart) {
        c->flags &= ~kClassStart;
        c->current = c->first;
        c->index = 0;
        if (c->current != nullptr)
            return c->current->entries[0].HMMId;
    }
    if (c->current == nullptr) {
        c->flags |= kClassExhausted;
        return 0;
    }
    if (c->index < c->current->count - 1) {
        ++c->index;
    } else {
        c->current = c->current->next;
        c->index = 0;
        if (c->current == nullptr) {
            c->flags |= kClassExhausted;
            return 0;
        }
    }
    return c->current->entries[c->index].HMMId;
}

inline void release_class(HMMClass* c) {
    for (HMMClassBlock* b = c->first; b != nullptr;) {
        HMMClassBlock* n = b->next;
        qx::free(b);
        b = n;
    }
    qx::free(c);
}

inline void release_arrays(HMMServer* s) {
    qx::free(s->tprob);
    qx::free(s->oprob);
    qx::free(s->iprob);
    qx::free(s->extra);
    qx::free(s->outPdfs);
}

}  // namespace qx
