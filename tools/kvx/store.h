// store.h - the kvx template store: a JSON file holding the feature settings
// and the enrolled templates (see docs/kvx.md for the format).
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "frontend.h"

namespace kvx {

inline constexpr const char* kStoreFormat = "kvx template store";
inline constexpr int kStoreVersion = 1;

// An empty, corrupt, foreign or incompatible store (an input error).
struct StoreError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Template {
    std::string label;
    std::string source;       // the audio it was made from
    int rows = 0, cols = 0;   // frames x coefficients
    std::vector<float> values;
    const float* row(int r) const { return values.data() + static_cast<std::size_t>(r) * cols; }
};

struct Store {
    FeatureOptions features;
    std::vector<Template> templates;
    std::vector<std::string> labels() const;  // distinct, in order of first enrolment
};

// Feature settings as stored: lengths in samples, window by name.
nlohmann::json optionsToJson(const FeatureOptions& o);
FeatureOptions optionsFromJson(const nlohmann::json& j);  // throws StoreError

Store loadStore(const std::string& path);              // throws StoreError
void saveStore(const std::string& path, const Store& s);  // atomic; throws std::runtime_error

}  // namespace kvx
