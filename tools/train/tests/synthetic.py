"""Upload records shaped as the SDK writes them, for the trainer's tests."""

import uuid

import numpy as np


def log(context_id, flow, outcome, event_type=2, shown=True, signals=None, custom=None,
        log_id=None):
    event = {"ctx_3": outcome, "ctx_8": log_id or str(uuid.uuid4()), "ctx_23": event_type,
             "ctx_29": context_id, "ctx_20": flow, "ctx_12": shown, "ctx_14": "session",
             "ctx_17": "2024-06-01T10:00:00.000+0000", "ctx_custom_signals": {},
             "ctx_outcome_metadata": {}}
    for signal_id, value in (signals or {}).items():
        event[f"ctx_{signal_id}"] = value
    for signal_id, value in (custom or {}).items():
        event["ctx_custom_signals"]["f_" + signal_id] = value
    return event


def as_written(value):
    """A 32-bit float signal as the upload carries it: the shortest text that reads back as
    that float, which as a double is usually not the float's own value."""
    return float(str(np.float32(value)))


def moments(n, seed, signal_strength, flow="paywall"):
    """Answered contexts whose chance of a positive answer rises with signal 113 (stillness,
    as a 32-bit float) by `signal_strength`; signal 70 and the custom "sessions" are noise."""
    rng = np.random.RandomState(seed)
    events = []
    for i in range(n):
        accel = as_written(rng.uniform(0, 0.6))
        logit = signal_strength * (0.3 - accel) * 10 - 0.5
        positive = rng.rand() < 1 / (1 + np.exp(-logit))
        context = f"ctx-{seed}-{i}"
        events.append(log(context, flow, 3 if positive else -3,
                          signals={113: accel, 70: as_written(rng.rand()),
                                   34: ["US", "DE", "FR"][rng.randint(3)]},
                          custom={"sessions": int(rng.randint(0, 40))}))
    return events
