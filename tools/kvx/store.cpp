// store.cpp - see store.h.
#include "store.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "output.h"

namespace kvx {

using nlohmann::json;

std::vector<std::string> Store::labels() const {
    std::vector<std::string> out;
    for (const auto& t : templates)
        if (std::find(out.begin(), out.end(), t.label) == out.end()) out.push_back(t.label);
    return out;
}

json optionsToJson(const FeatureOptions& o) {
    return json{{"rate", o.rate},
                {"frame", o.frameLength()},
                {"hop", o.hopLength()},
                {"preemph", o.preemph},
                {"window", windowName(o.window)},
                {"bands", o.bands},
                {"low", o.low},
                {"high", o.high},
                {"linear", o.linear},
                {"linear_end", o.linearEnd},
                {"ceps", o.ceps},
                {"fixed_point", o.fixedPoint},
                {"cmn", o.cmn},
                {"energy_floor", o.energyFloorDb},
                {"zero_floor", o.zeroFloor}};
}

FeatureOptions optionsFromJson(const json& j) {
    FeatureOptions o;
    try {
        o.rate = j.at("rate").get<int>();
        o.frameSamples = j.at("frame").get<int>();
        o.hopSamples = j.at("hop").get<int>();
        o.preemph = j.at("preemph").get<double>();
        if (!parseWindow(j.at("window").get<std::string>(), o.window))
            throw StoreError("unknown window \"" + j.at("window").get<std::string>() + "\"");
        o.bands = j.at("bands").get<int>();
        o.low = j.at("low").get<int>();
        o.high = j.at("high").get<int>();
        o.linear = j.at("linear").get<int>();
        o.linearEnd = j.at("linear_end").get<int>();
        o.ceps = j.at("ceps").get<int>();
        o.fixedPoint = j.at("fixed_point").get<bool>();
        o.cmn = j.at("cmn").get<bool>();
        o.energyFloorDb = j.at("energy_floor").get<double>();
        o.zeroFloor = j.at("zero_floor").get<float>();
    } catch (const json::exception& e) {
        throw StoreError(std::string("bad feature settings: ") + e.what());
    }
    std::string bad = checkOptions(o);
    if (!bad.empty()) throw StoreError("bad feature settings: " + bad);
    return o;
}

Store loadStore(const std::string& path) {
    std::error_code ec;
    if (!std::filesystem::exists(path, ec)) throw StoreError(path + ": no such store");
    std::ifstream in(path, std::ios::binary);
    if (!in) throw StoreError(path + ": cannot read the store");
    std::stringstream ss;
    ss << in.rdbuf();
    const std::string text = ss.str();
    if (text.find_first_not_of(" \t\r\n") == std::string::npos) throw StoreError(path + ": the store is empty");
    json j = json::parse(text, nullptr, false);
    if (j.is_discarded()) throw StoreError(path + ": not a kvx store (not valid JSON; damaged or truncated?)");
    if (!j.is_object() || j.value("format", "") != kStoreFormat) throw StoreError(path + ": not a kvx store");
    int version = j.value("version", 0);
    if (version != kStoreVersion)
        throw StoreError(path + ": store version " + std::to_string(version) + " is not supported (this kvx reads " +
                         std::to_string(kStoreVersion) + ")");
    Store s;
    try {
        s.features = optionsFromJson(j.at("features"));
        for (const auto& t : j.at("templates")) {
            Template tp;
            tp.label = t.at("label").get<std::string>();
            tp.source = t.value("source", "");
            tp.rows = t.at("frames").get<int>();
            tp.cols = s.features.ceps;
            tp.values = t.at("values").get<std::vector<float>>();
            if (tp.label.empty() || tp.rows < 1 || tp.values.size() != static_cast<std::size_t>(tp.rows) * tp.cols)
                throw StoreError("template \"" + tp.label + "\" is damaged (" + std::to_string(tp.values.size()) +
                                 " values for " + std::to_string(tp.rows) + " frames of " +
                                 std::to_string(tp.cols) + ")");
            for (float v : tp.values)
                if (!std::isfinite(v)) throw StoreError("template \"" + tp.label + "\" holds a non-finite value");
            s.templates.push_back(std::move(tp));
        }
    } catch (const StoreError& e) {
        throw StoreError(path + ": " + e.what());
    } catch (const json::exception& e) {
        throw StoreError(path + ": damaged store: " + e.what());
    }
    return s;
}

void saveStore(const std::string& path, const Store& s) {
    // One template per line, so that the file reads and diffs well.
    std::string text = "{\n \"format\": " + json(kStoreFormat).dump() + ",\n \"version\": " +
                       std::to_string(kStoreVersion) + ",\n \"features\": " + optionsToJson(s.features).dump() +
                       ",\n \"templates\": [";
    for (std::size_t i = 0; i < s.templates.size(); ++i) {
        const auto& t = s.templates[i];
        json jt{{"label", t.label}, {"source", t.source}, {"frames", t.rows}, {"values", t.values}};
        text += (i ? ",\n  " : "\n  ") + jt.dump();
    }
    text += "\n ]\n}\n";
    AtomicFile out(path);
    out.write(text.data(), text.size());
    out.commit();
}

}  // namespace kvx
