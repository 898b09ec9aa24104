// Library and processor information.
#include <cstdio>
#include <cstring>

#include <cstdlib>

#include "kvxpx.h"
#include "qx_cpu.h"
#include "qx_info.h"

#if defined(__i386__) || defined(__x86_64__)
#  if defined(_MSC_VER)
#    include <intrin.h>
#  else
#    include <cpuid.h>
#  endif
#endif

namespace qx {

void describe_processor(unsigned signature, unsigned features, QXProcessorInfo* info) noexcept {
    static const char* const kFamilyNames[] = {"i086/i088", "", "i286", "i386", "i486", "Pentium", "Pentium Pro"};
    const unsigned sig = signature & 0xFFFFu;
    int family = static_cast<int>((sig & 0xF00u) >> 8);
    info->family = family;
    char other[32];
    const char* name = other;
    if (family <= 6) {
        name = kFamilyNames[family];
    } else {
        // Families past the table get a name of their own.
        std::snprintf(other, sizeof other, "x86 family %d", family);
    }
    if (family < 4) {
        info->model = 0;
        info->stepping = 0;
        std::snprintf(info->text, sizeof info->text, "%s", name);
        return;
    }
    info->model = static_cast<int>((sig & 0xF0u) >> 4);
    info->stepping = static_cast<int>(sig & 0xFu);
    if (family == 5 && (features & 0x800000u) != 0) {
        name = "P55C";
        info->family = 55;
    }
    std::snprintf(info->text, sizeof info->text, "%s [model %d, stepping %d]", name, info->model, info->stepping);
}

bool read_cpuid(unsigned* signature, unsigned* features) noexcept {
#if (defined(__i386__) || defined(__x86_64__)) && !defined(_MSC_VER)
    unsigned a = 0, b = 0, c = 0, d = 0;
    if (__get_cpuid(1, &a, &b, &c, &d) == 0)
        return false;
    *signature = a;
    *features = d;
    return true;
#elif (defined(_M_IX86) || defined(_M_X64)) && defined(_MSC_VER)
    int regs[4];
    __cpuid(regs, 1);
    *signature = static_cast<unsigned>(regs[0]);
    *features = static_cast<unsigned>(regs[3]);
    return true;
#else
    (void)signature;
    (void)features;
    return false;
#endif
}

}  // namespace qx

namespace qx::cpu {

namespace {

#if QX_X86_PATHS
// The extended control register: which register states the system saves.
unsigned long long xcr0() noexcept {
    unsigned lo = 0, hi = 0;
    __asm__ volatile("xgetbv" : "=a"(lo), "=d"(hi) : "c"(0));
    return (static_cast<unsigned long long>(hi) << 32) | lo;
}
#endif

Path probe() noexcept {
#if QX_X86_PATHS
    unsigned a = 0, b = 0, c = 0, d = 0;
    if (__get_cpuid(1, &a, &b, &c, &d) == 0)
        return Path::plain;
    const bool osxsave = (c >> 27) & 1u, avx = (c >> 28) & 1u, fma = (c >> 12) & 1u;
    if (!osxsave || !avx || !fma)  // every processor with AVX2 has FMA; its kernels may use both
        return Path::plain;
    const unsigned long long xcr = xcr0();
    if ((xcr & 0x6u) != 0x6u)  // SSE and AVX state
        return Path::plain;
    if (__get_cpuid_max(0, nullptr) < 7)
        return Path::plain;
    __cpuid_count(7, 0, a, b, c, d);
    if (((b >> 5) & 1u) == 0)  // AVX2
        return Path::plain;
    const bool avx512 = ((b >> 16) & 1u) && ((b >> 30) & 1u);  // F and BW
    if (avx512 && (xcr & 0xE6u) == 0xE6u)                      // opmask and upper registers too
        return Path::avx512;
    return Path::avx2;
#else
    return Path::plain;
#endif
}

}  // namespace

Path supported() noexcept {
    static const Path p = probe();
    return p;
}

bool parse(const char* name, Path* p) noexcept {
    if (name == nullptr)
        return false;
    static const struct {
        const char* name;
        Path path;
    } kNames[] = {{"plain", Path::plain}, {"avx2", Path::avx2}, {"avx512", Path::avx512}};
    for (const auto& n : kNames)
        if (std::strcmp(name, n.name) == 0) {
            *p = n.path;
            return true;
        }
    return false;
}

Path choose() noexcept {
    Path p = supported(), asked = p;
    if (parse(std::getenv("KVX_CPU"), &asked) && asked < p)
        p = asked;
    int expected = -1;
    chosen().compare_exchange_strong(expected, static_cast<int>(p), std::memory_order_relaxed);
    return static_cast<Path>(chosen().load(std::memory_order_relaxed));
}

Path force(Path p) noexcept {
    const Path before = path();
    chosen().store(static_cast<int>(p < supported() ? p : supported()), std::memory_order_relaxed);
    return before;
}

}  // namespace qx::cpu

extern "C" {

QX_API const char* QXGetSpecificLibraryName(void) { return "kvxpx.dll"; }

QX_API QXLibraryInfo* QXGetLibraryInfo(QXLibraryInfo* info) {
    if (info != nullptr) {
        info->version = KVXPX_VERSION_MAJOR;
        info->release = KVXPX_VERSION_MINOR;
        info->build = KVXPX_VERSION_PATCH;
    }
    return info;
}

QX_API void QXGetProcessorInfo(QXProcessorInfo* info) {
    if (info == nullptr)
        return;
    unsigned signature = 0, features = 0;
    if (!qx::read_cpuid(&signature, &features)) {
        // No CPUID: nothing is known about the processor.
        info->family = 0;
        info->model = 0;
        info->stepping = 0;
        std::snprintf(info->text, sizeof info->text, "unknown processor");
        return;
    }
    qx::describe_processor(signature, features, info);
}

}  // extern "C"
