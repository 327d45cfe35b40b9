#include "platform/linux/DefaultRoutes.h"

#include <charconv>
#include <fstream>
#include <sstream>
#include <vector>

namespace orvane::linux_routes {
namespace {

constexpr unsigned long kRouteUp = 0x0001;      // RTF_UP
constexpr unsigned long kRouteReject = 0x0200;  // RTF_REJECT

std::vector<std::string_view> fieldsOf(std::string_view line) {
  std::vector<std::string_view> fields;
  size_t at = 0;
  while (at < line.size()) {
    const size_t start = line.find_first_not_of(" \t", at);
    if (start == std::string_view::npos) break;
    const size_t end = std::min(line.find_first_of(" \t", start), line.size());
    fields.push_back(line.substr(start, end - start));
    at = end;
  }
  return fields;
}

std::optional<unsigned long> hex(std::string_view text) {
  unsigned long value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, 16);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

bool allZero(std::string_view text) {
  return !text.empty() && text.find_first_not_of('0') == std::string_view::npos;
}

bool usable(std::string_view flagsText) {
  const auto flags = hex(flagsText);
  return flags && (*flags & kRouteUp) != 0 && (*flags & kRouteReject) == 0;
}

template <typename PerLine>
void eachLine(std::string_view table, PerLine perLine) {
  while (!table.empty()) {
    const size_t end = std::min(table.find('\n'), table.size());
    perLine(fieldsOf(table.substr(0, end)));
    table.remove_prefix(std::min(end + 1, table.size()));
  }
}

std::optional<std::string> readAll(const std::string& path) {
  std::ifstream in(path);
  if (!in) return std::nullopt;
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace

std::set<std::string> ipv4DefaultRouteInterfaces(std::string_view table) {
  // Iface Destination Gateway Flags RefCnt Use Metric Mask MTU Window IRTT; a header first.
  std::set<std::string> interfaces;
  eachLine(table, [&](const std::vector<std::string_view>& f) {
    if (f.size() < 8 || f[1].size() != 8 || !allZero(f[1]) || !allZero(f[7])) return;
    if (usable(f[3]) && f[0] != "lo") interfaces.emplace(f[0]);
  });
  return interfaces;
}

std::set<std::string> ipv6DefaultRouteInterfaces(std::string_view table) {
  // Destination, its prefix length, source, its prefix length, next hop, metric, reference
  // count, use, flags, interface; no header.
  std::set<std::string> interfaces;
  eachLine(table, [&](const std::vector<std::string_view>& f) {
    if (f.size() < 10 || f[0].size() != 32 || !allZero(f[0]) || hex(f[1]) != 0UL) return;
    if (usable(f[8]) && f[9] != "lo") interfaces.emplace(f[9]);
  });
  return interfaces;
}

std::optional<std::set<std::string>> defaultRouteInterfaces(const std::string& ipv4Table,
                                                            const std::string& ipv6Table) {
  const auto v4 = readAll(ipv4Table);
  const auto v6 = readAll(ipv6Table);
  if (!v4 && !v6) return std::nullopt;
  std::set<std::string> interfaces;
  if (v4) interfaces.merge(ipv4DefaultRouteInterfaces(*v4));
  if (v6) interfaces.merge(ipv6DefaultRouteInterfaces(*v6));
  return interfaces;
}

}  // namespace orvane::linux_routes
