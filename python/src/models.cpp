// models.cpp - the pattern store and warping, Gaussian mixtures, HMM servers
// and classes with Viterbi scoring.
#include <pybind11/stl.h>

#include <algorithm>
#include <memory>
#include <stdexcept>

#include "binding.h"
#include "kvxpx.h"

namespace kvxpy {

namespace {

// A 2-D float32 copy-if-needed with its row pointers.
struct Matrix {
    Array<float> a;
    std::vector<float*> r;
    explicit Matrix(const py::array& x, const char* what) : a(Array<float>::ensure(x)) {
        if (!a || a.ndim() != 2) throw py::value_error(std::string(what) + " must be a 2-D array (rows x columns)");
        intLength(a.shape(0), what);
        intLength(a.shape(1), what);
        r = rows(a);
    }
    int nRows() const { return static_cast<int>(a.shape(0)); }
    int nCols() const { return static_cast<int>(a.shape(1)); }
    float** ptr() { return r.empty() ? nullptr : r.data(); }
};

Array<float> vector1(const py::array& x, const char* what) {
    auto v = Array<float>::ensure(x);
    if (!v || v.ndim() != 1) throw py::value_error(std::string(what) + " must be a 1-D array");
    intLength(v.shape(0), what);
    return v;
}

// ---------------------------------------------------------------------------
// Pattern store and warping (the float store).

int patternAdd(const py::array& features) {
    Matrix m(features, "a template");
    return guarded([&] { return QXsPatternIni(m.ptr(), m.nRows(), m.nCols()); });
}

void patternFree(int id) {
    guarded([&] { QXsPatternFree(id); });
}

int patternCount() {
    return guarded([] { return QXsPatternsNumber(); });
}

py::tuple evalDTW(const std::vector<int>& ids, const py::array& test, int options, double threshold, int endRange) {
    Matrix m(test, "the test features");
    const int nPatterns = intLength(static_cast<py::ssize_t>(ids.size()), "the template list");
    auto scores = empty<double>({static_cast<py::ssize_t>(ids.size())});
    double* s = scores.mutable_data();
    const int* idList = ids.empty() ? nullptr : ids.data();
    if (!idList) return py::make_tuple(-1, scores);
    int best = guarded([&] {
        return QXsEvalDTW(idList, nPatterns, m.ptr(), m.nRows(), m.nCols(), options, threshold, endRange, s);
    });
    return py::make_tuple(best, scores);
}

// ---------------------------------------------------------------------------
// Gaussian mixtures (float): the server refers to arrays this object keeps.

class GaussianMixture {
public:
    GaussianMixture(const py::array& weights, const py::array& means, const py::object& invVar,
                    const py::object& invCov, bool expTable)
        : weights_(vector1(weights, "weights")), means_(means, "means") {
        const bool hasVar = !invVar.is_none(), hasCov = !invCov.is_none();
        if (hasVar == hasCov) throw py::value_error("give exactly one of inv_var (diagonal) and inv_cov (full)");
        const int g = means_.nRows(), n = means_.nCols();
        if (weights_.shape(0) != g) throw py::value_error("weights must have one entry per mean");
        if (hasVar) {
            var_ = std::make_unique<Matrix>(invVar.cast<py::array>(), "inv_var");
            if (var_->nRows() != g || var_->nCols() != n) throw py::value_error("inv_var must have the shape of means");
        } else {
            cov_ = Array<float>::ensure(invCov.cast<py::array>());
            if (!cov_ || cov_.ndim() != 3 || cov_.shape(0) != g || cov_.shape(1) != n || cov_.shape(2) != n)
                throw py::value_error("inv_cov must have shape (mixtures, dim, dim)");
            float* base = cov_.mutable_data();
            covRows_.resize(std::size_t(g) * n);
            for (std::size_t i = 0; i < covRows_.size(); ++i) covRows_[i] = base + i * n;
            covMats_.resize(g);
            for (int k = 0; k < g; ++k) covMats_[k] = covRows_.data() + std::size_t(k) * n;
        }
        float* w = weights_.mutable_data();
        float** mean = means_.ptr();
        float*** full = hasCov ? covMats_.data() : nullptr;
        float** diag = hasVar ? var_->ptr() : nullptr;
        server_ = guarded([&] { return QXsInitGaussMixServer(w, mean, full, diag, n, g, expTable ? 1 : 0); });
        if (!server_) throw std::runtime_error("the library returned no mixture server");
        dim_ = n;
    }
    ~GaussianMixture() { release(); }

