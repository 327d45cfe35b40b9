#include "Routes.h"

#include <iostream>
#include <stdexcept>

#include <nlohmann/json.hpp>

namespace devservice {
namespace {

using nlohmann::json;

constexpr const char* kJson = "application/json";

void answerJson(httplib::Response& res, int status, const json& body) {
  res.status = status;
  res.set_content(body.dump(2) + "\n", kJson);
}

// Headers go out with a length the body never reaches: the client sees a broken transfer
// rather than an answer, as when a request times out on the way.
void breakConnection(httplib::Response& res) {
  res.status = 200;
  res.set_content_provider(
      1, kJson, [](size_t, size_t, httplib::DataSink&) { return false; }, nullptr);
}

std::vector<FaultStep> stepsFromBody(const std::string& body) {
  const json parsed = json::parse(body, nullptr, false);
  if (!parsed.is_array()) return parseFaultList(body);
  std::vector<FaultStep> steps;
  for (const json& item : parsed) {
    if (item.is_number_integer()) {
      steps.push_back(parseFaultStep(std::to_string(item.get<int>())));
    } else if (item.is_string()) {
      steps.push_back(parseFaultStep(item.get<std::string>()));
    } else {
      throw std::invalid_argument("fault steps are numbers or strings, not " + item.dump());
    }
  }
  return steps;
}

json describe(const PayloadFile::Snapshot& payload) {
  return {{"loads", payload.loads}, {"problem", payload.problem.value_or("")}};
}

void upload(Services& services, const httplib::Request& req, httplib::Response& res) {
  const std::optional<FaultStep> step = services.faults.next();
  const std::optional<int> status = step ? step->status : 200;
  const std::string arm = services.split.armOf(installationUuidOf(req.body));
  services.storage.addUpload(req.body, status, arm);
  if (step && step->delaySeconds > 0 && !services.stop.waitFor(step->delaySeconds)) {
    answerJson(res, 503, {{"error", "service stopping"}});
    return;
  }
  if (!status) {
    breakConnection(res);
  } else if (*status >= 200 && *status < 300) {
    res.status = *status;
    PayloadFile& file = arm == kControlArm ? services.controlPayload : services.payload;
    const PayloadFile::Snapshot payload = file.current();
    if (!payload.body.empty()) res.set_content(payload.body, kJson);
  } else {
    answerJson(res, *status, {{"error", "injected fault"}});
  }
}

}  // namespace

void installRoutes(httplib::Server& server, Services& services) {
  server.Post("/v3/queue/tech", [&services](const httplib::Request& req, httplib::Response& res) {
    upload(services, req, res);
  });
  server.Post("/v2/error-reporting",
              [&services](const httplib::Request& req, httplib::Response& res) {
                services.storage.addErrorReport(req.body);
                res.status = 200;
              });
  server.Get("/stored", [&services](const httplib::Request&, httplib::Response& res) {
    json listing = services.storage.listing();
    listing["control_share"] = services.split.share();
    answerJson(res, 200, listing);
  });
  server.Post("/control/faults", [&services](const httplib::Request& req, httplib::Response& res) {
    try {
      services.faults.replace(stepsFromBody(req.body));
    } catch (const std::invalid_argument& error) {
      answerJson(res, 400, {{"error", error.what()}});
      return;
    }
    answerJson(res, 200, {{"faults", services.faults.remaining()}});
  });
  server.Get("/health", [&services](const httplib::Request&, httplib::Response& res) {
    answerJson(res, 200,
               {{"status", "ok"},
                {"payload", describe(services.payload.current())},
                {"control_payload", describe(services.controlPayload.current())},
                {"control_share", services.split.share()},
                {"arms", services.storage.armCounts()},
                {"faults", services.faults.remaining()}});
  });
  if (!services.modelsDir.empty() && !server.set_mount_point("/models", services.modelsDir)) {
    throw std::runtime_error("cannot serve models from " + services.modelsDir);
  }
  server.set_logger([](const httplib::Request& req, const httplib::Response& res) {
    std::cerr << req.method << " " << req.path << " " << res.status << "\n";
  });
}

}  // namespace devservice
