// Library and processor information.
#include <cstdlib>
#include <cstring>
#include <tuple>

#include "kvx_test.h"
#include "qx_cpu.h"
#include "qx_info.h"

TEST(Info, NameAndRecord) {
    EXPECT_STREQ(QXGetSpecificLibraryName(), "kvxpx.dll");
    QXLibraryInfo info{};
    EXPECT_EQ(QXGetLibraryInfo(&info), &info);
    EXPECT_EQ(std::make_tuple(info.version, info.release, info.build), std::make_tuple(3, 1, 4));
}

// Families below 4 have no model, stepping or brackets; MMX makes a family-5
// part a P55C; only the low 16 bits of the signature count.
TEST(Info, ProcessorDescriptions) {
    const struct { unsigned signature, features; int family, model, stepping; const char* text; } cases[] = {
        {0x02C, ~0u, 0, 0, 0, "i086/i088"}, {0x12C, ~0u, 1, 0, 0, ""}, {0x22C, ~0u, 2, 0, 0, "i286"},
        {0x32C, ~0u, 3, 0, 0, "i386"},
        {0x52C, 0, 5, 2, 12, "Pentium [model 2, stepping 12]"},
        {0x543, 0x800000, 55, 4, 3, "P55C [model 4, stepping 3]"},
        {0x0FFF0000u | 0x4A1, 0, 4, 10, 1, "i486 [model 10, stepping 1]"},
        {0x633, 0x800000, 6, 3, 3, "Pentium Pro [model 3, stepping 3]"},   // family 6 ignores the MMX flag
        {0xF21, 0x800000, 15, 2, 1, "x86 family 15 [model 2, stepping 1]"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        QXProcessorInfo p;
        std::memset(&p, 0x55, sizeof p);
        qx::describe_processor(c.signature, c.features, &p);
        EXPECT_EQ(std::make_tuple(p.family, p.model, p.stepping), std::make_tuple(c.family, c.model, c.stepping));
        EXPECT_STREQ(p.text, c.text);
    }
}

TEST(Info, ThisProcessor) {
    QXProcessorInfo p{};
    QXGetProcessorInfo(&p);
    EXPECT_GE(p.family, 0);
    EXPECT_GT(std::strlen(p.text), 0u);
    EXPECT_LT(std::strlen(p.text), sizeof p.text);
}

// The kernel path: what KVX_CPU asks for, never more than the processor has.
TEST(Dispatch, TheEnvironmentLowersThePathAndForcingNeverExceedsTheProcessor) {
    using qx::cpu::Path;
    const Path have = qx::cpu::supported();
    Path asked = have;
    const bool lowered = qx::cpu::parse(std::getenv("KVX_CPU"), &asked) && asked < have;
    EXPECT_EQ(qx::cpu::path(), lowered ? asked : have);

    const Path was = qx::cpu::path();
    for (Path p : {Path::plain, Path::avx2, Path::avx512}) {
        qx::cpu::force(p);
        EXPECT_EQ(qx::cpu::path(), p < have ? p : have);
    }
    qx::cpu::force(was);

    const struct {
        const char* name;
        bool known;
        Path path;
    } kNames[] = {{"plain", true, Path::plain}, {"avx2", true, Path::avx2}, {"avx512", true, Path::avx512},
                  {"AVX2", false, Path::plain}, {"", false, Path::plain},       {nullptr, false, Path::plain}};
    for (const auto& n : kNames) {
        Path p = Path::plain;
        EXPECT_EQ(qx::cpu::parse(n.name, &p), n.known) << (n.name ? n.name : "(null)");
        EXPECT_EQ(p, n.path) << (n.name ? n.name : "(null)");
    }
}