    void close() {
        if (users_ > 0) throw py::value_error("the mixture is used by an open HMM; close the HMM first");
        release();
    }

    QXsGaussMixServer* server() const {
        if (!server_) throw py::value_error("the mixture is closed");
        return server_;
    }

    py::object evaluate(const py::array& x) {
        QXsGaussMixServer* s = server();
        auto v = Array<float>::ensure(x);
        if (!v || (v.ndim() != 1 && v.ndim() != 2)) throw py::value_error("x must be one vector or rows of vectors");
        const int n = intLength(v.shape(v.ndim() - 1), "x");
        const float* d = v.data();
        if (v.ndim() == 1) return py::float_(guarded([&] { return QXsEvalGaussMix(s, d, n); }));
        const py::ssize_t rowsN = v.shape(0);
        auto out = empty<double>({rowsN});
        double* o = out.mutable_data();
        guarded([&] {
            for (py::ssize_t r = 0; r < rowsN; ++r) o[r] = QXsEvalGaussMix(s, d + r * n, n);
        });
        return out;
    }

    int dim() const { return dim_; }
    int users_ = 0;

private:
    void release() {
        if (!server_) return;
        quietly([&] { QXsFreeGaussMixServer(server_); });
        server_ = nullptr;
    }

    Array<float> weights_;
    Matrix means_;
    std::unique_ptr<Matrix> var_;
    Array<float> cov_;
    std::vector<float*> covRows_;
    std::vector<float**> covMats_;
    QXsGaussMixServer* server_ = nullptr;
    int dim_ = 0;
};

// ---------------------------------------------------------------------------
// HMM servers (float) and classes.

enum class Kind { Discrete, Continuous };

class HMM {
public:
    virtual ~HMM() { close(); }
    void close() {
        if (id_ <= 0) return;
        const int id = id_;
        quietly([&] { QXFreeHMMServer(id); });
        id_ = 0;
        releaseMixtures();
    }
    int id() const {
        if (id_ <= 0) throw py::value_error("the HMM is closed");
        return id_;
    }
    Kind kind() const { return kind_; }

protected:
    explicit HMM(Kind k) : kind_(k) {}
    virtual void releaseMixtures() {}
    int id_ = 0;
    Kind kind_;
};

int costFlags(bool costs) { return costs ? QX_HMM_COST : 0; }

py::tuple viterbi(Kind kind, int target, const py::array& observations);

class DiscreteHMM : public HMM {
public:
    DiscreteHMM(const py::array& transitions, const py::array& emissions, const py::array& initial, bool costs)
        : HMM(Kind::Discrete) {
        Matrix t(transitions, "transitions"), e(emissions, "emissions");
        auto pi = vector1(initial, "initial");
        const int s = t.nRows();
        if (t.nCols() != s || e.nRows() != s || pi.shape(0) != s)
            throw py::value_error("transitions (S x S), emissions (S x symbols) and initial (S) must agree on S");
        float* p = pi.mutable_data();
        id_ = guarded([&] { return QXsInitHMMServer(t.ptr(), e.ptr(), p, s, e.nCols(), costFlags(costs)); });
        if (id_ <= 0) throw std::runtime_error("the library returned no HMM server");
    }
    float score(const py::array& obs) { return viterbi(kind_, id(), obs)[0].cast<float>(); }
};

class ContinuousHMM : public HMM {
public:
    ContinuousHMM(const py::array& transitions, const py::array& initial, const py::list& mixtures, bool costs)
        : HMM(Kind::Continuous) {
        Matrix t(transitions, "transitions");
        auto pi = vector1(initial, "initial");
        const int s = t.nRows();
        if (t.nCols() != s || pi.shape(0) != s || static_cast<int>(py::len(mixtures)) != s)
            throw py::value_error("transitions (S x S), initial (S) and mixtures (one per state) must agree on S");
        std::vector<QXsGaussMixServer*> pdfs;
        int dim = -1;
        for (auto h : mixtures) {
            auto& g = h.cast<GaussianMixture&>();
            pdfs.push_back(g.server());
            if (dim >= 0 && g.dim() != dim) throw py::value_error("the mixtures must share one dimension");
            dim = g.dim();
        }
        float* p = pi.mutable_data();
        id_ = guarded([&] { return QXsInitContHMMServer(t.ptr(), p, pdfs.data(), s, dim, costFlags(costs)); });
        if (id_ <= 0) throw std::runtime_error("the library returned no HMM server");
        mixtures_ = mixtures;
        for (auto h : mixtures_) h.cast<GaussianMixture&>().users_++;
        dim_ = dim;
    }
    // Closes here, while releaseMixtures still reaches this class.
    ~ContinuousHMM() override { close(); }
    float score(const py::array& obs) { return viterbi(kind_, id(), obs)[0].cast<float>(); }
    int dim() const { return dim_; }

private:
    void releaseMixtures() override {
        for (auto h : mixtures_) h.cast<GaussianMixture&>().users_--;
        mixtures_ = py::list();
    }
    py::list mixtures_;
    int dim_ = 0;
};

py::tuple viterbi(Kind kind, int target, const py::array& observations) {
    int best = 0;
    float cost;
    if (kind == Kind::Discrete) {
        auto obs = Array<int>::ensure(observations);
        if (!obs || obs.ndim() != 1) throw py::value_error("observations must be a 1-D array of symbol numbers");
        const int n = intLength(obs.shape(0), "observations");
        const int* o = obs.data();
        cost = guarded([&] { return QXsEvalHMMViterbi(target, o, n, &best); });
    } else {
        Matrix m(observations, "observations");
        cost = guarded([&] { return QXsEvalContHMMViterbi(target, m.ptr(), m.nRows(), &best); });
    }
    return py::make_tuple(cost, best);
}

class HMMClass {
public:
    HMMClass() {
        id_ = guarded([] { return QXCreateHMMClass(); });
        if (id_ <= 0) throw std::runtime_error("the library returned no HMM class");
    }
    ~HMMClass() { close(); }
    void close() {
        if (id_ <= 0) return;
        const int id = id_;
        quietly([&] { QXDeleteHMMClass(id); });
        id_ = 0;
        members_ = py::list();
    }
    int id() const {
        if (id_ <= 0) throw py::value_error("the HMM class is closed");
        return id_;
    }
    void add(const py::object& model) {
        const int hmm = model.cast<HMM&>().id(), cls = id();
        guarded([&] { QXAddHMMToClass(cls, hmm); });
        members_.append(model);
    }
    void remove(const py::object& model) {
        const int hmm = model.cast<HMM&>().id(), cls = id();
        guarded([&] { QXRemoveHMMFromClass(cls, hmm); });
        py::list kept;
        for (auto h : members_)
            if (!h.is(model)) kept.append(h);
        members_ = kept;
    }
    // (least cost, the member that gave it)
    py::tuple score(const py::array& obs) {
        if (py::len(members_) == 0) throw py::value_error("the HMM class has no members");
        const Kind kind = members_[0].cast<HMM&>().kind();
        py::tuple r = viterbi(kind, -id(), obs);
        const int best = r[1].cast<int>();
        for (auto h : members_)
            if (h.cast<HMM&>().id() == best) return py::make_tuple(r[0], h);
        return py::make_tuple(r[0], py::none());
    }
    py::list members() const { return members_; }

private:
    int id_ = 0;
    py::list members_;
};

template <class C>
void withBlock(py::class_<C>& c) {
    c.def("close", &C::close)
        .def("__enter__", [](py::object self) { return self; })
        .def("__exit__", [](C& o, py::args) { o.close(); });
}

}  // namespace

void bindModels(py::module_& m) {
    m.def("_pattern_add", &patternAdd);
    m.def("_pattern_free", &patternFree);
    m.def("_pattern_count", &patternCount);
    m.def("_eval_dtw", &evalDTW);
    m.attr("DTW_FIXED_END") = QX_DTW_FIXED_END;
    m.attr("DTW_RELAXED_END") = QX_DTW_RELAXED_END;
    m.attr("DTW_THRESHOLD") = QX_DTW_THRESHOLD;
    m.attr("DTW_L1") = QX_DTW_L1;
    m.attr("DTW_L2") = QX_DTW_L2;

    py::class_<GaussianMixture> gm(m, "GaussianMixture",
        "sum_k weights[k] * exp(-0.5 (x-means[k])' C_k (x-means[k])), C_k the diagonal inv_var[k] or the full "
        "inv_cov[k] (QXsInitGaussMixServer); no normalising constant.");
    gm.def(py::init<const py::array&, const py::array&, const py::object&, const py::object&, bool>(),
           py::arg("weights"), py::arg("means"), py::kw_only(), py::arg("inv_var") = py::none(),
           py::arg("inv_cov") = py::none(), py::arg("exp_table") = false)
        .def("evaluate", &GaussianMixture::evaluate, py::arg("x"),
             "The mixture's value at one vector (float) or at each row of a matrix (float64 array).")
        .def_property_readonly("dim", &GaussianMixture::dim);
    withBlock(gm);

    py::class_<HMM> hmm(m, "HMM", "An HMM server of the library; `id` is its library id.");
    hmm.def_property_readonly("id", &HMM::id);
    withBlock(hmm);

    py::class_<DiscreteHMM, HMM>(m, "DiscreteHMM",
        "A discrete HMM (QXsInitHMMServer): transitions S x S, emissions S x symbols, initial S; costs "
        "(negative logarithms, 1e30 = impossible) unless costs=False.")
        .def(py::init<const py::array&, const py::array&, const py::array&, bool>(), py::arg("transitions"),
             py::arg("emissions"), py::arg("initial"), py::kw_only(), py::arg("costs") = true)
        .def("viterbi", &DiscreteHMM::score, py::arg("observations"),
             "Least path cost of a sequence of symbol numbers (QXsEvalHMMViterbi).");

    py::class_<ContinuousHMM, HMM>(m, "ContinuousHMM",
        "A continuous HMM (QXsInitContHMMServer): transitions S x S, initial S, one GaussianMixture per state.")
        .def(py::init<const py::array&, const py::array&, const py::list&, bool>(), py::arg("transitions"),
             py::arg("initial"), py::arg("mixtures"), py::kw_only(), py::arg("costs") = true)
        .def("viterbi", &ContinuousHMM::score, py::arg("observations"),
             "Least path cost of frames x dim observations (QXsEvalContHMMViterbi).")
        .def_property_readonly("dim", &ContinuousHMM::dim);

    py::class_<HMMClass> cls(m, "HMMClass",
        "A class of HMMs of one kind, scored together (QXCreateHMMClass, QXAddHMMToClass).");
    cls.def(py::init([](const py::iterable& models) {
               auto c = std::make_unique<HMMClass>();
               for (auto h : models) c->add(py::reinterpret_borrow<py::object>(h));
               return c;
           }), py::arg("models") = py::tuple())
        .def("add", &HMMClass::add, py::arg("model"))
        .def("remove", &HMMClass::remove, py::arg("model"))
        .def("viterbi", &HMMClass::score, py::arg("observations"),
             "(least cost, the member that gave it) over the members (equal costs: the later member).")
        .def_property_readonly("members", &HMMClass::members)
        .def_property_readonly("id", &HMMClass::id);
    withBlock(cls);
}

}  // namespace kvxpy
