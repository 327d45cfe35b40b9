"""The feature table: one row per context, one column per model input, named and valued the
way the SDK's feature provider serves them to a model at decision time.

Input names:
- a built-in numeric signal is its id ("70"); bool values become 0/1;
- a built-in text signal becomes one-hot columns "<id>_0".."<id>_<k-1>" and "<id>_-1" (any
  other value), with the category list in the model's "mappings" under "<id>";
- a custom signal is "<c>id</c>"; a text one "<c>id</c>_0".., mappings under "<c>id</c>".
Missing values are NaN, as the SDK feeds an absent signal: an undefined value, which the
trees treat as missing. For a one-hot signal that is absent every column is missing."""

import math
from collections import Counter
from dataclasses import dataclass

import numpy as np

# Signals a model cannot use: written after the decision (the log's own fields, the decision
# and model outputs, flow timing, "handed out again"), identities that never repeat, the
# flow itself, raw motion text, and what only restates the current assignment.
NOT_FEATURES = frozenset([
    3, 8, 9, 17, 23, 28,  # per log: outcome, log id, age, date, event type, decision time
    11, 12, 16, 18, 24, 26, 230, 426,  # decision and model outputs
    92, 93, 94, 27, 650, 651,  # computed after the decision
    14, 15, 29, 20,  # session, installation, context ids; the flow
    19, 402, 403, 406, 427, 503,  # the model assignment and store state
    444, 750, 751, 752,  # raw motion text; golden-signal logs
])

SPECIAL_NUMBERS = {"NaN": math.nan, "Infinity": math.inf, "-Infinity": -math.inf}
# Infinite values are served as they are; the trees place them like the largest finite value.
FLOAT32_MAX = float(np.finfo(np.float32).max)

NUMERIC, TEXT = "numeric", "text"


def custom_name(signal_id):
    return "<c>" + signal_id + "</c>"


def numeric_value(value):
    """What the SDK hands a model for a numeric JSON value of a record, or None when the value
    is not numeric. A number with a fraction or an exponent comes from a 32-bit float signal
    (integer signals are written as plain digits, decimals as text), written as the shortest
    text that reads back as that float: "1.23e+10" is the float 12300000256, so every such
    number is read back through float32, whole ones too."""
    if isinstance(value, bool):
        return 1.0 if value else 0.0
    if isinstance(value, int):
        return float(value)
    if isinstance(value, float):
        if math.isnan(value):
            return math.nan
        if math.isinf(value):
            return math.copysign(FLOAT32_MAX, value)
        single = np.float32(value) if abs(value) <= FLOAT32_MAX else np.float32(np.inf)
        return float(single) if np.isfinite(single) else math.copysign(FLOAT32_MAX, value)
    if isinstance(value, str) and value in SPECIAL_NUMBERS:
        return numeric_value(SPECIAL_NUMBERS[value])
    return None


@dataclass
class Column:
    """One signal's share of the table: its input names and how to fill them."""
    key: tuple  # ("signal", 70) or ("custom", "plan")
    kind: str  # NUMERIC or TEXT
    base_name: str  # "70", "<c>plan</c>"
    integral: bool = False  # a custom numeric signal whose values are all integers
    categories: tuple = ()

    def names(self):
        if self.kind == NUMERIC:
            return [self.base_name]
        return [f"{self.base_name}_{i}" for i in range(len(self.categories))] + [
            self.base_name + "_-1"]

    def input_type(self):
        """The model input type the SDK serves this column with."""
        if self.kind == TEXT:
            return "int64"
        if self.key[0] == "custom":
            # A custom integer or bool is only served to an int64 input, a float to a double.
            return "int64" if self.integral else "double"
        return "double"

    def values(self, raw):
        if self.kind == NUMERIC:
            v = numeric_value(raw) if raw is not None else None
            return [math.nan if v is None else v]
        if not isinstance(raw, str):
            return [math.nan] * (len(self.categories) + 1)
        hot = self.categories.index(raw) if raw in self.categories else len(self.categories)
        return [1.0 if i == hot else 0.0 for i in range(len(self.categories) + 1)]


