#include "replay/sweep.h"

#include <fmt/format.h>
#include <array>
#include <optional>

#include "replay/matching.h"

namespace varnel::replay {

namespace {

constexpr double kLeft = 60;
constexpr double kTop = 40;
constexpr double kWidth = 480;
constexpr double kHeight = 320;
constexpr double kLegend = kLeft + kWidth + 24;

struct Shades {
  const char* light;
  const char* dark;
};
/// Far apart for colour-blind eyes too, each with enough contrast to its background.
constexpr std::array<Shades, 6> kShades{{{"#1f5fbf", "#7fb0ff"},
                                         {"#b8441f", "#ff9a73"},
                                         {"#2b7d3a", "#7fd68f"},
                                         {"#7a3fa0", "#cf9cf5"},
                                         {"#7d5a00", "#e3b94d"},
                                         {"#0f6d73", "#5fd3da"}}};

double X(double threshold) {
  return kLeft + threshold * kWidth;
}

double Y(double value) {
  return kTop + (1 - value) * kHeight;
}

size_t ShadeOf(size_t cls) {
  return cls % kShades.size();
}

std::string Escaped(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    switch (c) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      default:
        escaped += c;
    }
  }
  return escaped;
}

std::string Style() {
  std::string light;
  std::string dark;
  for (size_t i = 0; i < kShades.size(); ++i) {
    light += fmt::format(".c{}{{color:{}}}", i, kShades[i].light);
    dark += fmt::format(".c{}{{color:{}}}", i, kShades[i].dark);
  }
  return "<style>text{font:12px sans-serif;fill:#222}.back{fill:#fff}.grid{stroke:#ddd}"
         ".axis{stroke:#222;fill:none}.line{stroke:currentColor;stroke-width:2;fill:none}"
         ".dash{stroke-dasharray:6 4}.dot{stroke-dasharray:2 4}.mark{fill:currentColor}" +
         light + "@media(prefers-color-scheme:dark){text{fill:#ddd}.back{fill:#181818}" +
         ".grid{stroke:#3a3a3a}.axis{stroke:#ddd}" + dark + "}</style>\n";
}

std::string Line(double x1, double y1, double x2, double y2, const std::string& classes) {
  return fmt::format(R"(<line class="{}" x1="{:.1f}" y1="{:.1f}" x2="{:.1f}" y2="{:.1f}"/>)"
                     "\n",
                     classes, x1, y1, x2, y2);
}

std::string Text(double x, double y, const char* anchor, const std::string& text) {
  return fmt::format(R"(<text x="{:.1f}" y="{:.1f}" text-anchor="{}">{}</text>)"
                     "\n",
                     x, y, anchor, Escaped(text));
}

std::string Axes(const std::string& title) {
  std::string svg;
  for (int tenth = 0; tenth <= 10; tenth += 2) {
    const double value = tenth / 10.0;
    svg += Line(X(value), kTop, X(value), kTop + kHeight, "grid");
    svg += Line(kLeft, Y(value), kLeft + kWidth, Y(value), "grid");
    svg += Text(X(value), kTop + kHeight + 18, "middle", fmt::format("{:.1f}", value));
    svg += Text(kLeft - 8, Y(value) + 4, "end", fmt::format("{:.1f}", value));
  }
  svg += fmt::format(R"(<polyline class="axis" points="{0:.1f},{1:.1f} {0:.1f},{2:.1f} {3:.1f},)"
                     R"({2:.1f}"/>)"
                     "\n",
                     kLeft, kTop, kTop + kHeight, kLeft + kWidth);
  return svg + Text(kLeft + kWidth / 2, kTop + kHeight + 38, "middle", "threshold") +
         Text(kLeft, kTop - 16, "start", title);
}

using Figure = std::optional<double> (Scores::*)() const;

/// One curve; where a figure has no value it is interrupted.
std::string Curve(const Sweep& sweep, size_t cls, Figure figure, const std::string& classes) {
  std::string svg;
  std::string points;
  const auto end_piece = [&] {
    if (!points.empty())
      svg += fmt::format("<polyline class=\"{}\" points=\"{}\"/>\n", classes, points);
    points.clear();
  };
  for (size_t step = 0; step < Sweep::kSteps; ++step) {
    const std::optional<double> value = (sweep.At(cls, step).*figure)();
    if (!value) {
      end_piece();
      continue;
    }
    const double x = X(static_cast<double>(Sweep::Threshold(step)));
    points += fmt::format("{}{:.1f},{:.1f}", points.empty() ? "" : " ", x, Y(*value));
    svg += fmt::format(R"(<circle class="mark c{}" cx="{:.1f}" cy="{:.1f}" r="2.5"/>)"
                       "\n",
                       ShadeOf(cls), x, Y(*value));
  }
  end_piece();
  return svg;
}

