// Gaussian mixture servers, HMM servers and classes and Viterbi scoring, on
// hostile dimensions, counts, ids, flags and scale factors.
#include "fuzz_common.h"

using namespace kvxfuzz;

namespace {

// A table of rows x cols values of T from the fuzzer (probabilities or costs).
template <class T>
struct Table {
    std::vector<std::vector<T>> rows;
    std::vector<T*> ptrs;
    Table(FuzzedDataProvider& in, long long r, long long c, bool costs) {
        for (long long i = 0; i < count_of(r); ++i) {
            std::vector<T> row(static_cast<std::size_t>(count_of(c)));
            for (T& v : row) {
                if constexpr (sizeof(T) == 4)
                    v = costs ? static_cast<T>(in.ConsumeIntegralInRange<int>(-1, 400)) / 16.0f
                              : static_cast<T>(in.ConsumeIntegralInRange<int>(-1, 17)) / 16.0f;
                else
                    v = static_cast<T>(in.ConsumeIntegralInRange<int>(-1, costs ? 40000 : 17));
            }
            rows.push_back(std::move(row));
        }
        for (auto& row : rows) ptrs.push_back(row.data());
        ptrs.push_back(nullptr);
    }
    T** get() { return ptrs.data(); }
    T* row0() { return rows.empty() ? reinterpret_cast<T*>(ptrs.data()) : rows[0].data(); }
};

// One mixture of nGauss components of dimension n, diagonal or full.
template <class T>
struct Mixture {
    Table<T> weights, means, diag;
    std::vector<Table<T>> full;
    std::vector<T**> fullPtrs;
    Mixture(FuzzedDataProvider& in, int n, int nGauss, bool useFull)
        : weights(in, 1, nGauss, false), means(in, nGauss, n, true), diag(in, useFull ? 0 : nGauss, n, true) {
        if (useFull)
            for (int k = 0; k < nGauss; ++k) full.emplace_back(in, n, n, false);
        for (auto& t : full) fullPtrs.push_back(t.get());
        fullPtrs.push_back(nullptr);
    }
};

void mixture(FuzzedDataProvider& in, Outcome& o) {
    const bool shorts = in.ConsumeBool();
    const int n = small_or_any(in), nGauss = small_or_any(in);
    const bool useFull = in.ConsumeBool();
    const int useExp = in.ConsumeIntegralInRange<int>(0, 1);
    const int scaleExp = in.ConsumeBool() ? in.ConsumeIntegralInRange<int>(-8, 8) : any_int(in);
    const int evalN = in.ConsumeBool() ? n : small_or_any(in);
    const int ds = do_scale(in);
    int sf = any_int(in);
    if (n > 16 || nGauss > 16 || evalN > 64) return;
    // The caller keeps the server's arrays as long as the vectors it evaluates.
    const int dim = evalN > n ? evalN : n;
    if (shorts) {
        Mixture<short> m(in, dim, nGauss, useFull);
        QXwGaussMixServer* s = QXwInitGaussMixServer(m.weights.row0(), m.means.get(), useFull ? m.fullPtrs.data() : nullptr,
                                                     useFull ? nullptr : m.diag.get(), n, nGauss, useExp, scaleExp);
        o.add(s != nullptr);
        QXSetStatus(0);
        Buf v(in, count_of(evalN) * 2);
        if (s != nullptr) {
            o.add(QXwEvalGaussMix(s, v.as<short>(), evalN, ds, &sf));
            QXSetStatus(0);
            QXwFreeGaussMixServer(s);
        }
    } else {
        Mixture<float> m(in, dim, nGauss, useFull);
        QXsGaussMixServer* s = QXsInitGaussMixServer(m.weights.row0(), m.means.get(), useFull ? m.fullPtrs.data() : nullptr,
                                                     useFull ? nullptr : m.diag.get(), n, nGauss, useExp);
        o.add(s != nullptr);
        QXSetStatus(0);
        Buf v(in, count_of(evalN) * 4);
        if (s != nullptr) {
            o.add(QXsEvalGaussMix(s, v.as<float>(), evalN));
            QXSetStatus(0);
            QXsFreeGaussMixServer(s);
        }
    }
    o.add(sf);
}

// A few servers of one kind, a class, Viterbi scores, then everything freed.
void hmm(FuzzedDataProvider& in, Outcome& o) {
    const bool shorts = in.ConsumeBool();
    const int kind = in.ConsumeIntegralInRange<int>(0, 2);  // discrete, continuous, semicontinuous
    const int nStates = small_or_any(in), nSymbols = small_or_any(in), nQuant = small_or_any(in);
    int flags = in.ConsumeIntegralInRange<int>(0, 1);
    if (in.ConsumeIntegralInRange<int>(0, 9) == 0) flags = any_int(in);
    int costSf = in.ConsumeBool() ? in.ConsumeIntegralInRange<int>(-4, 4) : any_int(in);
    if (nStates > 16 || nSymbols > 16 || nQuant > 8) return;
    const bool costs = flags & 1;
    // The mixtures the continuous and semicontinuous servers score with.
    const int nMix = kind == 1 ? nStates : kind == 2 ? nSymbols : 0;
    std::vector<Mixture<float>> fm;
    std::vector<Mixture<short>> wm;
    std::vector<void*> handles;
    for (int k = 0; k < nMix; ++k) {
        const int q = nQuant > 0 ? nQuant : 1;
        if (shorts) {
            wm.emplace_back(in, q, 2, false);
            handles.push_back(QXwInitGaussMixServer(wm.back().weights.row0(), wm.back().means.get(), nullptr,
                                                    wm.back().diag.get(), q, 2, 0, 0));
        } else {
            fm.emplace_back(in, q, 2, false);
            handles.push_back(QXsInitGaussMixServer(fm.back().weights.row0(), fm.back().means.get(), nullptr,
                                                    fm.back().diag.get(), q, 2, 0));
        }
        QXSetStatus(0);
    }
    handles.push_back(nullptr);
    std::vector<int> ids;
    const int nServers = in.ConsumeIntegralInRange<int>(1, 3);
    for (int s = 0; s < nServers; ++s) {
        int id;
        if (shorts) {
            Table<short> t(in, nStates, nStates, costs), b(in, nStates, nSymbols, costs), i(in, 1, nStates, costs);
            auto outPdfs = reinterpret_cast<QXwGaussMixServer**>(handles.data());
            if (kind == 0) id = QXwInitHMMServer(t.get(), b.get(), i.row0(), nStates, nSymbols, flags);
            else if (kind == 1) id = QXwInitContHMMServer(t.get(), i.row0(), outPdfs, nStates, nQuant, flags, &costSf);
            else id = QXwInitSemicontHMMServer(t.get(), b.get(), i.row0(), outPdfs, nStates, nSymbols, nQuant, flags, &costSf);
        } else {
            Table<float> t(in, nStates, nStates, costs), b(in, nStates, nSymbols, costs), i(in, 1, nStates, costs);
            auto outPdfs = reinterpret_cast<QXsGaussMixServer**>(handles.data());
            if (kind == 0) id = QXsInitHMMServer(t.get(), b.get(), i.row0(), nStates, nSymbols, flags);
            else if (kind == 1) id = QXsInitContHMMServer(t.get(), i.row0(), outPdfs, nStates, nQuant, flags);
            else id = QXsInitSemicontHMMServer(t.get(), b.get(), i.row0(), outPdfs, nStates, nSymbols, nQuant, flags);
        }
        o.add(id);
        ids.push_back(id);
        QXSetStatus(0);
    }
    const int cls = QXCreateHMMClass();
    o.add(cls);
    for (int id : ids) o.add(QXAddHMMToClass(in.ConsumeBool() ? cls : any_int(in), in.ConsumeBool() ? id : any_int(in)));
    QXSetStatus(0);
    const int target = in.ConsumeBool() ? (in.ConsumeBool() ? -cls : ids[0]) : any_int(in);
    const int nObserv = small_or_any(in);
    const int ds = do_scale(in);
    int sf = any_int(in);
    if (nObserv <= 64) {
        int bestId = -5;
        if (kind == 0) {
            std::vector<int> obs(static_cast<std::size_t>(count_of(nObserv)) + 1);
            for (int& v : obs) v = in.ConsumeBool() ? in.ConsumeIntegralInRange<int>(-1, nSymbols > 0 ? nSymbols : 0) : any_int(in);
            if (shorts) o.add(QXwEvalHMMViterbi(target, obs.data(), nObserv, &bestId, ds, &sf));
            else o.add(QXsEvalHMMViterbi(target, obs.data(), nObserv, &bestId));
        } else if (shorts) {
            Table<short> x(in, nObserv, nQuant, true);
            o.add(kind == 1 ? QXwEvalContHMMViterbi(target, x.get(), nObserv, &bestId, ds, &sf)
                            : QXwEvalSemicontHMMViterbi(target, x.get(), nObserv, &bestId, ds, &sf));
        } else {
            Table<float> x(in, nObserv, nQuant, true);
            o.add(kind == 1 ? QXsEvalContHMMViterbi(target, x.get(), nObserv, &bestId)
                            : QXsEvalSemicontHMMViterbi(target, x.get(), nObserv, &bestId));
        }
        o.add(bestId);
        o.add(sf);
    }
    QXSetStatus(0);
    o.add(QXRemoveHMMFromClass(in.ConsumeBool() ? cls : any_int(in), in.ConsumeBool() ? ids[0] : any_int(in)));
    QXSetStatus(0);
    QXFreeHMMServer(in.ConsumeBool() ? ids[0] : any_int(in));
    QXSetStatus(0);
    o.add(QXDeleteHMMClass(in.ConsumeBool() ? cls : any_int(in)));
    QXSetStatus(0);
    QXHMMFreeAll();
    for (void* h : handles)
        if (h != nullptr) {
            if (shorts) QXwFreeGaussMixServer(static_cast<QXwGaussMixServer*>(h));
            else QXsFreeGaussMixServer(static_cast<QXsGaussMixServer*>(h));
        }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return on_both_paths(data, size, [](FuzzedDataProvider& in, Outcome& o) {
        if (in.ConsumeIntegralInRange<int>(0, 2) == 0)
            mixture(in, o);
        else
            hmm(in, o);
    });
}
