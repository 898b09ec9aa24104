#include "kvx_test.h"

namespace kvxtest {

std::vector<Reported>& reports() {
    static std::vector<Reported> all;
    return all;
}

int capture(int code, const char* functionName, const char* conditionText, const char* sourceFile, int line) {
    reports().push_back({code, functionName ? functionName : "<null>", conditionText ? conditionText : "<null>",
                         sourceFile ? sourceFile : "<null>", line});
    if (code != QX_StsBackTrace && code != QX_StsAutoTrace)
        QXSetStatus(code);
    return code;
}

void LibTest::SetUp() {
    qx::testing::fail_allocation(0);
    QXRedirectError(capture);
    QXSetErrMode(QX_ErrorModeParent);
    clear();
}

void LibTest::TearDown() {
    qx::testing::fail_allocation(0);
    QXSetStdError();
    QXSetStatus(0);
}

void LibTest::clear() {
    reports().clear();
    QXSetStatus(0);
}

std::vector<Rep> LibTest::got() {
    std::vector<Rep> out;
    for (auto& r : reports())
        out.emplace_back(r.code, r.function, r.condition);
    return out;
}

}  // namespace kvxtest

#include <fstream>
#include <regex>

namespace kvxtest {

::testing::AssertionResult names_raising_line(const Reported& r) {
    const std::string prefix = "..\\LIBSRC\\";
    if (r.file.rfind(prefix, 0) != 0)
        return ::testing::AssertionFailure() << "file " << r.file;
    std::ifstream in(std::string(KVX_SOURCE_DIR) + "/LIBSRC/" + r.file.substr(prefix.size()));
    if (!in)
        return ::testing::AssertionFailure() << "no source " << r.file;
    std::string line;
    for (int i = 0; i < r.line && std::getline(in, line); ++i) {
    }
    if (!in)
        return ::testing::AssertionFailure() << r.file << " has no line " << r.line;
    std::string cond = r.condition;
    // Texts appear in the source with C escapes.
    std::string escaped;
    for (char c : cond) {
        if (c == '\\' || c == '"') escaped += '\\';
        if (c == '\n') { escaped += "\\n"; continue; }
        escaped += c;
    }
    // A shared helper that raises for its caller reports the caller's line,
    // which passes the Report on as the helper's first argument.
    for (const char* call : {".check(", ".checks(", ".raise(", ".raisef(", ".scaling(", ".range(", "(r, "})
        if (line.find(call) != std::string::npos)
            return ::testing::AssertionSuccess();
    if (!cond.empty() && line.find(escaped) != std::string::npos)
        return ::testing::AssertionSuccess();
    // A family generated from one table line per operation
    // (QX_ARITH_FORM2(Add, ...)) reports that line, which names the operation the
    // reported function carries after its two type letters.
    static const std::regex tableLine(R"(^\s*QX_[A-Z0-9_]+\((\w+),)");
    std::smatch m;
    if (std::regex_search(line, m, tableLine) && r.function.size() > 4 &&
        r.function.compare(4, m[1].length(), m[1].str()) == 0)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << r.file << ":" << r.line << " is '" << line << "'";
}

::testing::AssertionResult all_name_raising_lines() {
    for (const Reported& r : reports())
        if (auto named = names_raising_line(r); !named)
            return named << " (" << r.function << ": " << r.condition << ")";
    return ::testing::AssertionSuccess();
}

}  // namespace kvxtest
