// binding.h - what every part of the kvxpx Python extension shares: the one
// lock around the library, the capture of its reports and their translation
// into Python exceptions and warnings, and array helpers.
#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <cstddef>
#include <mutex>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace kvxpy {

namespace py = pybind11;

// One report as the library's error handler received it.
struct Report {
    int code;
    std::string function;
    std::string condition;
    std::string file;
    int line;
};

// The library's state is process wide: every call into it holds this lock.
std::mutex& libraryLock();

// Installs the capturing handler (once, at import).
void installHandler();

// Reports captured since the last take; clears the list and the status word.
// Call with the library lock held.
std::vector<Report> takeReports();

// With the GIL held: raises the first error of `reports` as kvxpx.Error (or
// its ValueError / MemoryError subclasses) and turns overflow and underflow
// reports into kvxpx.OverflowWarning. Returns when nothing is to be raised.
void raiseReports(const std::vector<Report>& reports);

// Runs `work` (which must not touch Python objects) without the GIL and under
// the library lock, with a clear status word before and after, then raises
// what the library reported. Returns work's result.
template <class F>
auto guarded(F&& work) {
    using R = std::invoke_result_t<F&>;
    std::vector<Report> reports;
    if constexpr (std::is_void_v<R>) {
        {
            py::gil_scoped_release nogil;
            std::lock_guard<std::mutex> hold(libraryLock());
            takeReports();
            work();
            reports = takeReports();
        }
        raiseReports(reports);
    } else {
        R result{};
        {
            py::gil_scoped_release nogil;
            std::lock_guard<std::mutex> hold(libraryLock());
            takeReports();
            result = work();
            reports = takeReports();
        }
        raiseReports(reports);
        return result;
    }
}

// Releases a library object from a destructor: never raises (reports are
// dropped), may run while the GIL is held (the lock holder never waits for it).
template <class F>
void quietly(F&& work) noexcept {
    std::lock_guard<std::mutex> hold(libraryLock());
    takeReports();
    work();
    takeReports();
}

// C-contiguous arrays of T (copied only when the input is not one already).
template <class T>
using Array = py::array_t<T, py::array::c_style | py::array::forcecast>;

// A fresh C-contiguous array of the given shape.
template <class T>
Array<T> empty(std::vector<py::ssize_t> shape) {
    return Array<T>(std::move(shape));
}

// Row pointers of a 2-D C-contiguous array.
template <class T>
std::vector<T*> rows(Array<T>& a) {
    std::vector<T*> out(static_cast<std::size_t>(a.shape(0)));
    T* base = a.mutable_data();
    for (std::size_t r = 0; r < out.size(); ++r) out[r] = base + r * static_cast<std::size_t>(a.shape(1));
    return out;
}

// A length that the library's int arguments can hold, else ValueError.
int intLength(py::ssize_t n, const char* what);

// "none" 0, "fixed" 1, "auto" 2, "saturate" 3, or the number itself.
int scaleMode(const py::object& mode);

// The dtype kinds the forms take.
bool isInt16(const py::array& a);

void bindSignal(py::module_& m);
void bindModels(py::module_& m);

}  // namespace kvxpy
