// plot.cpp - PNG plots for `kvx plot` and the demo, drawn with cairo:
// waveform, spectrogram and, against a template, the local-distance matrix
// with the warping path.
#include <cairo.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <stdexcept>

#include "kvxpx.h"
#include "output.h"
#include "tool.h"

namespace kvx {

namespace {

struct Rgb {
    double r, g, b;
};

// Dark blue - purple - orange - pale yellow, for 0..1.
Rgb heat(double v) {
    static const Rgb stops[] = {{0.0, 0.0, 0.1}, {0.35, 0.05, 0.5}, {0.8, 0.25, 0.3}, {1.0, 0.65, 0.1}, {1.0, 1.0, 0.75}};
    v = std::clamp(v, 0.0, 1.0) * 4;
    int i = std::min(3, static_cast<int>(v));
    double t = v - i;
    return {stops[i].r + t * (stops[i + 1].r - stops[i].r), stops[i].g + t * (stops[i + 1].g - stops[i].g),
            stops[i].b + t * (stops[i + 1].b - stops[i].b)};
}

void text(cairo_t* cr, double x, double y, const std::string& s, double size = 12) {
    cairo_set_source_rgb(cr, 0.1, 0.1, 0.1);
    cairo_set_font_size(cr, size);
    cairo_move_to(cr, x, y);
    cairo_show_text(cr, s.c_str());
}

void frame(cairo_t* cr, double x, double y, double w, double h) {
    cairo_set_source_rgb(cr, 0.3, 0.3, 0.3);
    cairo_set_line_width(cr, 1);
    cairo_rectangle(cr, x + 0.5, y + 0.5, w, h);
    cairo_stroke(cr);
}

// An image of rows x cols values (0..1, row 0 at the bottom) scaled into a box.
void image(cairo_t* cr, const std::vector<double>& v, int rows, int cols, double x, double y, double w, double h,
           bool gray) {
    cairo_surface_t* img = cairo_image_surface_create(CAIRO_FORMAT_RGB24, cols, rows);
    unsigned char* data = cairo_image_surface_get_data(img);
    const int stride = cairo_image_surface_get_stride(img);
    cairo_surface_flush(img);
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) {
            double val = v[static_cast<std::size_t>(r) * cols + c];
            Rgb p = gray ? Rgb{1 - val, 1 - val, 1 - val} : heat(val);
            auto* px = reinterpret_cast<std::uint32_t*>(data + static_cast<std::size_t>(rows - 1 - r) * stride) + c;
            *px = (static_cast<std::uint32_t>(p.r * 255) << 16) | (static_cast<std::uint32_t>(p.g * 255) << 8) |
                  static_cast<std::uint32_t>(p.b * 255);
        }
    cairo_surface_mark_dirty(img);
    cairo_save(cr);
    cairo_translate(cr, x, y);
    cairo_scale(cr, w / cols, h / rows);
    cairo_set_source_surface(cr, img, 0, 0);
    cairo_pattern_set_filter(cairo_get_source(cr), CAIRO_FILTER_NEAREST);
    cairo_paint(cr);
    cairo_restore(cr);
    cairo_surface_destroy(img);
}

cairo_status_t toFile(void* closure, const unsigned char* data, unsigned int length) {
    try {
        static_cast<AtomicFile*>(closure)->write(data, length);
        return CAIRO_STATUS_SUCCESS;
    } catch (...) {
        return CAIRO_STATUS_WRITE_ERROR;
    }
}

}  // namespace

