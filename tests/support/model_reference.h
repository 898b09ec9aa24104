// Independent references for the mixture and HMM tests: the mixture formula
// evaluated directly, random models, and the least path cost found by trying
// every state path; and two helpers for asserting report lists.
#pragma once

#include <cmath>
#include <functional>
#include <initializer_list>
#include <random>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "kvxpx.h"

namespace ref {

using Rep = std::tuple<int, std::string, std::string>;
struct Group {
    int code;
    std::string function;
    std::vector<std::string> conditions;
};

// Expected reports, written as groups of conditions from one function.
inline std::vector<Rep> reps(std::initializer_list<Group> groups) {
    std::vector<Rep> r;
    for (auto& g : groups)
        for (auto& c : g.conditions) r.emplace_back(g.code, g.function, c);
    return r;
}

// Runs calls that each fail on their own, clearing the status (not the
// reports) after each, so that their reports can be asserted as one list.
inline void each_fresh(std::initializer_list<std::function<void()>> calls) {
    for (auto& c : calls) {
        c();
        QXSetStatus(0);
    }
}

template <class T>
using Mat = std::vector<std::vector<T>>;

// Row pointers, as the library takes its matrices.
template <class T>
std::vector<T*> rows(Mat<T>& m) {
    std::vector<T*> r;
    for (auto& v : m) r.push_back(v.data());
    return r;
}

// A mixture in the caller's layout. draw(kind) gives a weight (0), a mean
// element (1), a diagonal precision (2) or an off-diagonal one (3); full
// matrices are symmetric.
template <class T>
struct Mix {
    std::vector<T> w;
    Mat<T> mean, diag;
    std::vector<Mat<T>> full;
    std::vector<T*> meanRows, diagRows;
    std::vector<std::vector<T*>> fullRows;
    std::vector<T**> fullPtrs;

    template <class Draw>
    Mix(int n, int nGauss, Draw draw)
        : w(nGauss), mean(nGauss, std::vector<T>(n)), diag(mean), full(nGauss, Mat<T>(n, std::vector<T>(n))) {
        for (int k = 0; k < nGauss; ++k) {
            w[k] = draw(0);
            for (int i = 0; i < n; ++i) {
                mean[k][i] = draw(1);
                diag[k][i] = full[k][i][i] = draw(2);
                for (int j = 0; j < i; ++j) full[k][i][j] = full[k][j][i] = draw(3);
            }
            fullRows.push_back(rows(full[k]));
        }
        meanRows = rows(mean);
        diagRows = rows(diag);
        for (auto& r : fullRows) fullPtrs.push_back(r.data());
    }

    // sum_k w_k exp(-0.5 * scale * q_k); a negative full form counts as its magnitude.
    long double value(const T* x, bool useFull, long double scale = 1.0L) const {
        long double sum = 0;
        for (std::size_t k = 0; k < w.size(); ++k) {
            long double q = 0;
            const int n = static_cast<int>(mean[k].size());
            for (int i = 0; i < n; ++i) {
                const long double di = static_cast<long double>(x[i]) - mean[k][i];
                for (int j = 0; j < n; ++j)
                    if (useFull || i == j)
                        q += di * (useFull ? full[k][i][j] : diag[k][i]) * (static_cast<long double>(x[j]) - mean[k][j]);
            }
            sum += static_cast<long double>(w[k]) * std::exp(-0.5L * scale * (useFull ? std::fabs(q) : q));
        }
        return sum;
    }
};

enum class Shape { Band, LeftRight, Full };

// A chain of states with random costs: transitions outside the shape are
// impossible (1.0e30 or 32767); b holds nSymbols output costs per state.
template <class T>
struct Chain {
    Mat<T> a, b;
    std::vector<T> pi;
};

template <class T>
Chain<T> random_chain(std::mt19937& g, int n, int nSymbols, Shape shape) {
    std::uniform_int_distribution<int> small(0, 40);
    auto draw = [&]() -> T {
        if constexpr (std::is_same_v<T, float>)
            return static_cast<float>(small(g)) * 0.37f;
        else
            return static_cast<short>(small(g) * 7);
    };
    const T impossible = std::is_same_v<T, float> ? static_cast<T>(1.0e30f) : static_cast<T>(32767);
    Chain<T> c{Mat<T>(n, std::vector<T>(n)), Mat<T>(n, std::vector<T>(nSymbols)), std::vector<T>(n)};
    for (int i = 0; i < n; ++i) {
        for (int j = 0; j < n; ++j)
            c.a[i][j] = shape == Shape::Full || (j >= i && (shape == Shape::LeftRight || j < i + 3)) ? draw() : impossible;
        for (auto& x : c.b[i]) x = draw();
        c.pi[i] = draw();
    }
    return c;
}

// The least cost over every state path, each path summed in the recurrence's
// order: s = pi + cost, then s = cost + (s + a) per frame; cost[t][j] per
// frame and state.
template <class Acc, class T>
Acc least_path(const Mat<T>& a, const std::vector<T>& pi, const Mat<Acc>& cost) {
    const int N = static_cast<int>(pi.size()), T_ = static_cast<int>(cost.size());
    std::vector<int> path(T_, 0);
    Acc best{};
    for (bool first = true;; first = false) {
        Acc s = static_cast<Acc>(pi[path[0]]) + cost[0][path[0]];
        for (int t = 1; t < T_; ++t)
            s = cost[t][path[t]] + (s + static_cast<Acc>(a[path[t - 1]][path[t]]));
        if (first || s < best)
            best = s;
        int t = 0;
        while (t < T_ && ++path[t] == N)
            path[t++] = 0;
        if (t == T_)
            return best;
    }
}

// The output costs of a discrete chain for a symbol sequence.
template <class Acc, class T>
Mat<Acc> symbol_costs(const Chain<T>& c, const std::vector<int>& o) {
    Mat<Acc> cost(o.size(), std::vector<Acc>(c.pi.size()));
    for (std::size_t t = 0; t < o.size(); ++t)
        for (std::size_t j = 0; j < c.pi.size(); ++j) cost[t][j] = static_cast<Acc>(c.b[j][o[t]]);
    return cost;
}

}  // namespace ref
