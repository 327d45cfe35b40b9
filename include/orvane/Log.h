// File: Log.h
// The record of one context at the moment an outcome is logged. A host that installs its own
// log sender receives these; it may forward one of the flat forms to its own analytics and
// may call send() to queue the record for upload as well.
//
// Built-in signals are keyed by column: "ctx_" + the signal id ("ctx_3"). Custom signals are
// "f_" + id, global custom signals "g_" + id, outcome metadata "o_" + id.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "orvane/CustomSignal.h"
#include "orvane/Export.h"
#include "orvane/PlistValue.h"
#include "orvane/Signal.h"

namespace orvane {

class ORVANE_API BaseLog {
 public:
  virtual ~BaseLog() = default;
};

class ORVANE_API Log : public BaseLog {
 public:
  // A record made outside the SDK (a host testing its own log sender): send() ignores it.
  Log(SignalList signals, CustomSignalList customSignals, CustomSignalList globalSignals,
      CustomSignalList outcomeMetadata, Bytes encodedData);

  // Queues the record for upload: a creation record (outcome -101) waits in the queue of
  // unlogged contexts; any other record goes to the main queue and clears its context from
  // the unlogged queue. Does nothing once the manager is gone.
  virtual void send() noexcept;
  // "ctx_1" (the SDK version, "0.0.0" when absent), "ctx_400" the number of pieces and
  // "ctx_401"... the base64 of the encoded form in 96-character pieces "<i>_<piece>".
  virtual PlistDictionary dictionary() const noexcept;
  // Exactly dictionary().
  virtual PlistDictionary dictionaryWithStaticColumns() const noexcept;
  // "c_sdk_param_<i>" = "<i>_<piece>" over 97-character pieces of the base64 form.
  virtual std::map<std::string, std::string> forFirebase() const noexcept;
  // dictionary() as JSON text.
  virtual std::string toJSONString() const noexcept;
  // Standard base64 of the encoded form, no line breaks.
  virtual std::string toBase64() const noexcept;
  virtual Bytes toData() const noexcept;

  const SignalList& signals() const { return signals_; }
  const CustomSignalList& customSignals() const { return customSignals_; }
  const CustomSignalList& globalSignals() const { return globalSignals_; }
  const CustomSignalList& outcomeMetadata() const { return outcomeMetadata_; }
  const Bytes& encodedData() const { return encodedData_; }

 protected:
  // The SDK's own records: `owner` is the manager whose upload queues send() uses.
  Log(SignalList signals, CustomSignalList customSignals, CustomSignalList globalSignals,
      CustomSignalList outcomeMetadata, Bytes encodedData, std::weak_ptr<void> owner);

 private:
  const SignalList signals_;
  const CustomSignalList customSignals_;
  const CustomSignalList globalSignals_;
  const CustomSignalList outcomeMetadata_;
  const Bytes encodedData_;
  const std::weak_ptr<void> owner_;
};

}  // namespace orvane
