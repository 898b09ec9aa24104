// match.cpp - see match.h.
#include "match.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <stdexcept>

#include "kvxpx.h"

namespace kvx {

namespace {
constexpr double kMark = 3.4e38;  // the matcher's "unreachable" score
}

int DtwOptions::flags() const {
    return (euclidean ? QX_DTW_L2 : QX_DTW_L1) | (relaxed ? QX_DTW_RELAXED_END : QX_DTW_FIXED_END) |
           (prune > 0 ? QX_DTW_THRESHOLD : 0);
}

Matcher::Matcher(const Store& store) : store_(store) {
    ReportCollector rc;
    for (const auto& t : store.templates) {
        std::vector<float*> rows(t.rows);
        for (int r = 0; r < t.rows; ++r) rows[r] = const_cast<float*>(t.row(r));
        int id = QXsPatternIni(rows.data(), t.rows, t.cols);
        auto reports = rc.take();
        if (id <= 0) {
            for (int old : ids_) QXsPatternFree(old);
            rc.take();
            throw std::runtime_error("cannot load template \"" + t.label + "\": " + ReportCollector::describe(reports));
        }
        ids_.push_back(id);
    }
}

Matcher::~Matcher() {
    ReportCollector rc;
    for (int id : ids_) QXsPatternFree(id);
}

Match Matcher::match(const Features& test, const DtwOptions& o) {
    Match m;
    m.templateScores.assign(ids_.size(), kMark);
    if (ids_.empty() || test.rows == 0) return m;
    std::vector<float*> rows(test.rows);
    for (int r = 0; r < test.rows; ++r) rows[r] = const_cast<float*>(test.row(r));
    ReportCollector rc;
    int best = QXsEvalDTW(ids_.data(), static_cast<int>(ids_.size()), rows.data(), test.rows, test.cols, o.flags(),
                          o.prune * test.rows, o.range, m.templateScores.data());
    auto reports = rc.take();
    if (best < 0 || !reports.empty())
        throw std::runtime_error("matching failed: " + ReportCollector::describe(reports));
    // Best template per label.
    std::vector<std::pair<double, std::string>> perLabel;
    for (std::size_t k = 0; k < ids_.size(); ++k) {
        double s = m.templateScores[k];
        if (s >= kMark * 0.999) continue;
        const std::string& label = store_.templates[k].label;
        auto it = std::find_if(perLabel.begin(), perLabel.end(), [&](const auto& p) { return p.second == label; });
        if (it == perLabel.end()) perLabel.emplace_back(s, label);
        else if (s < it->first) it->first = s;
    }
    if (perLabel.empty()) return m;
    std::stable_sort(perLabel.begin(), perLabel.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    m.matched = true;
    m.best = perLabel[0].second;
    m.bestScore = perLabel[0].first / test.rows;
    if (perLabel.size() > 1) {
        m.second = perLabel[1].second;
        m.secondScore = perLabel[1].first / test.rows;
    }
    return m;
}

double localDistance(const float* a, const float* b, int n, bool euclidean) {
    double s = 0;
    for (int i = 0; i < n; ++i) {
        double d = double(a[i]) - double(b[i]);
        s += euclidean ? d * d : std::fabs(d);
    }
    return euclidean ? std::sqrt(s) : s;
}

std::vector<std::pair<int, int>> warpPath(const Features& test, const Template& t, const DtwOptions& o,
                                          double* score) {
    const int N = test.rows, M = t.rows;
    const int delta0 = o.relaxed ? std::abs(o.range) : 0;
    std::vector<std::pair<int, int>> path;
    if (score) *score = kMark;
    if (N < 1 || M < (N - 1) / 2 + 1 || M > 2 * N - 1 + delta0 || test.cols != t.cols) return path;
    const int delta = std::min(delta0, M - 1);
    // Band of pattern indices per test frame (slopes 1/2 and 2).
    const double third = 1.0 / 3.0;
    std::vector<int> lo(N), hi(N);
    int a = static_cast<int>(std::floor((2.0 * M - 2.0 * delta - N - 1) * third));
    if (a < 0) a = -1;
    int b = static_cast<int>(std::ceil((4.0 * N - 2.0 * M + 2.0 * delta - 2) * third));
    if (b > N - 1) b = N;
    for (int i = 0; i < N; ++i) {
        hi[i] = i <= a ? 2 * i + delta : M - 1 - (N - 1 - i) / 2;
        lo[i] = i < b ? i / 2 : M - 1 - delta - 2 * (N - 1 - i);
    }
    // Full grid: accumulated score, horizontal flag and predecessor per cell.
    const int cols = N == 1 ? 2 : N;  // a one-frame test is used as first and last frame
    std::vector<double> A(static_cast<std::size_t>(cols) * M, kMark);
    std::vector<char> F(A.size(), 0);
    std::vector<int> from(A.size(), -1);
    auto at = [&](std::vector<double>& v, int i, int j) -> double { return j < 0 ? kMark : v[std::size_t(i) * M + j]; };
    auto d = [&](int i, int j) { return localDistance(test.row(i), t.row(j), t.cols, o.euclidean); };
    for (int j = std::min(hi[0], M - 1); j >= 0; --j) A[j] = d(0, j);
    for (int c = 1; c < cols; ++c) {
        const bool last = c == cols - 1;
        const int ti = N == 1 ? 0 : c;
        const int jlo = std::max(lo[ti], 0), jhi = last ? M - 1 : std::min(hi[ti], M - 1);
        for (int j = jhi; j >= jlo; --j) {
            double best = kMark;
            int pred = -1;
            bool horiz = false;
            if (!F[std::size_t(c - 1) * M + j]) best = at(A, c - 1, j), pred = j, horiz = true;
            if (at(A, c - 1, j - 1) <= best) best = at(A, c - 1, j - 1), pred = j - 1, horiz = false;
            if (at(A, c - 1, j - 2) < best) best = at(A, c - 1, j - 2), pred = j - 2, horiz = false;
            if (best >= kMark) continue;
            A[std::size_t(c) * M + j] = best + d(ti, j);
            F[std::size_t(c) * M + j] = horiz;
            from[std::size_t(c) * M + j] = pred;
        }
    }
    int end = -1;
    double total = kMark;
    for (int j = M - 1; j >= std::max(lo[N - 1], 0); --j)
        if (at(A, cols - 1, j) < total) total = at(A, cols - 1, j), end = j;
    if (end < 0) return path;
    if (score) *score = total;
    for (int c = cols - 1, j = end; c >= 0 && j >= 0; j = from[std::size_t(c) * M + j], --c)
        path.emplace_back(N == 1 ? 0 : c, j);
    std::reverse(path.begin(), path.end());
    return path;
}

}  // namespace kvx

