// output.cpp - see output.h.
#include "output.h"

#include <sys/stat.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <vector>

namespace kvx {

AtomicFile::AtomicFile(const std::string& path) : path_(path) {
    if (path == "-") {
        f_ = stdout;
        stdout_ = true;
        return;
    }
    std::filesystem::path p(path);
    std::filesystem::path dir = p.has_parent_path() ? p.parent_path() : std::filesystem::path(".");
    std::string tmpl = (dir / ("." + p.filename().string() + ".XXXXXX")).string();
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    int fd = mkstemp(buf.data());
    if (fd < 0) throw std::runtime_error(path + ": cannot create: " + std::strerror(errno));
    temp_ = buf.data();
    f_ = fdopen(fd, "wb");
    if (!f_) {
        close(fd);
        std::remove(temp_.c_str());
        throw std::runtime_error(path + ": cannot write: " + std::strerror(errno));
    }
}

AtomicFile::~AtomicFile() {
    if (!stdout_ && f_) {
        std::fclose(f_);
        std::remove(temp_.c_str());
    }
}

void AtomicFile::write(const void* data, std::size_t n) {
    if (n && std::fwrite(data, 1, n, f_) != n) throw std::runtime_error(path_ + ": write failed: " + std::strerror(errno));
}

void AtomicFile::commit() {
    if (stdout_) {
        std::fflush(f_);
        return;
    }
    bool ok = std::fflush(f_) == 0 && !std::ferror(f_);
    ok = (std::fclose(f_) == 0) && ok;
    f_ = nullptr;
    if (!ok) {
        std::remove(temp_.c_str());
        throw std::runtime_error(path_ + ": write failed: " + std::strerror(errno));
    }
    // mkstemp makes the file private; give it the usual permissions.
    mode_t mask = umask(0);
    umask(mask);
    chmod(temp_.c_str(), 0666 & ~mask);
    if (std::rename(temp_.c_str(), path_.c_str()) != 0) {
        int e = errno;
        std::remove(temp_.c_str());
        throw std::runtime_error(path_ + ": cannot rename into place: " + std::strerror(e));
    }
}

bool parseFormat(const std::string& name, FeatureFormat& f) {
    if (name == "csv") f = FeatureFormat::Csv;
    else if (name == "npy") f = FeatureFormat::Npy;
    else if (name == "htk") f = FeatureFormat::Htk;
    else return false;
    return true;
}

const char* formatExtension(FeatureFormat f) {
    switch (f) {
    case FeatureFormat::Csv: return ".csv";
    case FeatureFormat::Npy: return ".npy";
    default: return ".htk";
    }
}

namespace {

void writeCsv(AtomicFile& out, const Features& f) {
    std::string s;
    for (int c = 0; c < f.cols; ++c) s += (c ? ",c" : "c") + std::to_string(c);
    s += '\n';
    char num[32];
    for (int r = 0; r < f.rows; ++r) {
        const float* v = f.row(r);
        for (int c = 0; c < f.cols; ++c) {
            if (c) s += ',';
            auto res = std::to_chars(num, num + sizeof num, v[c]);
            s.append(num, res.ptr);
        }
        s += '\n';
        if (s.size() > (1 << 16)) {
            out.write(s.data(), s.size());
            s.clear();
        }
    }
    out.write(s.data(), s.size());
}

void writeNpy(AtomicFile& out, const Features& f) {
    std::string header = "{'descr': '<f4', 'fortran_order': False, 'shape': (" + std::to_string(f.rows) + ", " +
                         std::to_string(f.cols) + "), }";
    std::size_t total = 10 + header.size() + 1;
    header.append((64 - total % 64) % 64, ' ');
    header += '\n';
    const std::uint16_t len = static_cast<std::uint16_t>(header.size());
    const unsigned char magic[10] = {0x93, 'N', 'U', 'M', 'P', 'Y', 1, 0, static_cast<unsigned char>(len & 0xff),
                                     static_cast<unsigned char>(len >> 8)};
    out.write(magic, 10);
    out.write(header.data(), header.size());
    static_assert(std::endian::native == std::endian::little, "npy writer assumes a little-endian host");
    out.write(f.values.data(), f.values.size() * sizeof(float));
}

void putBe32(std::vector<unsigned char>& b, std::uint32_t v) {
    for (int s = 24; s >= 0; s -= 8) b.push_back(static_cast<unsigned char>(v >> s));
}

void writeHtk(AtomicFile& out, const Features& f, const FeatureOptions& o) {
    constexpr std::uint16_t kMfcc = 6, kZeroth = 0x2000, kMeanRemoved = 0x0800;
    std::vector<unsigned char> b;
    putBe32(b, static_cast<std::uint32_t>(f.rows));
    const double period = 1e7 * o.hopLength() / o.rate;  // 100 ns units
    putBe32(b, static_cast<std::uint32_t>(period + 0.5));
    const std::uint16_t size = static_cast<std::uint16_t>(4 * f.cols);
    const std::uint16_t kind = kMfcc | kZeroth | (o.cmn ? kMeanRemoved : 0);
    b.push_back(static_cast<unsigned char>(size >> 8));
    b.push_back(static_cast<unsigned char>(size));
    b.push_back(static_cast<unsigned char>(kind >> 8));
    b.push_back(static_cast<unsigned char>(kind));
    out.write(b.data(), b.size());
    std::vector<std::uint32_t> block;
    for (int r = 0; r < f.rows; ++r) {
        const float* v = f.row(r);
        for (int c = 1; c <= f.cols; ++c) {
            std::uint32_t u = std::bit_cast<std::uint32_t>(v[c % f.cols]);
            if constexpr (std::endian::native == std::endian::little)
                u = (u >> 24) | ((u >> 8) & 0xff00u) | ((u << 8) & 0xff0000u) | (u << 24);
            block.push_back(u);
        }
        if (block.size() > (1 << 14)) {
            out.write(block.data(), block.size() * 4);
            block.clear();
        }
    }
    out.write(block.data(), block.size() * 4);
}

}  // namespace

void writeFeatures(AtomicFile& out, const Features& f, FeatureFormat fmt, const FeatureOptions& o) {
    switch (fmt) {
    case FeatureFormat::Csv: writeCsv(out, f); break;
    case FeatureFormat::Npy: writeNpy(out, f); break;
    case FeatureFormat::Htk: writeHtk(out, f, o); break;
    }
}

}  // namespace kvx
