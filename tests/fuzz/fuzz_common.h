// Shared pieces of the fuzz targets: ints as a hostile caller passes them,
// buffers sized from the arguments with guard zones around them, and the run
// of one input on the plain kernel path and on the widest the processor has,
// whose outcomes must agree byte for byte.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "kvxpx.h"
#include "qx_cpu.h"

namespace kvxfuzz {

// The most elements any one buffer gets; a call whose arguments ask for more
// is not made.
constexpr long long kCap = 1 << 14;
constexpr std::size_t kGuard = 64;

[[noreturn]] inline void fail(const char* what) {
    std::fprintf(stderr, "kvx fuzz: %s\n", what);
    std::abort();
}

// Mostly small values and the boundaries where arithmetic on an int breaks.
inline int any_int(FuzzedDataProvider& in) {
    static constexpr int edges[] = {0, 1, -1, 2, 3, 7, 8, 15, 16, 31, 32, 33, 63, 64, 65, -31, -32, -33, -63, -64,
                                    -65, INT_MIN, INT_MIN + 1, INT_MAX, INT_MAX - 1, INT_MAX / 2, INT_MIN / 2,
                                    INT_MIN / 2 - 1, 0x3FFFFFFF, 0x40000000, -0x40000001, 32767, 32768, -32768,
                                    -32769, 65535, 65536, 0x7FFFFFF8};
    switch (in.ConsumeIntegralInRange<int>(0, 3)) {
    case 0: return in.PickValueInArray(edges);
    case 1: return in.ConsumeIntegralInRange<int>(-4, 40);
    case 2: return in.ConsumeIntegralInRange<int>(-4, 600);
    default: return in.ConsumeIntegral<int>();
    }
}

// A small count (sizes of things that multiply), or a hostile int.
inline int small_or_any(FuzzedDataProvider& in) {
    return in.ConsumeBool() ? in.ConsumeIntegralInRange<int>(-2, 12) : any_int(in);
}

// 0..3 mostly, sometimes anything.
inline int do_scale(FuzzedDataProvider& in) {
    return in.ConsumeIntegralInRange<int>(0, 7) < 7 ? in.ConsumeIntegralInRange<int>(0, 3) : any_int(in);
}

inline long long count_of(long long want) { return want > 0 ? want : 0; }

// A heap block of `bytes` with guard zones before and after; the content
// comes from the fuzzer (then a fixed pattern).
class Buf {
public:
    Buf(FuzzedDataProvider& in, long long bytes) : bytes_(static_cast<std::size_t>(count_of(bytes))) {
        raw_.assign(bytes_ + 2 * kGuard, 0x5A);
        std::vector<std::uint8_t> d = in.ConsumeBytes<std::uint8_t>(bytes_);
        if (!d.empty()) std::memcpy(body(), d.data(), d.size());
        std::memset(body() + d.size(), 0xA5, bytes_ - d.size());
        before_ = raw_;
    }
    std::uint8_t* body() { return raw_.data() + kGuard; }
    const std::uint8_t* body() const { return raw_.data() + kGuard; }
    template <class T> T* as() { return reinterpret_cast<T*>(body()); }
    std::size_t bytes() const { return bytes_; }

    // Nothing at all changed (an input).
    void unchanged() const {
        if (raw_ != before_) fail("an input buffer changed");
    }
    // Only the `n` elements of `bits` bits from element position `first`
    // (counted from the top bit of the first byte) changed.
    void only(int bits, long long first, long long n) const {
        for (std::size_t i = 0; i < raw_.size(); ++i) {
            const std::uint8_t diff = raw_[i] ^ before_[i];
            if (diff == 0) continue;
            if (i < kGuard || i >= kGuard + bytes_) fail("a guard byte changed");
            for (int b = 0; b < 8; ++b) {
                if (!(diff & (0x80 >> b))) continue;
                const long long pos = (static_cast<long long>(i - kGuard) * 8 + b) / bits;
                if (pos < first || pos >= first + n) fail("a bit outside the destination changed");
            }
        }
    }
    void guards() const { only(8, 0, static_cast<long long>(bytes_)); }
    void into(std::vector<std::uint8_t>& out) const { out.insert(out.end(), body(), body() + bytes_); }

private:
    std::size_t bytes_;
    std::vector<std::uint8_t> raw_, before_;
};

// Row-pointer arrays: `rows` buffers of `rowBytes` each.
class Rows {
public:
    Rows(FuzzedDataProvider& in, long long rows, long long rowBytes) {
        for (long long r = 0; r < count_of(rows); ++r) rows_.emplace_back(in, rowBytes);
        ptrs_.resize(rows_.size() + 1, nullptr);
        for (std::size_t r = 0; r < rows_.size(); ++r) ptrs_[r] = rows_[r].body();
    }
    template <class T> T** as() { return reinterpret_cast<T**>(ptrs_.data()); }
    void unchanged() const { for (const Buf& b : rows_) b.unchanged(); }
    void guards() const { for (const Buf& b : rows_) b.guards(); }
    void into(std::vector<std::uint8_t>& out) const { for (const Buf& b : rows_) b.into(out); }
    std::vector<Buf>& rows() { return rows_; }

private:
    std::vector<Buf> rows_;
    std::vector<void*> ptrs_;
};

// What one run gives back: report codes, results and written buffers.
struct Outcome {
    std::vector<std::uint8_t> bytes;
    template <class T> void add(const T& v) {
        const auto* p = reinterpret_cast<const std::uint8_t*>(&v);
        bytes.insert(bytes.end(), p, p + sizeof v);
    }
};

inline Outcome*& current() {
    static Outcome* o = nullptr;
    return o;
}

// Records each report's code in the outcome and keeps the status word as the
// console handler does in report mode.
inline int capture(int code, const char*, const char*, const char*, int) {
    if (current() != nullptr) current()->add(code);
    if (code != QX_StsBackTrace && code != QX_StsAutoTrace) QXSetStatus(code);
    return code;
}

// Runs `call(in, out)` on a fresh reading of the input with the plain path,
// then with the widest path: both must leave the same outcome.
template <class Call>
int on_both_paths(const std::uint8_t* data, std::size_t size, Call call) {
    static const bool once = [] {
        QXRedirectError(capture);
        QXSetErrMode(QX_ErrorModeParent);
        return true;
    }();
    (void)once;
    const qx::cpu::Path widest = qx::cpu::supported();
    Outcome results[2];
    const qx::cpu::Path paths[2] = {qx::cpu::Path::plain, widest};
    const int runs = widest == qx::cpu::Path::plain ? 1 : 2;
    for (int i = 0; i < runs; ++i) {
        qx::cpu::force(paths[i]);
        QXSetStatus(0);
        current() = &results[i];
        FuzzedDataProvider in(data, size);
        call(in, results[i]);
        results[i].add(QXGetStatus());
        current() = nullptr;
    }
    QXSetStatus(0);
    if (runs == 2 && results[0].bytes != results[1].bytes) {
        const std::vector<std::uint8_t>&p = results[0].bytes, &v = results[1].bytes;
        std::size_t i = 0;
        while (i < p.size() && i < v.size() && p[i] == v[i]) ++i;
        std::fprintf(stderr, "outcomes of %zu and %zu bytes differ first at byte %zu\n", p.size(), v.size(), i);
        fail("the plain and the vector path differ");
    }
    return 0;
}

}  // namespace kvxfuzz
