// File: Svg.h
// Just enough SVG for the report's charts: a plot frame that maps run time and values to
// pixels, axes with round tick steps, and escaped text.
#pragma once

#include <string>
#include <string_view>

namespace orvane::sim::demo {

// Text safe inside HTML and SVG elements and attributes.
std::string escape(std::string_view text);
// A number with at most `decimals` decimals and no trailing zeros ("12.5", "3").
std::string number(double value, int decimals = 1);
// The step of at most `maxTicks` ticks over `range` out of 1, 2, 5 times a power of ten.
double tickStep(double range, int maxTicks);

// The plot area of one chart: time from 0 to `length` across, values from `low` to `high` up.
struct Frame {
  double left = 0, right = 0, top = 0, bottom = 0;  // pixels
  double length = 1;                                // seconds
  double low = 0, high = 1;

  double x(double t) const;
  double y(double value) const;
  // A time axis along the bottom, with vertical grid lines up to `gridTop`.
  std::string timeAxis(double gridTop) const;
  // A value axis on the left with grid lines, labelled `unit`.
  std::string valueAxis(const std::string& unit) const;
  // A band across the plot between two times, filled with `fill`.
  std::string band(double from, double to, const std::string& fill, double top,
                   double bottom) const;
};

}  // namespace orvane::sim::demo
