// Status word, error mode, error handlers and the reporting helper.
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kvxpx.h"
#include "qx_report.h"

#if defined(_WIN32)
#  define WIN32_LEAN_AND_MEAN
#  include <windows.h>
#else
#  include <unistd.h>
#endif

namespace {

int g_status = 0;                          // last recorded error code
int g_mode = QX_ErrorModeParent;           // 0, 1 or 2 (anything else acts as 1)
QXErrorCallback g_handler = QXStdError;    // called by QXError
char g_unknownText[64];                    // QXErrorStr's text for unknown codes
char g_message[512];                       // the library's message buffer

constexpr const char* kTerminating = "terminating the application";

}  // namespace

extern "C" {

QX_API int QXGetStatus(void) { return g_status; }
QX_API void QXSetStatus(int status) { g_status = status; }
QX_API int QXGetErrMode(void) { return g_mode; }
QX_API void QXSetErrMode(int mode) { g_mode = mode; }

QX_API int QXError(int code, const char* functionName, const char* conditionText, const char* sourceFile, int line) {
    return g_handler(code, functionName, conditionText, sourceFile, line);
}

QX_API QXErrorCallback QXRedirectError(QXErrorCallback handler) {
    QXErrorCallback previous = g_handler;
    g_handler = handler ? handler : QXStdError;
    return previous;
}

QX_API QXErrorCallback QXSetStdError(void) { return QXRedirectError(QXStdError); }
QX_API QXErrorCallback QXSetWinError(void) { return QXRedirectError(QXWinError); }

QX_API const char* QXErrorStr(int code) {
    switch (code) {
    case QX_StsOk: return "No Error";
    case QX_StsBackTrace: return "Backtrace";
    case QX_StsError: return "Unknown error";
    case QX_StsInternal: return "Internal error (bad state)";
    case QX_StsNoMem: return "Out of memory";
    case QX_StsBadArg: return "Bad argument";
    case QX_StsBadFunc: return "Unsupported function";
    case QX_StsNoConv: return "Iteration convergence failed";
    case QX_StsAutoTrace: return "Autotrace call";
    case QX_StsOverflow: return "Overflow occured";
    case QX_StsUnderflow: return "Underflow occured";
    default: break;
    }
    std::snprintf(g_unknownText, sizeof g_unknownText, "Unknown %s code %d", code < 0 ? "error" : "status", code);
    return g_unknownText;
}

QX_API int QXStdError(int code, const char* functionName, const char* conditionText, const char* sourceFile, int line) {
    const bool trace = code == QX_StsBackTrace || code == QX_StsAutoTrace;
    if (g_mode == QX_ErrorModeSilent) {
        // Silent mode exempts only -1; -8 is recorded here, unlike QXWinError.
        if (code != QX_StsBackTrace)
            g_status = code;
        return code;
    }
    if (!trace) {
        g_status = code;
        std::fprintf(stderr, "KVX Error: %s \n\tin function\n", QXErrorStr(code));
    } else {
        std::fprintf(stderr, "\tcalled from\n");
    }
    if (line > 0 || sourceFile != nullptr)
        std::fprintf(stderr, "\t[%s:%d]", sourceFile ? sourceFile : "(null)", line);
    std::fprintf(stderr, ":%s", functionName ? functionName : "<unknown>");
    if (conditionText != nullptr) {
        if (code == QX_StsAutoTrace)
            std::fprintf(stderr, "(%s)", conditionText);
        else
            std::fprintf(stderr, "():\n\t%s", conditionText);
    }
    std::fprintf(stderr, "\n");
    if (g_mode != QX_ErrorModeLeaf)
        return code;
    std::fprintf(stderr, "KVX: %s\n", kTerminating);
    std::exit(1);
}

}  // extern "C"

namespace {

constexpr unsigned kStyleOkCancel = 0x1031;  // MB_OKCANCEL | MB_ICONEXCLAMATION | MB_SYSTEMMODAL
constexpr unsigned kStyleYesNo = 0x14;       // MB_YESNO | MB_ICONHAND
constexpr int kAnswerCancel = 2, kAnswerYes = 6;  // IDCANCEL, IDYES
constexpr const char* kFatalText = "KVX:\nterminating the application";

#if defined(_WIN32)
static_assert(kStyleOkCancel == (MB_OKCANCEL | MB_ICONEXCLAMATION | MB_SYSTEMMODAL) && kStyleYesNo == (MB_YESNO | MB_ICONHAND));
static_assert(kAnswerCancel == IDCANCEL && kAnswerYes == IDYES);

// The message box itself.
int platform_question(const char* text, const char* caption, unsigned style) {
    return MessageBoxA(nullptr, text, caption, style);
}

[[noreturn]] void fatal_exit() {
    FatalAppExitA(0, kFatalText);
    std::_Exit(1);
}

// The system's formatted print into a buffer; it writes at most 1024 characters
// and the terminating null.
constexpr std::size_t kTextSize = 1025;
#define QX_FORMAT(buffer, ...) wsprintfA(buffer, __VA_ARGS__)
#else
constexpr int kAnswerOk = 1, kAnswerNo = 7;

// The two-button question on the terminal. Without a terminal, or without an
// answer, the answer is the harmless one (OK, No): a process without a user is
// never ended by this handler.
int platform_question(const char* text, const char* caption, unsigned style) {
    const bool yesNo = style == kStyleYesNo;
    std::fprintf(stderr, "%s\n%s\n", caption, text);
    if (!isatty(STDIN_FILENO)) {
        std::fflush(stderr);
        return yesNo ? kAnswerNo : kAnswerOk;
    }
    std::fprintf(stderr, yesNo ? "[y]es / [n]o? " : "[o]k / [c]ancel? ");
    std::fflush(stderr);
    char answer[32];
    if (std::fgets(answer, sizeof answer, stdin) == nullptr)
        return yesNo ? kAnswerNo : kAnswerOk;
    char c = answer[0];
    if (yesNo)
        return (c == 'y' || c == 'Y') ? kAnswerYes : kAnswerNo;
    return (c == 'c' || c == 'C') ? kAnswerCancel : kAnswerOk;
}

[[noreturn]] void fatal_exit() {
    std::fprintf(stderr, "%s\n", kFatalText);
    std::fflush(stderr);
    std::_Exit(1);
}

constexpr std::size_t kTextSize = 1000;
#define QX_FORMAT(buffer, ...) std::snprintf(buffer, sizeof buffer, __VA_ARGS__)
#endif

qx::Question g_question = nullptr;  // a replacement for the platform's question

int ask(const char* text, const char* caption, unsigned style) {
    return g_question != nullptr ? g_question(text, caption, style) : platform_question(text, caption, style);
}

}  // namespace