def raw_value(record, key):
    kind, signal_id = key
    return record.signals.get(signal_id) if kind == "signal" else record.custom.get(signal_id)


def classify(values):
    """NUMERIC, TEXT or None (mixed, or nothing usable) for one signal's observed values."""
    numbers = sum(1 for v in values if isinstance(v, (bool, int, float)))
    texts = [v for v in values if isinstance(v, str)]
    # A float signal that is never finite uploads only "NaN" and "Infinity" texts: it is still
    # a number to the SDK, which matches no text category against it.
    if (numbers or texts) and all(v in SPECIAL_NUMBERS for v in texts):
        return NUMERIC
    if texts and not numbers and len(texts) == len(values):
        return TEXT
    return None


@dataclass
class FeatureSettings:
    max_categories: int = 20
    min_category_count: int = 5


class FeatureTable:
    """Columns chosen from the training contexts; `matrix` applies them to any contexts."""

    def __init__(self, columns, skipped):
        self.columns = columns
        self.skipped = skipped  # signal -> why it is not a feature

    @classmethod
    def fit(cls, records, settings=FeatureSettings()):
        observed = {}
        for record in records:
            for signal_id, value in record.signals.items():
                if signal_id not in NOT_FEATURES and value is not None:
                    observed.setdefault(("signal", signal_id), []).append(value)
            for signal_id, value in record.custom.items():
                if value is not None:
                    observed.setdefault(("custom", signal_id), []).append(value)
        columns, skipped = [], {}
        for key in sorted(observed, key=lambda k: (k[0] == "custom", k[1])):
            values = observed[key]
            name = str(key[1]) if key[0] == "signal" else custom_name(key[1])
            if key[0] == "custom" and ("<c>" in key[1] or "</c>" in key[1]):
                skipped[name] = "its id cannot be written in an input name"
                continue
            kind = classify(values)
            if kind is None:
                skipped[name] = "mixes text and numbers"
                continue
            column = Column(key, kind, name)
            if kind == TEXT:
                counts = Counter(values)
                common = sorted((c for c in counts.items() if c[1] >= settings.min_category_count),
                                key=lambda c: (-c[1], c[0]))
                column.categories = tuple(v for v, _ in common[:settings.max_categories])
                if not column.categories:
                    skipped[name] = "no value is frequent enough"
                    continue
            else:
                numbers = [numeric_value(v) for v in values]
                if all(math.isnan(n) for n in numbers):
                    skipped[name] = "never has a value"
                    continue
                if len(values) == len(records) and len(set(numbers)) == 1:
                    skipped[name] = "the same value everywhere"
                    continue
                # Only integer and bool signals upload as plain digits or true/false; a
                # number with a fraction or exponent is a float, whole or not.
                column.integral = all(isinstance(v, (bool, int)) for v in values)
            columns.append(column)
        return cls(columns, skipped)

    def names(self):
        return [name for column in self.columns for name in column.names()]

    def input_types(self):
        return [(name, column.input_type()) for column in self.columns for name in column.names()]

    def mappings(self):
        return {c.base_name: list(c.categories) for c in self.columns if c.kind == TEXT}

    def matrix(self, records):
        rows = []
        for record in records:
            row = []
            for column in self.columns:
                row.extend(column.values(raw_value(record, column.key)))
            rows.append(row)
        return np.asarray(rows, dtype=np.float64).reshape(len(rows), len(self.names()))

    def inputs_json(self, row):
        """One matrix row as the input file of `orvane-sim predict`: missing values as null,
        int64 inputs as JSON integers."""
        out = {}
        for (name, kind), value in zip(self.input_types(), row):
            if math.isnan(value):
                out[name] = None
            else:
                out[name] = int(value) if kind == "int64" else float(value)
        return out
