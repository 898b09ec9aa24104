// Library and processor information.
#include <cstring>

#include "kvx_test.h"
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
    QXProcessorInfo p = describe(0x52C, 0);
    EXPECT_EQ(p.family, 5);
    EXPECT_EQ(p.model, 2);
    EXPECT_EQ(p.stepping, 12);
    EXPECT_STREQ(p.text, "Pentium [model 2, stepping 12]");

    p = describe(0x543, 0x800000);  // MMX on a family-5 part
    EXPECT_EQ(p.family, 55);
    EXPECT_STREQ(p.text, "P55C [model 4, stepping 3]");

    p = describe(0x0FFF0000u | 0x4A1, 0);  // only the low 16 bits count
    EXPECT_EQ(p.family, 4);
    EXPECT_STREQ(p.text, "i486 [model 10, stepping 1]");

    p = describe(0x633, 0x800000);  // family 6 ignores the MMX flag
    EXPECT_EQ(p.family, 6);
    EXPECT_STREQ(p.text, "Pentium Pro [model 3, stepping 3]");

    p = describe(0xF21, 0x800000);
    EXPECT_EQ(p.family, 15);
    EXPECT_STREQ(p.text, "x86 family 15 [model 2, stepping 1]");
}

TEST(Info, ThisProcessor) {
    QXProcessorInfo p{};
    QXGetProcessorInfo(&p);
    EXPECT_GE(p.family, 0);
    EXPECT_GT(std::strlen(p.text), 0u);
    EXPECT_LT(std::strlen(p.text), sizeof p.text);
}
