"""Training one model per flow: split, fit, threshold, held-out evaluation.

The records are read in passes rather than held: pairing needs only a few fields of each;
then the training records of every flow feed the column statistics, and the records of
every trained context are read once more into one float64 matrix per flow (float64 keeps
integer signals above 2^24 exact, as the SDK serves them)."""

import hashlib
import time
from dataclasses import dataclass, field

import numpy as np
from sklearn.ensemble import HistGradientBoostingClassifier

from .evaluation import choose_threshold, evaluate_holdout
from .features import FeatureSettings, FeatureStats
from .records import InMemory


@dataclass
class Settings:
    seed: int = 1
    holdout_share: float = 0.3
    show_share: float = 0.5
    min_contexts: int = 200
    min_each_class: int = 20
    min_shown: int = 20
    # A flow with more shown contexts trains on a sample of this many (by a hash of the
    # context id); 0 for no limit.
    max_contexts: int = 0
    # Columns (which signals, which categories) are chosen from at most this many training
    # contexts of a flow; 0 for all of them.
    column_sample: int = 0
    features: FeatureSettings = field(default_factory=FeatureSettings)


@dataclass
class FlowResult:
    flow: str
    shown_contexts: int
    not_shown: int
    sampled_contexts: int = 0  # contexts trained and held out, when a sample was taken
    column_contexts: int = 0  # training contexts the columns were chosen from, when sampled
    train_contexts: int = 0
    train_positives: int = 0
    holdout: object = None  # evaluation.Holdout
    table: object = None  # FeatureTable
    model: object = None  # the fitted classifier
    matrix: object = None  # rows of `contexts`, training ones first
    holdout_rows: object = None  # (matrix, probabilities) for checks of the written file
    refused: list = field(default_factory=list)
    contexts: list = field(default_factory=list)  # trained, then held out
    model_file: str = None  # relative to the output folder, once written and checked

    @property
    def ships(self):
        return not self.refused


def _unit_hash(settings, purpose, context_id):
    digest = hashlib.sha256(f"{settings.seed}:{purpose}{context_id}".encode()).digest()
    return int.from_bytes(digest[:8], "big") / 2.0 ** 64


def in_holdout(context_id, settings):
    """A stable split: the same context lands on the same side whatever the input order."""
    return _unit_hash(settings, "", context_id) < settings.holdout_share


def make_classifier(seed):
    # Histogram boosting takes missing values natively and learns where they go, as the
    # SDK serves absent signals as missing.
    return HistGradientBoostingClassifier(max_iter=100, max_depth=3, learning_rate=0.1,
                                          early_stopping=False, random_state=seed)


def plan_flow(flow, contexts, settings):
    """The flow's result before training: counts, the refusals known from them, and its
    contexts split into training and held-out ones (a sample of them for a huge flow)."""
    shown = [c for c in contexts if c.shown]
    result = FlowResult(flow, len(shown), len(contexts) - len(shown))
    positives = sum(c.positive for c in shown)
    if len(shown) < settings.min_contexts:
        result.refused.append(f"{len(shown)} shown contexts (need {settings.min_contexts})")
    if min(positives, len(shown) - positives) < settings.min_each_class:
        result.refused.append(f"{positives} positive and {len(shown) - positives} negative "
                              f"answers (need {settings.min_each_class} of each)")
    if settings.max_contexts and len(shown) > settings.max_contexts:
        shown = sorted(shown, key=lambda c: _unit_hash(settings, "sample:", c.context_id))
        shown = shown[:settings.max_contexts]
        result.sampled_contexts = len(shown)
    train = [c for c in shown if not in_holdout(c.context_id, settings)]
    hold = [c for c in shown if in_holdout(c.context_id, settings)]
    result.contexts = train + hold
    result.train_contexts = len(train)
    result.train_positives = sum(c.positive for c in train)
    if result.refused:
        return result
    held_positives = sum(c.positive for c in hold)
    if min(result.train_positives, len(train) - result.train_positives, held_positives,
           len(hold) - held_positives) == 0:
        result.refused.append("the split left one side without both answers")
    return result


def _column_contexts(result, settings):
    train = result.contexts[:result.train_contexts]
    if not settings.column_sample or len(train) <= settings.column_sample:
        return train
    result.column_contexts = settings.column_sample
    train = sorted(train, key=lambda c: _unit_hash(settings, "columns:", c.context_id))
    return train[:settings.column_sample]


def _note(log, text, started):
    if log:
        log(f"{text} ({time.monotonic() - started:.1f} s)")


def train_flows(results, settings, source, log=None):
    """Fits and evaluates every result not refused yet, reading the records from `source`
    (records.Sources or records.InMemory) in two passes."""
    todo = [r for r in results if not r.refused]
    started = time.monotonic()
    stats = {r.flow: FeatureStats(settings.features) for r in todo}
    wanted = {c.record.order: stats[r.flow] for r in todo
              for c in _column_contexts(r, settings)}
    for order, record in source.full_records(wanted):
        wanted[order].add(record)
    del wanted
    for r in todo:
        r.table = stats.pop(r.flow).table()
        if not r.table.columns:
            r.refused.append("no signal varies across the training contexts")
    todo = [r for r in todo if not r.refused]
    _note(log, "columns chosen", started)

    place = {}
    for r in todo:
        r.matrix = np.empty((len(r.contexts), len(r.table.names())), dtype=np.float64)
        for i, c in enumerate(r.contexts):
            place[c.record.order] = (r, i)
    for order, record in source.full_records(place):
        r, i = place[order]
        r.matrix[i] = r.table.row(record)
    del place
    _note(log, "rows read", started)

    for r in todo:
        fit_flow(r, settings)
        _note(log, f"flow {r.flow} fitted", started)


def fit_flow(result, settings):
    n = result.train_contexts
    x_train, x_hold = result.matrix[:n], result.matrix[n:]
    labels = np.array([c.positive for c in result.contexts], dtype=int)
    model = make_classifier(settings.seed).fit(x_train, labels[:n])
    result.model = model
    threshold = choose_threshold(model.predict_proba(x_train)[:, 1], settings.show_share)
    p_hold = model.predict_proba(x_hold)[:, 1]
    result.holdout = evaluate_holdout(p_hold, labels[n:], threshold, settings.min_shown)
    result.holdout_rows = (x_hold, p_hold)
    result.refused.extend(result.holdout.reasons)


def train_flow(flow, contexts, settings, source=None):
    """One flow, its records at hand (`contexts` carry full records) unless `source` says
    where to read them."""
    result = plan_flow(flow, contexts, settings)
    train_flows([result], settings, source or InMemory(c.record for c in result.contexts))
    return result


def train_all(pairing, settings, source=None, log=None):
    by_flow = {}
    for context in pairing.contexts:
        by_flow.setdefault(context.flow, []).append(context)
    results = [plan_flow(flow, by_flow[flow], settings) for flow in sorted(by_flow)]
    if source is None:
        source = InMemory(c.record for c in pairing.contexts)
    train_flows(results, settings, source, log)
    return results
