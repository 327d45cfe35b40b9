// Currency codes, in declaration order.
#include "orvane/Currency.h"

#include <algorithm>
#include <array>

namespace orvane {
namespace {

constexpr std::array<std::string_view, 160> kRawValues{
    "aed", "afn", "all", "amd", "ang", "aoa", "ars", "aud", "awg", "azn", "bam", "bbd", "bdt",
    "bgn", "bhd", "bif", "bmd", "bnd", "bob", "brl", "bsd", "btn", "bwp", "byn", "bzd", "cad",
    "cdf", "chf", "clp", "cny", "cop", "crc", "cup", "cve", "czk", "djf", "dkk", "dop", "dzd",
    "egp", "ern", "etb", "eur", "fjd", "fkp", "fok", "gbp", "gel", "ggp", "ghs", "gip", "gmd",
    "gnf", "gtq", "gyd", "hkd", "hnl", "hrk", "htg", "huf", "idr", "ils", "imp", "inr", "iqd",
    "irr", "isk", "jep", "jmd", "jod", "jpy", "kes", "kgs", "khr", "kid", "kmf", "krw", "kwd",
    "kyd", "kzt", "lak", "lbp", "lkr", "lrd", "lsl", "lyd", "mad", "mdl", "mga", "mkd", "mmk",
    "mnt", "mop", "mru", "mur", "mvr", "mwk", "mxn", "myr", "mzn", "nad", "ngn", "nio", "nok",
    "npr", "nzd", "omr", "pab", "pen", "pgk", "php", "pkr", "pln", "pyg", "qar", "ron", "rsd",
    "rub", "rwf", "sar", "sbd", "scr", "sdg", "sek", "sgd", "shp", "sll", "sos", "srd", "ssp",
    "stn", "syp", "szl", "thb", "tjs", "tmt", "tnd", "top", "try", "ttd", "tvd", "twd", "tzs",
    "uah", "ugx", "usd", "uyu", "uzs", "ves", "vnd", "vuv", "wst", "xaf", "xcd", "xof", "xpf",
    "yer", "zar", "zmw", "zwl",
};

static_assert(static_cast<size_t>(Currency::kZwl) + 1 == kRawValues.size());
// Sorted, so that lookup can bisect and enumerators and texts cannot drift apart unnoticed.
static_assert(std::is_sorted(kRawValues.begin(), kRawValues.end()));

}  // namespace

std::string_view currencyRawValue(Currency currency) {
  return kRawValues[static_cast<size_t>(currency)];
}

std::optional<Currency> currencyFromRawValue(std::string_view rawValue) {
  auto it = std::lower_bound(kRawValues.begin(), kRawValues.end(), rawValue);
  if (it == kRawValues.end() || *it != rawValue) return std::nullopt;
  return static_cast<Currency>(it - kRawValues.begin());
}

}  // namespace orvane
