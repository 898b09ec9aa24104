// Library and processor information.
#include <cstdio>
#include <cstring>

#include "kvxpx.h"
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
