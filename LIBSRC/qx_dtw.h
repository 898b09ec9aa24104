// Pattern stores and dynamic time warping: the shared internals.
//
// Pattern records. The two stores are doubly linked lists of records; the
// 16-bit record also keeps a float copy of its rows for the warping.
#pragma once

namespace qx::pattern {

// A 16-bit pattern. The rows live in rowBlock, each starting on an 8-byte
// boundary; floatRows holds the real values (short x 2^scaleFactor).
struct WRecord {
    WRecord* next;
    WRecord* prev;
    int isHead;
    int id;
    short** pSeq;
    void* rowBlock;
    float** floatRows;
    int nSeq;
    int len;
    int scaleFactor;
};

// A float pattern: its rows are a row-pointer array of the library's own.
struct SRecord {
    SRecord* next;
    SRecord* prev;
    int isHead;
    int id;
    float** pSeq;
    int nSeq;
    int len;
};

}  // namespace qx::pattern

namespace qx::dtw {

// Lowest and highest pattern index allowed at one test frame.
struct Band {
    int lo;
    int hi;
};

// Band bounds of every frame of a test of n vectors against a pattern of m
// vectors with slack delta (band holds n entries).
void band_bounds(int n, int m, int delta, Band* band) noexcept;

}  // namespace qx::dtw

// Lookup and release of single records, shared by the store functions and the
// warping. The lookups raise for an id below 1 and for an empty store.
qx::pattern::WRecord* QXwPatternPtrGet(int idPttrn);
qx::pattern::SRecord* QXsPatternPtrGet(int idPttrn);
int QXwPatternPtrFree(qx::pattern::WRecord* record);
int QXsPatternPtrFree(qx::pattern::SRecord* record);
