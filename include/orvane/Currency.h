// File: Currency.h
// The currencies in which a host reports revenue that did not pass through the platform's
// store. The raw value is the lower-case ISO 4217 code.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "orvane/Export.h"

namespace orvane {

// clang-format off
enum class Currency : uint8_t {
  kAed, kAfn, kAll, kAmd, kAng, kAoa, kArs, kAud, kAwg, kAzn, kBam, kBbd, kBdt, kBgn, kBhd, kBif,
  kBmd, kBnd, kBob, kBrl, kBsd, kBtn, kBwp, kByn, kBzd, kCad, kCdf, kChf, kClp, kCny, kCop, kCrc,
  kCup, kCve, kCzk, kDjf, kDkk, kDop, kDzd, kEgp, kErn, kEtb, kEur, kFjd, kFkp, kFok, kGbp, kGel,
  kGgp, kGhs, kGip, kGmd, kGnf, kGtq, kGyd, kHkd, kHnl, kHrk, kHtg, kHuf, kIdr, kIls, kImp, kInr,
  kIqd, kIrr, kIsk, kJep, kJmd, kJod, kJpy, kKes, kKgs, kKhr, kKid, kKmf, kKrw, kKwd, kKyd, kKzt,
  kLak, kLbp, kLkr, kLrd, kLsl, kLyd, kMad, kMdl, kMga, kMkd, kMmk, kMnt, kMop, kMru, kMur, kMvr,
  kMwk, kMxn, kMyr, kMzn, kNad, kNgn, kNio, kNok, kNpr, kNzd, kOmr, kPab, kPen, kPgk, kPhp, kPkr,
  kPln, kPyg, kQar, kRon, kRsd, kRub, kRwf, kSar, kSbd, kScr, kSdg, kSek, kSgd, kShp, kSll, kSos,
  kSrd, kSsp, kStn, kSyp, kSzl, kThb, kTjs, kTmt, kTnd, kTop, kTry, kTtd, kTvd, kTwd, kTzs, kUah,
  kUgx, kUsd, kUyu, kUzs, kVes, kVnd, kVuv, kWst, kXaf, kXcd, kXof, kXpf, kYer, kZar, kZmw, kZwl,
};
// clang-format on

// "usd" for Currency::kUsd.
ORVANE_API std::string_view currencyRawValue(Currency currency);
// Exact, lower-case match only: "usd" is kUsd, "USD" is none.
ORVANE_API std::optional<Currency> currencyFromRawValue(std::string_view rawValue);

}  // namespace orvane