std::string LegendEntry(size_t row, const std::string& classes, const std::string& text) {
  const double y = kTop + 10 + static_cast<double>(row) * 20;
  return Line(kLegend, y, kLegend + 30, y, classes) + Text(kLegend + 38, y + 4, "start", text);
}

}  // namespace

void Sweep::Add(std::span<const Truth> truths, std::span<const Prediction> candidates) {
  for (const Truth& truth : truths) ++classes_[truth.cls].objects;
  const Matches matches = MatchWithinClasses(truths, candidates);
  for (size_t i = 0; i < candidates.size(); ++i) {
    Counts& counts = classes_[candidates[i].cls];
    std::vector<int64_t>& kind = matches[i] ? counts.hits : counts.false_alarms;
    for (size_t step = 0; step < kSteps && candidates[i].probability > Threshold(step); ++step)
      ++kind[step];
  }
}

void Sweep::AddByValue(std::span<const Truth> truths, std::span<const Prediction> predictions,
                       std::span<const std::optional<float>> values) {
  for (const Truth& truth : truths) ++classes_[truth.cls].objects;
  for (size_t step = 0; step < kSteps; ++step) {
    std::vector<Prediction> left;
    for (size_t i = 0; i < predictions.size(); ++i)
      if (!values[i] || *values[i] >= Threshold(step)) left.push_back(predictions[i]);
    const Matches matches = MatchWithinClasses(truths, left);
    for (size_t i = 0; i < left.size(); ++i) {
      Counts& counts = classes_[left[i].cls];
      ++(matches[i] ? counts.hits : counts.false_alarms)[step];
    }
  }
}

void Sweep::Add(const Sweep& other) {
  for (size_t cls = 0; cls < classes_.size(); ++cls) {
    Counts& counts = classes_[cls];
    const Counts& more = other.classes_[cls];
    counts.objects += more.objects;
    for (size_t step = 0; step < kSteps; ++step) {
      counts.hits[step] += more.hits[step];
      counts.false_alarms[step] += more.false_alarms[step];
    }
  }
}

Scores Sweep::At(size_t cls, size_t step) const {
  const Counts& counts = classes_[cls];
  return {counts.hits[step], counts.false_alarms[step], counts.objects - counts.hits[step]};
}

std::optional<Sweep::Range> Sweep::Best(size_t cls) const {
  std::optional<Range> best;
  double highest = -1;
  for (size_t step = 0; step < kSteps; ++step) {
    const std::optional<double> f1 = At(cls, step).F1();
    if (f1 && *f1 > highest) {
      best = Range{step, step};
      highest = *f1;
    } else if (f1 == highest && best->last + 1 == step) {
      best->last = step;
    }
  }
  return best;
}

std::string SweepPlot(const std::string& title, const Sweep& sweep,
                      const std::vector<std::string>& classes,
                      const std::map<std::string, float>& thresholds) {
  const double width = kLegend + 210;
  const double height =
      std::max(kTop + kHeight + 56, kTop + 60 * static_cast<double>(classes.size()));
  std::string svg = fmt::format(R"(<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {:.0f} )"
                                R"({:.0f}" width="{:.0f}" height="{:.0f}">)"
                                "\n",
                                width, height, width, height);
  svg += Style() + R"(<rect class="back" width="100%" height="100%"/>)" + "\n" + Axes(title);
  for (size_t cls = 0; cls < classes.size(); ++cls) {
    const std::string line = fmt::format("line c{}", ShadeOf(cls));
    svg += Curve(sweep, cls, &Scores::Recall, line);
    svg += Curve(sweep, cls, &Scores::Precision, line + " dash");
    svg += LegendEntry(3 * cls, line, classes[cls] + " recall");
    svg += LegendEntry(3 * cls + 1, line + " dash", classes[cls] + " precision");
    const auto used = thresholds.find(classes[cls]);
    if (used == thresholds.end()) continue;
    const double x = X(static_cast<double>(used->second));
    svg += Line(x, kTop, x, kTop + kHeight, line + " dot");
    svg += LegendEntry(3 * cls + 2, line + " dot",
                       fmt::format("{} threshold {:.2f}", classes[cls], used->second));
  }
  return svg + "</svg>\n";
}

}  // namespace varnel::replay
