// The one choice of kernel path for the whole library.
//
// One processor probe (CPUID and the operating system's saved register
// state, never ifunc or compiler resolvers, so the same code works in a
// Windows DLL) decides, once, the widest path the processor can run: the
// plain loops, AVX2 or AVX-512 (F and BW). Every family asks `at_least()`
// before it takes a vector path, and every vector path gives exactly the
// bits of its plain twin, so the choice changes speed only.
//
// The environment variable KVX_CPU (plain, avx2 or avx512), read at the first
// call, lowers the path; asking for more than the processor has gives what it
// has. Tests lower it with force() to run every path on the same inputs.
#pragma once

#include <atomic>

namespace qx::cpu {

enum class Path : int { plain = 0, avx2 = 1, avx512 = 2 };

// What the processor and operating system can run (probed once).
Path supported() noexcept;

// Probes, applies KVX_CPU and returns the path in force; called once.
Path choose() noexcept;

inline std::atomic<int>& chosen() noexcept {
    static std::atomic<int> path{-1};
    return path;
}

// The path every family uses.
inline Path path() noexcept {
    const int p = chosen().load(std::memory_order_relaxed);
    return p >= 0 ? static_cast<Path>(p) : choose();
}

inline bool at_least(Path p) noexcept { return path() >= p; }

// Uses at most `p` (no more than the processor has) from now on; returns the
// path that was in force.
Path force(Path p) noexcept;

// The path KVX_CPU names (nullptr or an unknown name: nothing asked).
bool parse(const char* name, Path* p) noexcept;

}  // namespace qx::cpu

// The attributes that compile one function for a vector path. A body written
// once as an inline template and instantiated under each attribute gives the
// path twins; they differ in instruction width only.
#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
#define QX_X86_PATHS 1
#define QX_TARGET_AVX2 __attribute__((target("avx2")))
#define QX_TARGET_AVX512 __attribute__((target("avx512f,avx512bw")))
#else
#define QX_X86_PATHS 0
#define QX_TARGET_AVX2
#define QX_TARGET_AVX512
#endif

// `name(params)` runs `name##_body(args)`, compiled for AVX2 when that path is
// chosen and plainly otherwise: the same operations in the same order (no
// fused multiply-add: the library is built without contraction).
#if QX_X86_PATHS
#define QX_AVX2_TWIN(name, params, args)                                          \
    QX_TARGET_AVX2 void name##_avx2 params noexcept { name##_body args; }         \
    void name params noexcept {                                                   \
        if (qx::cpu::at_least(qx::cpu::Path::avx2))                               \
            name##_avx2 args;                                                     \
        else                                                                      \
            name##_body args;                                                     \
    }
#else
#define QX_AVX2_TWIN(name, params, args) \
    void name params noexcept { name##_body args; }
#endif
