// The working context: the one process-wide record of the signal front end's
// cached tables and scratch buffers (FFT tables, window coefficient caches,
// pre-emphasis, cepstrum and cosine-transform buffers). It is all zero when the
// library is loaded; routines fill it on first use, and only the release
// routines (QXFreeFftTbls, QXsFreeWin...Tbls, QXFreePreemphasizeTbls, the
// filter-bank release) give its memory back. Fields keep the documented order.
//
// Table slots hold the address returned by the allocator (for release); the
// routines hand out the first 32-byte boundary inside it (qx::align32). Each
// set of 32 per-order slots is followed by a spare slot that stays null: the
// table of order 31 looks there for a cached table of order 32.
#pragma once

namespace qx {

// Per-length coefficient cache of one window kind.
struct WinCache {
    int cursor;            // slot used last
    int count;             // slots in use
    int lengths[16];
    void* tables[16];
};

struct WinBlock {
    int buffCap;           // capacity of buff in floats
    float* buff;           // conversion buffer of the short-data window
    WinCache sCache;       // float coefficient tables
    WinCache wCache;       // short tables: released, never filled
    int unused[64];
};

enum WinKind { kHamming = 0, kHanning = 1, kBartlett = 2, kBlackman = 3 };

struct Context {
    int preemphCap;        // pre-emphasis buffer, in floats
    float* preemphBuf;

    WinBlock win[4];       // Hamming, Hanning, Bartlett, Blackman

    void* wTwd[33];        // fixed-point twiddle tables, orders 0..31 (+ spare)
    void* second[33];      // released by QXFreeFftTbls, filled by nothing
    void* cTwd[33];        // complex float twiddle tables
    void* bitRev[33];      // bit-reversal tables
    void* rTwd[33];        // real-transform twiddle tables

    struct {
        void* iBuffer;     // 32-bit fixed-point scratch (allocated address)
        void* sBuffer;     // float scratch (allocated address)
        int iBufferCap;    // elements
        int sBufferCap;    // elements
    } Fft;

    struct {
        double* sstoredDctFactor;  // nCoefficients x n cosine factors
        int n;
        int nCoefficients;
        double c0;
        double c1;
    } Dct;

    struct {
        double* filterOutput;      // nBandPass doubles
        float* fftOut;             // n/2 + 1 complex floats
        float* tempVect;           // n floats (short form)
        float* tempCeps;           // nCeps floats (short form)
    } Ceps;
};

// The single working context (pQXcontext): all zero at load, filled on first use.
inline Context* context() noexcept {
    static Context pQXcontext;
    return &pQXcontext;
}

}  // namespace qx
