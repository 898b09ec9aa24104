// HMM servers and classes: the records of the two registries and the internal
// routines that the evaluations share. Nothing here is exported.
#pragma once

#include <cstdint>

#include "kvxpx.h"

namespace qx {

// One registered model. Float servers store float costs; 16-bit servers store
// their values widened to 32-bit ints (the semicontinuous weights stay 16-bit,
// since they feed the 16-bit dot product).
//
// Storage of the copied arrays:
//   tprob   by target state: band    3 per state  (a[j][j], a[j-1][j], a[j-2][j]),
//                            left-to-right  j+1 per state (a[0][j] .. a[j][j]),
//                            full     nStates per state (a[0][j] .. a[N-1][j]);
//   oprob   discrete: by symbol, nSymbols vectors of nStates costs;
//           semicontinuous: by state, nStates rows of nSymbols weights;
//   iprob   nStates values.
struct HMMServer {
    int HMMId;
    int word;              // the first word the getter returns (0 from the inits)
    int nStates;
    int nSymbols;
    void* tprob;
    void* oprob;
    void* iprob;
    HMMServer* next;
    HMMServer* prev;
    int status;
    void* extra;           // further block released with the server (unused: null)
    void** outPdfs;        // mixture servers: one per state, or the codebook
    int nQuant;
    int* costScaleFactor;  // 16-bit continuous and semicontinuous
};

constexpr int kClassBlockSize = 64;
constexpr int kLargestId = 0x1FFFFFFF;   // the largest id of the last block

struct HMMClassEntry {
    int HMMId;
    HMMServer* server;
};

// Members sorted by ascending HMMId in a chain of blocks; a block holds the
// ids up to its largestId (the ids above the previous block's).
struct HMMClassBlock {
    int classId;
    HMMClassBlock* next;
    int largestId;
    int count;
    HMMClassEntry entries[kClassBlockSize];
};

constexpr std::uint32_t kClassStart = 0x80000000u;      // iteration not begun
constexpr std::uint32_t kClassExhausted = 0x40000000u;  // iteration at its end
constexpr std::uint32_t kClassMemberMask = 0x00E000F3u;  // flavour, data type, low bits

struct HMMClass {
    int classId;
    int count;
    std::uint32_t flags;
    HMMClassBlock* first;
    HMMClassBlock* current;
    int index;
    HMMClass* next;
    HMMClass* prev;
};

}  // namespace qx

// Registry access for the library's own evaluations and the tests. These keep
// the library's naming but are not exported.
qx::HMMServer* QXHMMServer(int HMMId);
qx::HMMClass* QXHMMClass(int classId);
int QXResetHMMClass(int classId);
int QXNextHMMServer(int classId);
// A negative nStates, nSymbols or status keeps the server's value; tprob,
// outTable and iprob are the caller's row arrays (float** or short** by the
// status's data type), or null to keep the stored ones.
int QXSetHMMServerParm(int HMMId, int word, void* tprob, void* outTable, void* iprob, int nStates, int nSymbols,
                       int status);
int QXGetHMMServerParm(int HMMId, int* word, void** tprob, void** outTable, void** iprob, int* nStates,
                       int* nSymbols, int* status);
