// File: Routes.h
// The service's endpoints:
//   POST /v3/queue/tech      uploads: stored, answered with the installation's payload file
//                            (control or not) or a fault step
//   POST /v2/error-reporting error reports: stored, answered with an empty 200
//   GET  /stored             read-only listing of everything stored
//   POST /control/faults     replace the fault script (JSON array or "500,timeout:2,200")
//   GET  /health             payload files' state, the control share, uploads per arm and the
//                            fault steps still to come
//   GET  /models/<name>      files of the models folder
#pragma once

#include <httplib.h>

#include <string>

#include "ControlSplit.h"
#include "FaultScript.h"
#include "PayloadFile.h"
#include "StopSignal.h"
#include "Storage.h"

namespace devservice {

struct Services {
  Storage& storage;
  PayloadFile& payload;
  PayloadFile& controlPayload;  // for installations the split keeps on the control rule
  const ControlSplit& split;
  FaultScript& faults;
  StopSignal& stop;
  std::string modelsDir;  // empty: no model files are served
};

// Throws std::runtime_error when the models folder cannot be served.
void installRoutes(httplib::Server& server, Services& services);

}  // namespace devservice
