// orvane-synth-uploads: a development service's SQLite file full of synthetic upload records
// shaped as the SDK sends them (~420 signals each, of every kind), for measuring orvane-train
// at scale. Contexts fall into three flows; in "paywall" the user says yes more often while
// the phone lies still (signal 113), elsewhere the answer is noise. Some contexts are not
// shown, left unanswered, answered twice or only skipped, and some batches are sent twice, as
// in real traffic.
#include <CLI/CLI.hpp>

#include <cmath>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "RealisticLog.h"
#include "Storage.h"
#include "logging/LogDictionaries.h"
#include "logging/OrvaneLogSender.h"

namespace {

using namespace orvane;

struct Flow {
  const char* name;
  double share;
  bool learnable;
};
constexpr Flow kFlows[] = {
    {"paywall", 0.5, true}, {"banner", 0.3, false}, {"onboarding", 0.2, false}};

class Generator {
 public:
  explicit Generator(unsigned seed) : random_(seed) {}

  // The records of one context: its answers (or its creation log when it has none).
  std::vector<Log> context(int serial) {
    const Flow& flow = pickFlow();
    const std::string contextId = uuid();
    const float stillness = static_cast<float>(unit() * 0.6);
    const bool shown = unit() >= 0.05;
    SignalList signals = contextSignals(serial, flow.name, contextId, stillness, shown);
    const CustomSignalList custom = customSignals();

    const double logit = flow.learnable ? 10 * (0.3 - stillness) - 0.4 : -0.4;
    const bool yes = unit() < 1 / (1 + std::exp(-logit));
    const double kind = unit();
    std::vector<Log> logs;
    if (kind < 0.03) {
      logs.push_back(withOutcome(signals, custom, Context::kCreatedOutcome, 1));  // unanswered
    } else if (kind < 0.04) {
      logs.push_back(withOutcome(signals, custom, 0, 2));  // skipped only
    } else {
      logs.push_back(withOutcome(signals, custom, yes ? 3 : -3, 2));
      if (kind > 0.98) logs.push_back(withOutcome(signals, custom, yes ? 4 : -1, 2));
    }
    return logs;
  }

  double unit() { return std::uniform_real_distribution<double>(0, 1)(random_); }

 private:
  const Flow& pickFlow() {
    double u = unit();
    for (const Flow& f : kFlows) {
      if ((u -= f.share) < 0) return f;
    }
    return kFlows[0];
  }

  std::string uuid() {
    char text[40];
    std::snprintf(text, sizeof text, "%08X-%04X-4%03X-%04X-%012llX",
                  static_cast<unsigned>(random_()), static_cast<unsigned>(random_() & 0xFFFF),
                  static_cast<unsigned>(random_() & 0xFFF),
                  static_cast<unsigned>(0x8000 | (random_() & 0x3FFF)),
                  static_cast<unsigned long long>(random_() & 0xFFFFFFFFFFFFull));
    return text;
  }

  // The realistic set with values drawn per context: text from a handful of values per signal
  // (a few with many), integers and floats spread over their own ranges.
  SignalList contextSignals(int serial, const char* flow, const std::string& contextId,
                            float stillness, bool shown) {
    SignalList drawn;
    for (const Signal& s : bench::realisticSignals(serial)) {
      const uint16_t raw = s.id().rawValue();
      if (raw == 3 || raw == 8 || raw == 23) continue;  // each log's own: outcome, id, type
      switch (s.kind()) {
        case SignalKind::kString: {
          const unsigned values = raw % 3 == 0 ? 5000 : 3 + raw % 11;
          drawn.push_back(SignalString(s.id(), "value-" + std::to_string(random_() % values)));
          break;
        }
        case SignalKind::kInt:
          drawn.push_back(SignalInt(s.id(), raw * 1000 + static_cast<int64_t>(random_() % 1000)));
          break;
        default:
          if (raw % 13 == 0 && unit() < 0.1) break;  // absent now and then
          drawn.push_back(SignalFloat(s.id(), static_cast<float>(unit() * raw)));
      }
    }
    // The fields the trainer places a record by, and the learnable moment.
    auto set = [&drawn](Signal signal) {
      for (Signal& s : drawn) {
        if (s.id() == signal.id()) {
          s = std::move(signal);
          return;
        }
      }
      drawn.push_back(std::move(signal));
    };
    set(SignalString(SignalEnum::id(20), flow));
    set(SignalString(SignalEnum::id(29), contextId));
    set(SignalBool(SignalEnum::id(12), shown));
    set(SignalInt(SignalEnum::id(191), 3));
    set(SignalFloat(SignalEnum::id(113), stillness));
    return drawn;
  }

