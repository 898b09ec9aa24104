// Library and processor information.
#include <cstdlib>
#include <cstring>

#include "kvx_test.h"
#include "qx_cpu.h"
#include "qx_info.h"

namespace {

QXProcessorInfo describe(unsigned signature, unsigned features) {
    QXProcessorInfo info;
    std::memset(&info, 0x55, sizeof info);
    qx::describe_processor(signature, features, &info);
    return info;
}

}  // namespace

TEST(Info, NameAndRecord) {
    EXPECT_STREQ(QXGetSpecificLibraryName(), "kvxpx.dll");
    QXLibraryInfo info{};
    EXPECT_EQ(QXGetLibraryInfo(&info), &info);
    EXPECT_EQ(info.version, 3);
    EXPECT_EQ(info.release, 1);
    EXPECT_EQ(info.build, 4);
}

TEST(Info, FamiliesBelowFourHaveNoModelAndNoBrackets) {
    const char* names[] = {"i086/i088", "", "i286", "i386"};
    for (unsigned f = 0; f < 4; ++f) {
        QXProcessorInfo p = describe((f << 8) | 0x2C, 0xFFFFFFFF);
        EXPECT_EQ(p.family, static_cast<int>(f));
        EXPECT_EQ(p.model, 0);
        EXPECT_EQ(p.stepping, 0);
        EXPECT_STREQ(p.text, names[f]);
    }
}

TEST(Info, LaterFamiliesCarryModelAndStepping) {
    const struct { unsigned signature, features; int family; const char* text; } cases[] = {
        {0x52C, 0, 5, "Pentium [model 2, stepping 12]"},
        {0x543, 0x800000, 55, "P55C [model 4, stepping 3]"},   // MMX on a family-5 part
        {0x0FFF0000u | 0x4A1, 0, 4, "i486 [model 10, stepping 1]"},   // only the low 16 bits count
        {0x633, 0x800000, 6, "Pentium Pro [model 3, stepping 3]"},   // family 6 ignores the MMX flag
        {0xF21, 0x800000, 15, "x86 family 15 [model 2, stepping 1]"},
    };
    for (const auto& c : cases) {
        const QXProcessorInfo p = describe(c.signature, c.features);
        EXPECT_EQ(p.family, c.family) << c.text;
        EXPECT_EQ(p.model, static_cast<int>(c.signature >> 4 & 15)) << c.text;
        EXPECT_EQ(p.stepping, static_cast<int>(c.signature & 15)) << c.text;
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
