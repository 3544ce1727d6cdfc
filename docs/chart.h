// Line charts as SVG, with the few things that the pages need: linear or logarithmic axes, bands, filled
// envelopes, lines. Colours follow the reader's light or dark scheme.
#pragma once

#include <cmath>
#include <string>
#include <utility>
#include <vector>

#include "page.h"

namespace docs {

struct Axis {
    double low, high;
    bool logarithmic;
    std::vector<std::pair<double, std::string>> ticks;
    std::string title;

    double position(double value) const {  // 0 to 1
        const auto scale = [this](double v) { return logarithmic ? std::log10(v) : v; };
        const double clamped = std::fmin(std::fmax(value, low), high);
        return (scale(clamped) - scale(low)) / (scale(high) - scale(low));
    }
};

struct Point {
    double x, y;
};

class Chart {
  public:
    Chart(std::string title, Axis x, Axis y) : x_(std::move(x)), y_(std::move(y)) {
        svg_ = format(
            "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 %d %d\" font-family=\"sans-serif\" "
            "font-size=\"13\">\n",
            kWidth, kHeight);
        svg_ += R"(<style>
.paper{fill:#ffffff} .ink{fill:#24292f} .quiet{fill:#57606a} .grid{stroke:#d0d7de} .frame{stroke:#57606a;fill:none}
.line0{stroke:#0550ae;fill:none} .line1{stroke:#bc4c00;fill:none} .area0{fill:#0550ae} .area1{fill:#bc4c00}
.line2{stroke:#116329;fill:none} .line3{stroke:#8250df;fill:none} .line4{stroke:#cf222e;fill:none}
.line5{stroke:#1b7c83;fill:none} .line6{stroke:#9a6700;fill:none} .band{fill:#57606a}
@media (prefers-color-scheme: dark){
.paper{fill:#0d1117} .ink{fill:#e6edf3} .quiet{fill:#9198a1} .grid{stroke:#30363d} .frame{stroke:#9198a1}
.line0{stroke:#79c0ff} .line1{stroke:#ffa657} .area0{fill:#79c0ff} .area1{fill:#ffa657} .line2{stroke:#7ee787}
.line3{stroke:#d2a8ff} .line4{stroke:#ff7b72} .line5{stroke:#76e3ea} .line6{stroke:#e3b341} .band{fill:#9198a1}}
</style>
)";
        svg_ += format("<rect class=\"paper\" width=\"%d\" height=\"%d\" rx=\"6\"/>\n", kWidth, kHeight);
        svg_ += format("<text class=\"ink\" x=\"%d\" y=\"26\" font-size=\"16\">%s</text>\n", kLeft,
                       title.c_str());
        for (const auto& [value, label] : x_.ticks)
            svg_ += format(
                "<path class=\"grid\" d=\"M%.1f %dV%d\"/><text class=\"quiet\" x=\"%.1f\" y=\"%d\" "
                "text-anchor=\"middle\">%s</text>\n",
                across(value), kTop, kBottom, across(value), kBottom + 18, label.c_str());
        for (const auto& [value, label] : y_.ticks)
            svg_ += format(
                "<path class=\"grid\" d=\"M%d %.1fH%d\"/><text class=\"quiet\" x=\"%d\" y=\"%.1f\" "
                "text-anchor=\"end\">%s</text>\n",
                kLeft, up(value), kRight, kLeft - 8, up(value) + 4, label.c_str());
        svg_ += format("<text class=\"ink\" x=\"%d\" y=\"%d\" text-anchor=\"middle\">%s</text>\n",
                       (kLeft + kRight) / 2, kHeight - 12, x_.title.c_str());
        svg_ += format(
            "<text class=\"ink\" transform=\"translate(20 %d) rotate(-90)\" "
            "text-anchor=\"middle\">%s</text>\n",
            (kTop + kBottom) / 2, y_.title.c_str());
    }

    // A stretch of x without meaning, and why.
    void band(double from, double to, const std::string& label) {
        svg_ += format(
            "<rect class=\"band\" fill-opacity=\"0.18\" x=\"%.1f\" y=\"%d\" width=\"%.1f\" height=\"%d\"/>\n",
            across(from), kTop, across(to) - across(from), kBottom - kTop);
        svg_ += format(
            "<text class=\"ink\" transform=\"translate(%.1f %d) rotate(-90)\" "
            "text-anchor=\"end\">%s</text>\n",
            (across(from) + across(to)) / 2 + 5, kTop + 10, label.c_str());
    }

    // The largest values, drawn as a line, over the mean, drawn dashed; `number` chooses the colour.
    void curve(int number, const std::vector<Point>& largest, const std::vector<Point>& mean) {
        svg_ += format("<path class=\"area%d\" fill-opacity=\"0.12\" d=\"", number) + path(largest) +
                format("V%dH%.1fZ\"/>\n", kBottom, across(largest.front().x));
        svg_ += format("<path class=\"line%d\" stroke-width=\"1.4\" d=\"", number) + path(largest) + "\"/>\n";
        svg_ +=
            format("<path class=\"line%d\" stroke-dasharray=\"4 3\" d=\"", number) + path(mean) + "\"/>\n";
    }

    void line(int number, const std::vector<Point>& points) {
        svg_ += format("<path class=\"line%d\" stroke-width=\"1.8\" d=\"", number) + path(points) + "\"/>\n";
    }

    // One line of the legend, at the top right.
    void legend(int number, bool dashed, const std::string& label, int row, int from_right = 190) {
        const int x = kRight - from_right, y = kTop + 20 + 20 * row;
        svg_ += format(
            "<path class=\"line%d\" stroke-width=\"2\"%s d=\"M%d %dh28\"/>"
            "<text class=\"ink\" x=\"%d\" y=\"%d\">%s</text>\n",
            number, dashed ? " stroke-dasharray=\"4 3\"" : "", x, y - 4, x + 36, y, label.c_str());
    }

    std::string svg() const {
        return svg_ + format("<rect class=\"frame\" x=\"%d\" y=\"%d\" width=\"%d\" height=\"%d\"/>\n</svg>\n",
                             kLeft, kTop, kRight - kLeft, kBottom - kTop);
    }

  private:
    static constexpr int kWidth = 860, kHeight = 420, kLeft = 78, kRight = 840, kTop = 44, kBottom = 356;
    double across(double x) const { return kLeft + (kRight - kLeft) * x_.position(x); }
    std::string path(const std::vector<Point>& points) const {
        std::string d;
        for (const Point& p : points)
            d += format("%s%.1f %.1f", d.empty() ? "M" : "L", across(p.x), up(p.y));
        return d;
    }
    double up(double y) const { return kBottom - (kBottom - kTop) * y_.position(y); }

    Axis x_, y_;
    std::string svg_;
};

}  // namespace docs
