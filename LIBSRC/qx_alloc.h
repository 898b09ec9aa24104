// The library's one path to the heap. Every allocation goes through here so
// that tests can make the N-th allocation fail and count what is still live.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qx {

void* alloc(std::size_t bytes) noexcept;                      // malloc; NULL on failure
void* calloc(std::size_t count, std::size_t size) noexcept;   // zero-filled
void free(void* p) noexcept;                                  // NULL is ignored

// A block of `bytes` usable bytes that starts on a 32-byte boundary: the heap
// block is 32 bytes larger; *raw receives the address to release with free().
void* alloc_aligned32(std::size_t bytes, void** raw) noexcept;
inline void* align32(void* raw) noexcept {
    auto a = reinterpret_cast<std::uintptr_t>(raw);
    return raw ? reinterpret_cast<void*>((a + 31) & ~std::uintptr_t{31}) : nullptr;
}

template <class T>
T* alloc_n(std::size_t count) noexcept { return static_cast<T*>(alloc(count * sizeof(T))); }
template <class T>
T* calloc_n(std::size_t count) noexcept { return static_cast<T*>(calloc(count, sizeof(T))); }

namespace testing {
// Make the nth allocation call from now fail (1 = the next one) and only that
// one; with `sticky` every call from that one on fails. 0 switches failures off.
void fail_allocation(long nth, bool sticky = false) noexcept;
long allocations() noexcept;   // successful allocations since the start
long live_blocks() noexcept;   // allocated and not yet released
void* last_allocation() noexcept;  // the most recent successful allocation
const void* failed_site() noexcept;  // where the last injected failure was asked for (a return address)
}  // namespace testing

}  // namespace qx
