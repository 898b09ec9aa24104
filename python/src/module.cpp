// module.cpp - the kvxpx._kvxpx extension: library information, error texts
// and the families bound in signal.cpp and models.cpp.
#include "binding.h"
#include "kvxpx.h"

PYBIND11_MODULE(_kvxpx, m) {
    namespace py = pybind11;
    m.doc() = "kvxpx numeric building blocks (the extension behind the kvxpx package)";
    kvxpy::installHandler();
    m.def("error_text", [](int code) {
        return kvxpy::guarded([&] { return std::string(QXErrorStr(code)); });
    }, py::arg("code"), "The library's text for an error or status code (QXErrorStr).");
    m.def("library_version", [] {
        QXLibraryInfo info{};
        kvxpy::guarded([&] { QXGetLibraryInfo(&info); });
        return py::make_tuple(info.version, info.release, info.build);
    }, "(version, release, build) of the loaded library (QXGetLibraryInfo).");
    m.def("_raise_probe", [](int code, const std::string& function, const std::string& condition) {
        kvxpy::guarded([&] { QXError(code, function.c_str(), condition.c_str(), "probe.cpp", 1); });
    }, "Reports through the library's error path (for tests).");
    kvxpy::bindSignal(m);
    kvxpy::bindModels(m);
}