  CustomSignalList customSignals() {
    static const char* const kPlans[] = {"free", "trial", "pro", "team"};
    CustomSignalList custom;
    for (int i = 0; i < 20; ++i) {
      custom.push_back(
          CustomSignalInt("count" + std::to_string(i), static_cast<int64_t>(random_() % 100)));
    }
    for (int i = 0; i < 15; ++i) {
      custom.push_back(CustomSignalFloat("score" + std::to_string(i), static_cast<float>(unit())));
    }
    for (int i = 0; i < 5; ++i) {
      custom.push_back(CustomSignalBool("flag" + std::to_string(i), random_() % 2 == 0));
    }
    for (int i = 0; i < 5; ++i) {
      custom.push_back(CustomSignalString("plan" + std::to_string(i), kPlans[random_() % 4]));
    }
    return custom;
  }

  Log withOutcome(SignalList signals, const CustomSignalList& custom, int outcome, int eventType) {
    signals.push_back(SignalInt(SignalEnum::id(3), outcome));
    signals.push_back(SignalInt(SignalEnum::id(23), eventType));
    signals.push_back(SignalString(SignalEnum::id(8), uuid()));
    return Log(std::move(signals), custom, {}, {}, {});
  }

  std::mt19937_64 random_;
};

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{
      "Writes synthetic upload records, as the SDK sends them, into a development "
      "service's SQLite file (for measuring orvane-train)"};
  int64_t records = 10000;
  std::string database;
  unsigned seed = 1;
  size_t perUpload = 500;
  app.add_option("--records", records, "records to write (about one per context)")->required();
  app.add_option("--db", database, "SQLite file (created; the service's schema)")->required();
  app.add_option("--seed", seed, "seed of every draw");
  app.add_option("--per-upload", perUpload, "records per upload body")
      ->check(CLI::Range(1, 100000));
  CLI11_PARSE(app, argc, argv);

  try {
    devservice::Storage storage(database);
    Generator generator(seed);
    const OrvaneLogSender::UploadBodyFields fields{"com.example.host", "KEY-synthetic", "5.13.0", 0,
                                                   "synthetic-installation"};
    std::vector<PlistDictionary> batch;
    int64_t written = 0;
    auto upload = [&] {
      std::vector<const PlistDictionary*> pointers;
      for (const auto& record : batch) pointers.push_back(&record);
      const auto body = OrvaneLogSender::encodeUploadBody(pointers, fields);
      if (!body) throw std::runtime_error("a record could not be written as JSON");
      storage.addUpload(*body, 200, "payload");
      // A batch whose answer was lost comes again, with the same log ids.
      if (generator.unit() < 0.01) storage.addUpload(*body, 200, "payload");
      batch.clear();
    };
    for (int serial = 0; written < records; ++serial) {
      for (const Log& log : generator.context(serial)) {
        batch.push_back(rawDictionaryWithStaticColumns(log));
        if (++written == records) break;
      }
      if (batch.size() >= perUpload) upload();
    }
    if (!batch.empty()) upload();
    std::printf("%lld records in %s\n", static_cast<long long>(written), database.c_str());
  } catch (const std::exception& error) {
    std::fprintf(stderr, "orvane-synth-uploads: %s\n", error.what());
    return 1;
  }
  return 0;
}
