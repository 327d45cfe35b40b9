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
REQUESTED_DURATION = 191


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


def record_from_json(event, order, problems, where, only=None):
    """A Record from one event object, or None (counted in `problems`) when it is not one.
    With `only` (signal ids), the record holds just those signals and no custom ones."""
    if not isinstance(event, dict):
        problems.add("event is not a JSON object", where)
        return None
    custom = {}
    if only is not None:
        signals = {i: event[f"ctx_{i}"] for i in only if f"ctx_{i}" in event}
    else:
        signals = {}
        for key, value in event.items():
            if key.startswith("ctx_") and key[4:].isdigit():
                signals[int(key[4:])] = value
        groups = event.get("ctx_custom_signals")
        if isinstance(groups, dict):
            # Only the request's own custom signals ("f_") reach a model; global ones do not.
            custom = {k[2:]: v for k, v in groups.items() if k.startswith("f_") and len(k) > 2}
    record = Record(order=order, signals=signals, custom=custom)
    if record.log_id is None:
        problems.add("record without a log id (ctx_8)", where)
        return None
    return record


PAIRING_SIGNALS = (LOG_ID, OUTCOME, CONTEXT_ID, FLOW, EVENT_TYPE, SHOWN, MODEL_RAN,
                   REQUESTED_DURATION)


def _sqlite_events(path, problems):
    """(where, JSON text, True) of the `events` table, in the order the service received them,
    read a row at a time."""
    uri = "file:" + os.path.abspath(path) + "?mode=ro"
    connection = sqlite3.connect(uri, uri=True)
    try:
        for row_id, text in connection.execute("SELECT id, event FROM events ORDER BY id"):
            yield f"{path} events.id={row_id}", text, True
    finally:
        connection.close()


def _folder_events(path, problems):
    """(where, event, False) of every upload body (*.json, *.json.gz) in a folder, files in
    name order."""
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
            yield f"{file_path} event {i}", event, False


class Sources:
    """The records of several inputs (SQLite files or upload folders; earlier ones count as
    received first), read again for each pass rather than held: a record's `order` is its
    position among every event of every input, the same in each pass."""

    def __init__(self, paths):
        self.paths = list(paths)

    def _events(self, problems):
        order = 0
        for path in self.paths:
            events = _folder_events if os.path.isdir(path) else _sqlite_events
            for where, event, is_text in events(path, problems):
                yield order, where, event, is_text
                order += 1

    @staticmethod
    def _parse(order, where, event, is_text, problems, only=None):
        if is_text:
            try:
                event = json.loads(event)
            except ValueError as error:
                problems.add("event that is not JSON", f"{where}: {error}")
                return None
        return record_from_json(event, order, problems, where, only)

    def light_records(self, problems):
        """Every record with only what pairing and the payload read (a million full records
        do not fit in memory, a million light ones do), reporting what cannot be read."""
        records = []
        for order, where, event, is_text in self._events(problems):
            record = self._parse(order, where, event, is_text, problems, PAIRING_SIGNALS)
            if record:
                records.append(record)
        return records

    def full_records(self, orders):
        """(order, Record) for the records at `orders`, in received order; only those are
        parsed."""
        quiet = Problems()
        for order, where, event, is_text in self._events(quiet):
            if order in orders:
                record = self._parse(order, where, event, is_text, quiet)
                if record:
                    yield order, record


class InMemory:
    """Records already read, served like `Sources` (small inputs and tests)."""

    def __init__(self, records):
        self.by_order = {r.order: r for r in records}

    def full_records(self, orders):
        for order in sorted(orders):
            yield order, self.by_order[order]


def read_records(path, problems):
    """Every record of one input, held in memory."""
    records = []
    for order, where, event, is_text in Sources([path])._events(problems):
        record = Sources._parse(order, where, event, is_text, problems)
        if record:
            records.append(record)
    return records
