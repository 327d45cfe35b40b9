"""Writing a flow's model in the runtime's file format, checking the written file with
orvane-sim, and the service payload that assigns the models to their flows."""

import hashlib
import json
import math
import os
import re
import subprocess
import sys
import tempfile
from collections import Counter

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "..", "modelfile"))
from sklearn_convert import hist_gbc_model  # noqa: E402

# The decision reads the probability of the string label "1" from "classProbability".
LABELS = ["0", "1"]
REQUESTED_DURATION = 191


def supported_duration(records):
    """The seconds of motion the flow's contexts asked for (signal 191), most often; the model
    store checks a model against the duration a request asks for."""
    values = Counter(int(r.get(REQUESTED_DURATION)) for r in records
                     if isinstance(r.get(REQUESTED_DURATION), (int, float))
                     and not isinstance(r.get(REQUESTED_DURATION), bool))
    return values.most_common(1)[0][0] if values else 0


def model_bytes(result, duration):
    """The serialised model, versioned by a digest of its content."""
    model, _ = hist_gbc_model(result.model, result.table.input_types(), LABELS)
    meta = model.description.metadata
    metadata = {"supportedDuration": duration, "useInstantContext": duration == 0}
    if result.table.mappings():
        metadata["mappings"] = result.table.mappings()
    meta.shortDescription = json.dumps(metadata, separators=(",", ":"))
    meta.author = "orvane-train"
    meta.userDefined["flow"] = result.flow
    digest = hashlib.sha256(model.SerializeToString()).hexdigest()[:12]
    meta.versionString = re.sub(r"[^A-Za-z0-9_.-]", "_", result.flow) + "-" + digest
    return model.SerializeToString(), meta.versionString


def check_with_runner(sim, model_path, table, rows, probabilities, tolerance=1e-9):
    """None when `orvane-sim predict` on the written file gives the trainer's probabilities
    for every row, else why not."""
    with tempfile.TemporaryDirectory(prefix="orvane-train-") as folder:
        for i, (row, expected) in enumerate(zip(rows, probabilities)):
            inputs = os.path.join(folder, f"row{i}.json")
            with open(inputs, "w") as f:
                json.dump(table.inputs_json(row), f)
            try:
                run = subprocess.run([sim, "predict", "--model", model_path, "--features", inputs],
                                     capture_output=True, text=True, timeout=60)
            except OSError as error:
                return f"cannot run {sim}: {error}"
            if run.returncode != 0:
                return f"orvane-sim predict failed: {run.stderr.strip()}"
            try:
                got = json.loads(run.stdout)["classProbability"]["1"]
            except (ValueError, KeyError, TypeError):
                return f"orvane-sim predict gave no probability of \"1\": {run.stdout[:200]}"
            if not math.isfinite(got) or abs(got - expected) > tolerance:
                return (f"the written file gives {got!r} where the trainer gives {expected!r} "
                        f"(held-out row {i})")
    return None


def rows_to_check(count, limit):
    """Up to `limit` row positions spread over `count` rows."""
    if count <= limit:
        return list(range(count))
    return sorted({round(i * (count - 1) / (limit - 1)) for i in range(limit)})


def flow_entry(model_version, url, threshold, chance, duration):
    return {"isControl": False, "modelUrl": url, "modelVersion": model_version,
            "upsellThreshold": threshold, "randomUpsellChance": chance,
            "supportedDuration": duration, "useInstantContext": duration == 0}


def control_entry(duration):
    return {"isControl": True, "randomUpsellChance": 1.0, "supportedDuration": duration,
            "useInstantContext": duration == 0}


def payloads(entries, version):
    """(model payload, control payload): the first assigns every shipped model; the second is
    what installations of the control share receive, the control rule on every flow."""
    def wrap(flows, group):
        return {"updateData": {"version": version,
                               "generationId": f"orvane-train-{version}-{group}",
                               "modelInfoPerFlow": flows}}
    control = {flow: control_entry(entry["supportedDuration"]) for flow, entry in entries.items()}
    return wrap(entries, "model"), wrap(control, "control")
