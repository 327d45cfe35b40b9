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


@dataclass
class FeatureSettings:
    max_categories: int = 20
    min_category_count: int = 5


# Distinct texts counted exactly per signal; past that only the most frequent half is kept
# at each overflow (a text signal that varies that much is all but an identifier).
MAX_COUNTED_TEXTS = 5000


class SignalStats:
    """What the table needs to know of one signal's values over the training records, kept
    as counts rather than the values themselves."""

    def __init__(self):
        self.present = 0
        self.numbers = 0
        self.texts = 0
        self.special_texts = 0  # "NaN", "Infinity", "-Infinity"
        self.integral = True  # plain integers and bools only
        self.first_number = None  # the first numeric value, NaN as the text "nan"
        self.numbers_vary = False
        self.has_value = False  # a numeric value other than NaN was seen
        self.counts = Counter()

    def add(self, value):
        self.present += 1
        if isinstance(value, str):
            self.texts += 1
            if value in SPECIAL_NUMBERS:
                self.special_texts += 1
                self._number(SPECIAL_NUMBERS[value])
            self.integral = False
            self.counts[value] += 1
            if len(self.counts) > MAX_COUNTED_TEXTS:
                self.counts = Counter(dict(self.counts.most_common(MAX_COUNTED_TEXTS // 2)))
            return
        if isinstance(value, (bool, int, float)):
            self.numbers += 1
            if not isinstance(value, (bool, int)):
                self.integral = False
            self._number(float(value))
        else:
            self.integral = False

    def _number(self, number):
        # Compared as written: each float has one shortest text, so equal texts are equal
        # floats and different ones different floats.
        key = "nan" if math.isnan(number) else number
        if self.first_number is None:
            self.first_number = key
        elif key != self.first_number:
            self.numbers_vary = True
        self.has_value = self.has_value or not math.isnan(number)

    def kind(self):
        """NUMERIC, TEXT or None (mixed, or nothing usable)."""
        # A float signal that is never finite uploads only "NaN" and "Infinity" texts: it is
        # still a number to the SDK, which matches no text category against it.
        if (self.numbers or self.texts) and self.special_texts == self.texts:
            return NUMERIC
        if self.texts and not self.numbers and self.texts == self.present:
            return TEXT
        return None


class FeatureStats:
    """Statistics of the training records, fed one record at a time; `table` chooses the
    columns from them."""

    def __init__(self, settings=FeatureSettings()):
        self.settings = settings
        self.records = 0
        self.signals = {}  # ("signal", id) or ("custom", id) -> SignalStats

    def add(self, record):
        self.records += 1
        signals = self.signals
        for kind, values in (("signal", record.signals), ("custom", record.custom)):
            for signal_id, value in values.items():
                if value is None or (kind == "signal" and signal_id in NOT_FEATURES):
                    continue
                stats = signals.get((kind, signal_id))
                if stats is None:
                    stats = signals[(kind, signal_id)] = SignalStats()
                if type(value) is float:
                    # Most values: a finite float (JSON has no NaN or infinite numbers).
                    stats.present += 1
                    stats.numbers += 1
                    stats.integral = False
                    stats.has_value = True
                    if stats.first_number is None:
                        stats.first_number = value
                    elif value != stats.first_number:
                        stats.numbers_vary = True
                else:
                    stats.add(value)

    def table(self):
        settings = self.settings
        columns, skipped = [], {}
        for key in sorted(self.signals, key=lambda k: (k[0] == "custom", k[1])):
            stats = self.signals[key]
            name = str(key[1]) if key[0] == "signal" else custom_name(key[1])
            if key[0] == "custom" and ("<c>" in key[1] or "</c>" in key[1]):
                skipped[name] = "its id cannot be written in an input name"
                continue
            kind = stats.kind()
            if kind is None:
                skipped[name] = "mixes text and numbers"
                continue
            column = Column(key, kind, name)
            if kind == TEXT:
                common = sorted((c for c in stats.counts.items()
                                 if c[1] >= settings.min_category_count),
                                key=lambda c: (-c[1], c[0]))
                column.categories = tuple(v for v, _ in common[:settings.max_categories])
                if not column.categories:
                    skipped[name] = "no value is frequent enough"
                    continue
            else:
                if not stats.has_value:
                    skipped[name] = "never has a value"
                    continue
                if stats.present == self.records and not stats.numbers_vary:
                    skipped[name] = "the same value everywhere"
                    continue
                # Only integer and bool signals upload as plain digits or true/false; a
                # number with a fraction or exponent is a float, whole or not.
                column.integral = stats.integral
            columns.append(column)
        return FeatureTable(columns, skipped)


class FeatureTable:
    """Columns chosen from the training contexts; `matrix` applies them to any contexts."""

    def __init__(self, columns, skipped):
        self.columns = columns
        self.skipped = skipped  # signal -> why it is not a feature

    @classmethod
    def fit(cls, records, settings=FeatureSettings()):
        stats = FeatureStats(settings)
        for record in records:
            stats.add(record)
        return stats.table()

    def names(self):
        return [name for column in self.columns for name in column.names()]

    def input_types(self):
        return [(name, column.input_type()) for column in self.columns for name in column.names()]

    def mappings(self):
        return {c.base_name: list(c.categories) for c in self.columns if c.kind == TEXT}

    def _compile(self):
        """Where each signal's values go: numeric signals by id to their column, text ones
        to their first column, categories and width."""
        numeric = {"signal": {}, "custom": {}}
        text = {"signal": {}, "custom": {}}
        at = 0
        for column in self.columns:
            kind, signal_id = column.key
            if column.kind == NUMERIC:
                numeric[kind][signal_id] = at
                at += 1
            else:
                width = len(column.categories) + 1
                categories = {c: i for i, c in enumerate(column.categories)}
                text[kind][signal_id] = (at, categories, width)
                at += width
        self._plan = (at, numeric, text)
        return self._plan

    def row(self, record):
        """The model inputs of one record, as float64: a numeric signal's value (bools 0/1,
        floats through float32, "NaN" and absent as NaN), a text signal's one-hot columns
        (the last for any other text; all NaN when it is absent or not text)."""
        width, numeric, text = getattr(self, "_plan", None) or self._compile()
        out = [math.nan] * width
        floats = []  # columns holding a float's written text, read back through float32
        for kind, values in (("signal", record.signals), ("custom", record.custom)):
            if not values:
                continue
            for signal_id, at in numeric[kind].items():
                value = values.get(signal_id)
                if value is None:
                    continue
                if type(value) is float:
                    out[at] = value
                    floats.append(at)
                else:
                    number = numeric_value(value)
                    if number is not None:
                        out[at] = number
            for signal_id, (at, categories, count) in text[kind].items():
                value = values.get(signal_id)
                if isinstance(value, str):
                    out[at:at + count] = [0.0] * count
                    out[at + categories.get(value, count - 1)] = 1.0
        row = np.array(out, dtype=np.float64)
        if floats:
            written = row[floats]
            with np.errstate(over="ignore"):
                single = written.astype(np.float32).astype(np.float64)
            row[floats] = np.where(np.isinf(single), np.copysign(FLOAT32_MAX, written), single)
        return row

    def matrix(self, records):
        records = list(records)
        out = np.empty((len(records), len(self.names())), dtype=np.float64)
        for i, record in enumerate(records):
            out[i] = self.row(record)
        return out

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
