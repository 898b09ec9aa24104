// The README's sample of the console handler's output is what the library
// prints for the call it describes.
#include <fstream>
#include <sstream>
#include <string>

#include "kvx_test.h"

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

// The first fenced block after `marker` in the README, without its fences.
std::string readme_block_after(const std::string& marker) {
    std::ifstream in(std::string(KVX_SOURCE_DIR) + "/README.md", std::ios::binary);
    std::stringstream all;
    all << in.rdbuf();
    const std::string text = all.str();
    std::size_t at = text.find(marker);
    if (at == std::string::npos)
        return "<marker not found: " + marker + ">";
    std::size_t open = text.find("```\n", at);
    std::size_t close = text.find("```\n", open + 4);
    if (open == std::string::npos || close == std::string::npos)
        return "<no fenced block after the marker>";
    return text.substr(open + 4, close - open - 4);
}

}  // namespace

class Readme : public kvxtest::LibTest {};

TEST_F(Readme, ConsoleErrorSampleIsTheLibrarysOutput) {
    QXSetStdError();
    CaptureStderr();
    EXPECT_EQ(QXsAlloc2(0, 4), nullptr);
    const std::string printed = GetCapturedStderr();
    EXPECT_EQ(readme_block_after("writes to standard error, for example"), printed)
        << "update the sample in README.md to the output above";
}
