// File: UpdatePayload.h
// The update the service starts answering with part-way through the run: a model for one flow
// (a real model file, served by the service), timing rules for two others, and new settings;
// and the payloads of the learning run.
#pragma once

#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

#include "Script.h"

namespace orvane::sim::demo {

// The model file the service serves for the model flow, and the version it carries.
inline constexpr const char* kModelFile = "demo_moment.mlmodel";
inline constexpr const char* kModelVersion = "moment-demo-1.0";

// `version` must be above the installation's last applied update for the SDK to apply it.
nlohmann::json makeUpdatePayload(int64_t version, const std::string& serviceURL,
                                 const Script& script);

// The learning run's first act: the control rule, always upselling, on every flow of the
// script, so that every context is shown and answered; the same settings as the update above.
nlohmann::json makeCollectionPayload(int64_t version, const Script& script);
// `payload` (one orvane-train wrote) with the demo's settings when it brings none: fresh
// installations would otherwise upload plain and poll observers at the SDK's default.
nlohmann::json withDemoConfiguration(nlohmann::json payload, const Script& script);

}  // namespace orvane::sim::demo
