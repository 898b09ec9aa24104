// output.h - feature files (CSV, NumPy .npy, HTK parameter files) and
// all-or-nothing file writing for the kvx tool.
#pragma once

#include <cstdio>
#include <string>

#include "frontend.h"

namespace kvx {

// A file written under a temporary name in the target's directory and renamed
// over the target by commit(); destroyed uncommitted, it removes the
// temporary, so a failed run leaves no half-written file. The path "-" writes
// to standard output directly.
class AtomicFile {
public:
    explicit AtomicFile(const std::string& path);  // throws std::runtime_error
    ~AtomicFile();
    AtomicFile(const AtomicFile&) = delete;
    AtomicFile& operator=(const AtomicFile&) = delete;
    std::FILE* get() const { return f_; }
    void write(const void* data, std::size_t n);
    void commit();  // throws std::runtime_error (disk full, ...)

private:
    std::string path_, temp_;
    std::FILE* f_ = nullptr;
    bool stdout_ = false;
};

enum class FeatureFormat { Csv, Npy, Htk };
bool parseFormat(const std::string& name, FeatureFormat& f);
const char* formatExtension(FeatureFormat f);  // ".csv", ".npy", ".htk"

// CSV: a header "c0,c1,..." and one line per frame, shortest round-trip
// decimal floats. NPY: format 1.0, '<f4', C order, shape (frames, ceps).
// HTK: big-endian header (frames, period in 100 ns, bytes per frame, kind
// MFCC_0, plus _Z with mean removal) and frames as big-endian floats; as HTK
// orders MFCC_0, each frame holds c1..c(n-1) and then c0.
void writeFeatures(AtomicFile& out, const Features& f, FeatureFormat fmt, const FeatureOptions& o);

}  // namespace kvx
