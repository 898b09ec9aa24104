// Reporting for every exported function: argument checks in their fixed order,
// the status test, and the reports of memory exhaustion, overflow and traces.
//
//   constexpr qx::Report r{"QXybAdd2"};
//   r.scaling(doScale, scaleFactor);
//   r.checks(n, {{srcA, "srcA==0"}, {srcB, "srcB==0"}});  // "n<=0", then each null
//   if (qx::Report::failed())
//       return QXGetStatus();
//
// That is the one spelling: a local `constexpr qx::Report r` per exported
// function (a second local of another name where a report goes out under
// another function's name), and `qx::Report::failed()` for the status test.
// A function that departs from "checks, then the status test" says so where
// it is defined.
// A Report carries the function name exactly as the messages spell it (odd
// names and trailing blanks included). The raising line and file come from
// std::source_location at the call site, so every report names its true source
// line and "..\LIBSRC\" plus the real file name.
#pragma once

#include <initializer_list>

#include <version>
#if defined(__cpp_lib_source_location)
#include <source_location>
#endif

#include "kvxpx.h"

namespace qx {

// The two-button question of QXWinError (a message box on Windows, the
// terminal elsewhere): text, caption and message-box style in, the answer out
// (1 OK, 2 Cancel, 6 Yes, 7 No). set_question installs a replacement (null
// restores the platform's) and returns the one it replaces; tests answer with
// it so that no box waits for a person.
using Question = int (*)(const char* text, const char* caption, unsigned style);
Question set_question(Question question) noexcept;

#if defined(__cpp_lib_source_location)
using where = std::source_location;
#else
// For compilers whose standard library lacks std::source_location (clang 14
// with libstdc++ 12): the same two members, filled in at the call site by the
// builtins every GCC-compatible compiler has.
struct where {
    static constexpr where current(const char* file = __builtin_FILE(), int line = __builtin_LINE()) noexcept {
        where w;
        w.file_ = file;
        w.line_ = line;
        return w;
    }
    constexpr const char* file_name() const noexcept { return file_; }
    constexpr unsigned line() const noexcept { return static_cast<unsigned>(line_); }

private:
    const char* file_ = "";
    int line_ = 0;
};
#endif

// "..\LIBSRC\<file name>" for the path the compiler recorded.
const char* libsrc_path(const char* compiledPath) noexcept;

// The library's message buffer: the text of the most recent report, and the
// place where formatted messages ("Unknown value %3d for doScale", ...) are
// built. Later trace reports quote it as "the current message".
const char* current_message() noexcept;

class Report {
public:
    constexpr explicit Report(const char* name) noexcept : name_(name) {}

    constexpr const char* name() const noexcept { return name_; }

    // Reports `code` with `text` through QXError; returns the handler's result.
    int raise(int code, const char* text, where loc = where::current()) const noexcept;

    // printf-style text formatted into the message buffer, then raised.
    int raisef(int code, where loc, const char* format, ...) const noexcept
        __attribute__((format(printf, 4, 5)));

    // One argument check: reports -5 with `text` when `failed`. Returns `failed`.
    bool check(bool failed, const char* text, where loc = where::current()) const noexcept {
        if (failed) [[unlikely]]
            raise(QX_StsBadArg, text, loc);
        return failed;
    }

    // A pointer argument and the condition text reported when it is null.
    struct Pointer {
        const void* p;
        const char* text;
    };

    // The usual vector checks in one call: "n<=0" when n is not positive, then
    // each null pointer's text, in the order given. Returns whether any failed.
    bool checks(int n, std::initializer_list<Pointer> pointers, where loc = where::current()) const noexcept {
        bool failed = check(n <= 0, "n<=0", loc);
        for (const Pointer& q : pointers)
            failed |= check(q.p == nullptr, q.text, loc);
        return failed;
    }

    // The scaling checks shared by every integer routine, in their order:
    // "doScale<0", "doScale>3", "scaleFactor==0", and only for doScale 1 with
    // a pointer: "*scaleFactor<-64", "*scaleFactor>64".
    void scaling(int doScale, const int* scaleFactor, where loc = where::current()) const noexcept;

    // Overflow (-20) then underflow (-21), each with an empty condition text.
    // Returns the last handler result, or `ok` when neither happened.
    int range(bool overflow, bool underflow, int ok = 0, where loc = where::current()) const noexcept;

    // True when an error is pending (the status word is negative).
    static bool failed() noexcept { return QXGetStatus() < 0; }

private:
    const char* name_;
};

}  // namespace qx
