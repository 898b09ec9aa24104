// match.h - template matching for the kvx tool: the store's templates go into
// kvxpx's float pattern store and a test utterance is scored against all of
// them with QXsEvalDTW.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "frontend.h"
#include "store.h"

namespace kvx {

struct DtwOptions {
    bool euclidean = false;  // city-block (default) or Euclidean local distance
    bool relaxed = true;     // relaxed end points ...
    int range = 3;           // ... with this many frames of slack at each end
    double prune = 0;        // pruning threshold on the summed distance, 0 = none
    int flags() const;       // the QX_DTW_* option bits
};

// What a test scored: per label the best template (scores are the summed
// local distances divided by the test's frame count; "no match" when no
// template of any label was eligible).
struct Match {
    bool matched = false;
    std::string best, second;   // labels; second is "" with one label only
    double bestScore = 0, secondScore = 0;
    double margin() const { return second.empty() ? 0 : secondScore - bestScore; }
    std::vector<double> templateScores;  // per template, 3.4e38 when ineligible
};

class Matcher {
public:
    explicit Matcher(const Store& store);  // loads the templates; throws std::runtime_error
    ~Matcher();
    Matcher(const Matcher&) = delete;
    Matcher& operator=(const Matcher&) = delete;
    Match match(const Features& test, const DtwOptions& o);

private:
    const Store& store_;
    std::vector<int> ids_;
};

// The warping path the matcher's local path rules choose for one template
// (pairs of test frame, template frame), worked out on the full grid for
// plotting; its score (summed distances) is what QXsEvalDTW reports without
// pruning. Empty when the template is not eligible for the test.
std::vector<std::pair<int, int>> warpPath(const Features& test, const Template& t, const DtwOptions& o,
                                          double* score);

// Local distance of two vectors as the matcher measures it.
double localDistance(const float* a, const float* b, int n, bool euclidean);

}  // namespace kvx
