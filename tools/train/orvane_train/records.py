"""Reading uploaded log records: from the development service's SQLite file or from a folder
of upload bodies saved as JSON (optionally gzip-compressed).

A record is one queued log, as the SDK stores and uploads it: built-in signals under
"ctx_<id>", the request's custom signals under "ctx_custom_signals" ("f_<id>", globals as
"g_<id>") and the outcome metadata under "ctx_outcome_metadata"."""

import gzip
import json
import os
import sqlite3
from dataclasses import dataclass, field

# Columns the trainer reads to place a record.
LOG_ID = 8
OUTCOME = 3
CONTEXT_ID = 29
FLOW = 20
EVENT_TYPE = 23
SHOWN = 12
MODEL_RAN = 16


@dataclass
class Record:
    """One uploaded log. `order` is its place in the input (received order), which decides
    which copy of a re-sent record is kept and which outcome came first."""
    order: int
    signals: dict  # built-in signal id (int) -> JSON value
    custom: dict = field(default_factory=dict)  # custom signal id -> JSON value

    def get(self, signal_id):
        return self.signals.get(signal_id)

    @property
    def log_id(self):
        return _text(self.get(LOG_ID))

    @property
    def context_id(self):
        return _text(self.get(CONTEXT_ID))

    @property
    def flow(self):
        return _text(self.get(FLOW))

    @property
    def outcome(self):
        return _integer(self.get(OUTCOME))

    @property
    def event_type(self):
        return _integer(self.get(EVENT_TYPE))


def _text(value):
    return value if isinstance(value, str) and value else None


def _integer(value):
    if isinstance(value, bool) or not isinstance(value, (int, float)):
        return None
    return int(value) if float(value).is_integer() else None


class Problems:
    """Counts what could not be used, with one example line per kind for the report."""

    def __init__(self):
        self.counts = {}
        self.examples = {}

    def add(self, kind, example):
        self.counts[kind] = self.counts.get(kind, 0) + 1
        self.examples.setdefault(kind, example)

    def lines(self):
        return [f"{kind}: {n} (first: {self.examples[kind]})"
                for kind, n in sorted(self.counts.items())]


def record_from_json(event, order, problems, where):
    """A Record from one event object, or None (counted in `problems`) when it is not one."""
    if not isinstance(event, dict):
        problems.add("event is not a JSON object", where)
        return None
    signals = {}
    for key, value in event.items():
        if key.startswith("ctx_") and key[4:].isdigit():
            signals[int(key[4:])] = value
    custom = {}
    groups = event.get("ctx_custom_signals")
    if isinstance(groups, dict):
        # Only the request's own custom signals ("f_") reach a model; global ones do not.
        custom = {k[2:]: v for k, v in groups.items() if k.startswith("f_") and len(k) > 2}
    record = Record(order=order, signals=signals, custom=custom)
    if record.log_id is None:
        problems.add("record without a log id (ctx_8)", where)
        return None
    return record


def read_sqlite(path, problems):
    """Records of the `events` table, in the order the service received them."""
    uri = "file:" + os.path.abspath(path) + "?mode=ro"
    connection = sqlite3.connect(uri, uri=True)
    try:
        rows = connection.execute("SELECT id, event FROM events ORDER BY id").fetchall()
    finally:
        connection.close()
    records = []
    for row_id, text in rows:
        where = f"{path} events.id={row_id}"
        try:
            event = json.loads(text)
        except (TypeError, ValueError) as error:
            problems.add("event that is not JSON", f"{where}: {error}")
            continue
        record = record_from_json(event, len(records), problems, where)
        if record:
            records.append(record)
    return records


def read_upload_folder(path, problems):
    """Records of every upload body (*.json, *.json.gz) in a folder, files in name order."""
    records = []
    names = sorted(n for n in os.listdir(path) if n.endswith((".json", ".json.gz")))
    for name in names:
        file_path = os.path.join(path, name)
        try:
            opener = gzip.open if name.endswith(".gz") else open
            with opener(file_path, "rt", encoding="utf-8") as f:
                body = json.load(f)
        except (OSError, ValueError) as error:
            problems.add("upload file that cannot be read", f"{file_path}: {error}")
            continue
        events = body.get("events") if isinstance(body, dict) else None
        if not isinstance(events, list):
            problems.add("upload without an \"events\" array", file_path)
            continue
        for i, event in enumerate(events):
            record = record_from_json(event, len(records), problems, f"{file_path} event {i}")
            if record:
                records.append(record)
    return records


def read_records(path, problems):
    if os.path.isdir(path):
        return read_upload_folder(path, problems)
    return read_sqlite(path, problems)
