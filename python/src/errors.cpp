// errors.cpp - the library lock, the capturing error handler and the
// translation of reports into Python exceptions and warnings.
#include <climits>

#include "binding.h"
#include "kvxpx.h"

namespace kvxpy {

namespace {

// Written by the handler, which runs only inside calls made under the lock.
std::vector<Report> g_reports;

int capture(int code, const char* function, const char* condition, const char* file, int line) {
    g_reports.push_back({code, function ? function : "", condition ? condition : "", file ? file : "", line});
    // As the library's own handlers: trace records leave the status alone.
    if (code != QX_StsBackTrace && code != QX_StsAutoTrace) QXSetStatus(code);
    return code;
}

bool isTrace(int code) { return code == QX_StsBackTrace || code == QX_StsAutoTrace; }
bool isRangeReport(int code) { return code == QX_StsOverflow || code == QX_StsUnderflow; }

py::object errorsModule() {
    return py::module_::import("kvxpx._errors");
}

py::tuple asTuple(const Report& r) {
    return py::make_tuple(r.code, r.function, r.condition, r.file, r.line);
}

}  // namespace

std::mutex& libraryLock() {
    static std::mutex lock;
    return lock;
}

void installHandler() {
    std::lock_guard<std::mutex> hold(libraryLock());
    QXRedirectError(capture);
    QXSetStatus(0);
}

std::vector<Report> takeReports() {
    std::vector<Report> out;
    out.swap(g_reports);
    QXSetStatus(0);
    return out;
}

void raiseReports(const std::vector<Report>& reports) {
    if (reports.empty()) return;
    py::object errors = errorsModule();
    for (const auto& r : reports)
        if (!isTrace(r.code) && !isRangeReport(r.code)) {
            py::list all;
            for (const auto& each : reports) all.append(asTuple(each));
            py::object exc = errors.attr("_error_from_reports")(all);
            PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(exc.ptr())), exc.ptr());
            throw py::error_already_set();
        }
    for (const auto& r : reports)
        if (isRangeReport(r.code)) errors.attr("_warn")(asTuple(r));
}

int intLength(py::ssize_t n, const char* what) {
    if (n > INT_MAX) throw py::value_error(std::string(what) + " is too long for the library (more than 2^31-1 elements)");
    return static_cast<int>(n);
}

int scaleMode(const py::object& mode) {
    if (py::isinstance<py::str>(mode)) {
        const std::string s = mode.cast<std::string>();
        if (s == "none") return 0;
        if (s == "fixed") return 1;
        if (s == "auto") return 2;
        if (s == "saturate") return 3;
        throw py::value_error("scaling must be 'none', 'fixed', 'auto' or 'saturate' (or 0..3), not '" + s + "'");
    }
    // Numbers go to the library unchanged: it reports values outside 0..3.
    return mode.cast<int>();
}

bool isInt16(const py::array& a) {
    return a.dtype().is(py::dtype::of<short>());
}

}  // namespace kvxpy
