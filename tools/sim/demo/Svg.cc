#include "Svg.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace orvane::sim::demo {
namespace {

std::string gridLine(double x1, double y1, double x2, double y2) {
  return "<line class=\"grid\" x1=\"" + number(x1) + "\" y1=\"" + number(y1) + "\" x2=\"" +
         number(x2) + "\" y2=\"" + number(y2) + "\"/>";
}

std::string tick(double x, double y, const std::string& label, const char* anchor) {
  return "<text class=\"tick\" x=\"" + number(x) + "\" y=\"" + number(y) + "\" text-anchor=\"" +
         anchor + "\">" + label + "</text>";
}

}  // namespace

std::string escape(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string number(double value, int decimals) {
  if (!std::isfinite(value)) return "0";
  char text[48];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  std::string out = text;
  if (out.find('.') != std::string::npos) {
    while (out.back() == '0') out.pop_back();
    if (out.back() == '.') out.pop_back();
  }
  return out == "-0" ? "0" : out;
}

double tickStep(double range, int maxTicks) {
  if (!(range > 0) || maxTicks < 1) return 1;
  const double raw = range / maxTicks;
  const double power = std::pow(10, std::floor(std::log10(raw)));
  for (double factor : {1.0, 2.0, 5.0, 10.0}) {
    if (factor * power >= raw) return factor * power;
  }
  return 10 * power;
}

double Frame::x(double t) const {
  const double span = length > 0 ? length : 1;
  return left + (right - left) * std::clamp(t / span, 0.0, 1.0);
}

double Frame::y(double value) const {
  const double span = high > low ? high - low : 1;
  return bottom - (bottom - top) * std::clamp((value - low) / span, 0.0, 1.0);
}

std::string Frame::timeAxis(double gridTop) const {
  std::string svg;
  const double step = tickStep(length, 12);
  for (double t = 0; t <= length + 1e-9; t += step) {
    svg += gridLine(x(t), gridTop, x(t), bottom);
    svg += tick(x(t), bottom + 14, number(t) + " s", "middle");
  }
  svg += "<line class=\"axis\" x1=\"" + number(left) + "\" y1=\"" + number(bottom) + "\" x2=\"" +
         number(right) + "\" y2=\"" + number(bottom) + "\"/>";
  return svg;
}

std::string Frame::valueAxis(const std::string& unit) const {
  std::string svg;
  const double step = tickStep(high - low, 4);
  for (double v = std::ceil(low / step) * step; v <= high + 1e-9; v += step) {
    svg += gridLine(left, y(v), right, y(v));
    svg += tick(left - 6, y(v) + 4, number(v, 3), "end");
  }
  svg += "<text class=\"unit\" x=\"" + number(left - 6) + "\" y=\"" + number(top - 8) +
         "\" text-anchor=\"end\">" + escape(unit) + "</text>";
  return svg;
}

std::string Frame::band(double from, double to, const std::string& fill, double bandTop,
                        double bandBottom) const {
  const double x0 = x(from);
  const double x1 = x(to);
  return "<rect x=\"" + number(x0) + "\" y=\"" + number(bandTop) + "\" width=\"" +
         number(std::max(x1 - x0, 0.0)) + "\" height=\"" +
         number(std::max(bandBottom - bandTop, 0.0)) + "\" fill=\"" + fill + "\"/>";
}

}  // namespace orvane::sim::demo
