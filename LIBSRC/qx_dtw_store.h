// The pattern stores' list machinery: lookup, new ids, linking and release.
// Nothing here reports; the store functions in QX_DTW.cpp raise for it.
//
// Each store is a doubly linked list of records in order of creation plus a
// count; ids are the smallest positive integers not in use in that store.
#pragma once

#include "qx_alloc.h"
#include "qx_dtw.h"

namespace qx::pattern {

template <class Record>
struct Store {
    Record* head = nullptr;
    int count = 0;
};

// Releases a row-pointer array from QXsAlloc2 directly, so that a record is
// released completely even while an error is pending.
inline void release_rows(float** rows, int nRows) noexcept {
    if (rows == nullptr)
        return;
    for (int k = nRows - 1; k >= 0; --k)
        qx::free(rows[k]);
    qx::free(rows);
}

inline void release(WRecord* rec) noexcept {
    release_rows(rec->floatRows, rec->nSeq);
    qx::free(rec->rowBlock);
    qx::free(rec->pSeq);
    qx::free(rec);
}

inline void release(SRecord* rec) noexcept {
    release_rows(rec->pSeq, rec->nSeq);
    qx::free(rec);
}

template <class Record>
Record* find(const Store<Record>& st, int idPttrn) noexcept {
    for (auto* r = st.head; r != nullptr; r = r->next)
        if (r->id == idPttrn)
            return r;
    return nullptr;
}

// Smallest positive id that names no record (the count is already raised).
template <class Record>
int new_id(const Store<Record>& st) noexcept {
    if (st.head == nullptr)
        return 1;
    for (int id = 1; id <= st.count; ++id)
        if (find(st, id) == nullptr)
            return id;
    return st.count + 1;
}

// Counts a new record and gives it its id; returns the id.
template <class Record>
int enter(Store<Record>& st, Record* rec) noexcept {
    ++st.count;
    rec->id = new_id(st);
    return rec->id;
}

// Links an entered record at the tail.
template <class Record>
void link(Store<Record>& st, Record* rec) noexcept {
    if (st.head == nullptr) {
        rec->isHead = 1;
        st.head = rec;
        return;
    }
    auto* last = st.head;
    while (last->next != nullptr)
        last = last->next;
    last->next = rec;
    rec->prev = last;
}

// Unlinks a record, uncounts it and releases it.
template <class Record>
void remove(Store<Record>& st, Record* rec) noexcept {
    if (!rec->isHead) {
        if (rec->prev != nullptr)
            rec->prev->next = rec->next;
        if (rec->next != nullptr)
            rec->next->prev = rec->prev;
    } else if (rec->next != nullptr) {
        rec->next->isHead = 1;
        rec->next->prev = nullptr;
        st.head = rec->next;
    } else {
        st.head = nullptr;
    }
    --st.count;
    release(rec);
}

}  // namespace qx::pattern