void writePlot(const std::string& png, const std::string& title, const std::vector<float>& audio,
               const FeatureOptions& fo, const Features* test, const Template* tmpl, const DtwOptions* dtw) {
    const int L = fo.frameLength(), hop = fo.hopLength(), order = fo.fftOrder(), N = 1 << order;
    if (audio.size() < static_cast<std::size_t>(L)) throw UsageError("audio shorter than one frame; nothing to plot");
    const bool withDtw = test && tmpl && dtw;
    const double W = 1000, left = 70, right = 20, pw = W - left - right;
    const double waveH = 110, spectrumH = 220, dtwH = withDtw ? 380 : 0;
    const double H = 40 + waveH + 30 + spectrumH + (withDtw ? 50 + dtwH : 0) + 40;
    cairo_surface_t* surf = cairo_image_surface_create(CAIRO_FORMAT_RGB24, static_cast<int>(W), static_cast<int>(H));
    cairo_t* cr = cairo_create(surf);
    cairo_set_source_rgb(cr, 1, 1, 1);
    cairo_paint(cr);
    cairo_select_font_face(cr, "sans-serif", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
    text(cr, left, 24, title, 15);
    const double seconds = static_cast<double>(audio.size()) / fo.rate;

    // Waveform: min and max per pixel column.
    double y0 = 40;
    frame(cr, left, y0, pw, waveH);
    float peak = 1;
    for (float s : audio) peak = std::max(peak, std::fabs(s));
    cairo_set_source_rgb(cr, 0.1, 0.3, 0.6);
    for (int px = 0; px < static_cast<int>(pw); ++px) {
        std::size_t a = audio.size() * px / static_cast<std::size_t>(pw);
        std::size_t b = std::max(a + 1, audio.size() * (px + 1) / static_cast<std::size_t>(pw));
        auto [lo, hi] = std::minmax_element(audio.begin() + a, audio.begin() + std::min(b, audio.size()));
        cairo_move_to(cr, left + px + 0.5, y0 + waveH / 2 - *hi / peak * (waveH / 2 - 2));
        cairo_line_to(cr, left + px + 0.5, y0 + waveH / 2 - *lo / peak * (waveH / 2 - 2) + 1);
    }
    cairo_stroke(cr);
    text(cr, 8, y0 + waveH / 2, "wave", 11);
    char buf[128];
    std::snprintf(buf, sizeof buf, "%.2f s at %d Hz", seconds, fo.rate);
    text(cr, left + pw - 120, y0 + waveH + 14, buf, 11);

    // Spectrogram through the library's FFT: pre-emphasis off, Hamming window.
    double y1 = y0 + waveH + 30;
    const long frames = static_cast<long>((audio.size() - L) / hop + 1);
    const int bins = N / 2 + 1;
    std::vector<double> spectrum(static_cast<std::size_t>(bins) * frames);
    std::vector<float> buf1(N), buf2(N);
    double top = -1e300;
    for (long k = 0; k < frames; ++k) {
        std::fill(buf1.begin(), buf1.end(), 0.0f);
        std::copy_n(audio.begin() + k * hop, L, buf1.begin());
        QXsWinHamming(buf1.data(), L);
        QXsRealFftNip(buf1.data(), buf2.data(), order, QX_FORWARD);
        for (int b = 0; b < bins; ++b) {
            double re = b == 0 ? buf2[0] : b == N / 2 ? buf2[1] : buf2[2 * b], im = b == 0 || b == N / 2 ? 0 : buf2[2 * b + 1];
            double db = 10 * std::log10(re * re + im * im + 1e-3);
            spectrum[static_cast<std::size_t>(b) * frames + k] = db;
            top = std::max(top, db);
        }
    }
    for (double& v : spectrum) v = (v - (top - 80)) / 80;  // top 80 dB
    image(cr, spectrum, bins, static_cast<int>(frames), left, y1, pw, spectrumH, false);
    frame(cr, left, y1, pw, spectrumH);
    text(cr, 8, y1 + 12, std::to_string(fo.rate / 2) + " Hz", 11);
    text(cr, 8, y1 + spectrumH, "0 Hz", 11);
    text(cr, left, y1 + spectrumH + 14, "spectrogram, top 80 dB", 11);

    if (withDtw) {
        const int n = test->rows, m = tmpl->rows;
        double y2 = y1 + spectrumH + 50;
        double score = 0;
        auto path = warpPath(*test, *tmpl, *dtw, &score);
        // The library's score for the same template, from its own matcher.
        Store one;
        one.features = fo;
        one.templates.push_back(*tmpl);
        Matcher matcher(one);
        double lib = matcher.match(*test, *dtw).templateScores.at(0);
        std::vector<double> d(static_cast<std::size_t>(n) * m);
        double dmax = 1e-12;
        for (int j = 0; j < m; ++j)
            for (int i = 0; i < n; ++i) {
                double v = localDistance(test->row(i), tmpl->row(j), tmpl->cols, dtw->euclidean);
                d[static_cast<std::size_t>(j) * n + i] = v;
                dmax = std::max(dmax, v);
            }
        for (double& v : d) v = 1 - v / dmax;  // dark = close
        const double side = std::min(dtwH, pw);
        const double bw = std::min(pw, side * n / std::max(m, 1) * 1.0), bh = side;
        image(cr, d, m, n, left, y2, bw, bh, true);
        cairo_set_source_rgb(cr, 0.85, 0.1, 0.1);
        cairo_set_line_width(cr, 2);
        for (std::size_t k = 0; k < path.size(); ++k) {
            double px = left + (path[k].first + 0.5) * bw / n, py = y2 + bh - (path[k].second + 0.5) * bh / m;
            if (k == 0) cairo_move_to(cr, px, py);
            else cairo_line_to(cr, px, py);
        }
        cairo_stroke(cr);
        frame(cr, left, y2, bw, bh);
        text(cr, 8, y2 + 12, "template", 11);
        std::snprintf(buf, sizeof buf, "local distances (%s; dark = close), test frames across; warping path in red",
                      dtw->euclidean ? "Euclidean" : "city-block");
        text(cr, left, y2 - 8, buf, 11);
        std::snprintf(buf, sizeof buf, "path score %.1f, library score %.1f, %.3f per frame", score, lib,
                      n ? lib / n : 0.0);
        text(cr, left, y2 + bh + 16, buf, 11);
    }

    cairo_destroy(cr);
    cairo_surface_flush(surf);
    AtomicFile out(png);
    cairo_status_t st = cairo_surface_write_to_png_stream(surf, toFile, &out);
    cairo_surface_destroy(surf);
    if (st != CAIRO_STATUS_SUCCESS) throw std::runtime_error(png + ": " + cairo_status_to_string(st));
    out.commit();
}

}  // namespace kvx