extern "C" QX_API int QXWinError(int code, const char* functionName, const char* conditionText, const char* sourceFile,
                                 int line) {
    const bool trace = code == QX_StsBackTrace || code == QX_StsAutoTrace;
    if (g_mode == QX_ErrorModeSilent) {
        if (!trace)
            g_status = code;
        return code;
    }
    if (conditionText == nullptr) conditionText = "";
    if (sourceFile == nullptr) sourceFile = "";
    if (line < 0) line = 0;
    if (functionName == nullptr) functionName = "<unknown>";

    char text[kTextSize];
    char caption[100];
    if (code == QX_StsBackTrace) {
        QX_FORMAT(text, "called from\n[%s:%d]:%s():\n%s", sourceFile, line, functionName, conditionText);
    } else if (code == QX_StsAutoTrace) {
        QX_FORMAT(text, "called from\n[%s:%d]:%s(%s)", sourceFile, line, functionName, conditionText);
    } else {
        g_status = code;
        QX_FORMAT(text, "in function\n[%s:%d]:%s():\n%s", sourceFile, line, functionName, conditionText);
    }
    // The caption names the recorded status, so a trace shows the last error.
    QX_FORMAT(caption, "KVX Error: %s", QXErrorStr(g_status));

    if (ask(text, caption, kStyleOkCancel) == kAnswerCancel)
        fatal_exit();
    if (g_mode != QX_ErrorModeLeaf)
        return code;
    if (ask("QXStdErrMode=QX_ErrorModeLeaf\n  Terminate the application?", caption, kStyleYesNo) == kAnswerYes)
        fatal_exit();
    return code;
}
#undef QX_FORMAT

namespace qx {

Question set_question(Question question) noexcept {
    Question previous = g_question;
    g_question = question;
    return previous;
}

const char* current_message() noexcept { return g_message; }

const char* libsrc_path(const char* compiledPath) noexcept {
    // One slot per source file, filled on first report from that file.
    struct Slot {
        const char* key;
        char path[96];
    };
    static Slot slots[64];
    static int used = 0;
    for (int i = 0; i < used; ++i)
        if (slots[i].key == compiledPath || std::strcmp(slots[i].key, compiledPath) == 0)
            return slots[i].path;
    const char* base = compiledPath;
    for (const char* p = compiledPath; *p; ++p)
        if (*p == '/' || *p == '\\')
            base = p + 1;
    if (used == 64)
        return compiledPath;
    Slot& s = slots[used++];
    s.key = compiledPath;
    std::snprintf(s.path, sizeof s.path, "..\\LIBSRC\\%s", base);
    return s.path;
}

int Report::raise(int code, const char* text, where loc) const noexcept {
    if (text != nullptr && text != g_message) {
        std::strncpy(g_message, text, sizeof g_message - 1);
        g_message[sizeof g_message - 1] = '\0';
    }
    return QXError(code, name_, text, libsrc_path(loc.file_name()), static_cast<int>(loc.line()));
}

int Report::raisef(int code, where loc, const char* format, ...) const noexcept {
    std::va_list args;
    va_start(args, format);
    std::vsnprintf(g_message, sizeof g_message, format, args);
    va_end(args);
    return raise(code, g_message, loc);
}

void Report::scaling(int doScale, const int* scaleFactor, where loc) const noexcept {
    check(doScale < 0, "doScale<0", loc);
    check(doScale > 3, "doScale>3", loc);
    check(scaleFactor == nullptr, "scaleFactor==0", loc);
    if (doScale == 1 && scaleFactor != nullptr) {
        check(*scaleFactor < -64, "*scaleFactor<-64", loc);
        check(*scaleFactor > 64, "*scaleFactor>64", loc);
    }
}

int Report::range(bool overflow, bool underflow, int ok, where loc) const noexcept {
    int result = ok;
    if (overflow)
        result = raise(QX_StsOverflow, "", loc);
    if (underflow)
        result = raise(QX_StsUnderflow, "", loc);
    return result;
}

}  // namespace qx
