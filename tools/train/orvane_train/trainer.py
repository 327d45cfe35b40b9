"""Training one model per flow: split, fit, threshold, held-out evaluation."""

import hashlib
from dataclasses import dataclass, field

import numpy as np
from sklearn.ensemble import HistGradientBoostingClassifier

from .evaluation import choose_threshold, evaluate_holdout
from .features import FeatureSettings, FeatureTable


@dataclass
class Settings:
    seed: int = 1
    holdout_share: float = 0.3
    show_share: float = 0.5
    min_contexts: int = 200
    min_each_class: int = 20
    min_shown: int = 20
    features: FeatureSettings = field(default_factory=FeatureSettings)


@dataclass
class FlowResult:
    flow: str
    shown_contexts: int
    not_shown: int
    train_contexts: int = 0
    train_positives: int = 0
    holdout: object = None  # evaluation.Holdout
    table: object = None  # FeatureTable
    model: object = None  # the fitted classifier
    holdout_rows: object = None  # (matrix, probabilities) for checks of the written file
    refused: list = field(default_factory=list)
    contexts: list = field(default_factory=list)  # the shown contexts trained and held out
    model_file: str = None  # relative to the output folder, once written and checked

    @property
    def ships(self):
        return not self.refused


def in_holdout(context_id, settings):
    """A stable split: the same context lands on the same side whatever the input order."""
    digest = hashlib.sha256(f"{settings.seed}:{context_id}".encode()).digest()
    return int.from_bytes(digest[:8], "big") / 2.0 ** 64 < settings.holdout_share


def make_classifier(seed):
    # Histogram boosting takes missing values natively and learns where they go, as the
    # SDK serves absent signals as missing.
    return HistGradientBoostingClassifier(max_iter=100, max_depth=3, learning_rate=0.1,
                                          early_stopping=False, random_state=seed)


def train_flow(flow, contexts, settings):
    shown = [c for c in contexts if c.shown]
    result = FlowResult(flow, len(shown), len(contexts) - len(shown), contexts=shown)
    positives = sum(c.positive for c in shown)
    if len(shown) < settings.min_contexts:
        result.refused.append(f"{len(shown)} shown contexts (need {settings.min_contexts})")
    if min(positives, len(shown) - positives) < settings.min_each_class:
        result.refused.append(f"{positives} positive and {len(shown) - positives} negative "
                              f"answers (need {settings.min_each_class} of each)")
    if result.refused:
        return result

    train = [c for c in shown if not in_holdout(c.context_id, settings)]
    hold = [c for c in shown if in_holdout(c.context_id, settings)]
    y_train = np.array([c.positive for c in train], dtype=int)
    y_hold = np.array([c.positive for c in hold], dtype=int)
    result.train_contexts, result.train_positives = len(train), int(y_train.sum())
    if min(y_train.sum(), len(y_train) - y_train.sum(), y_hold.sum(),
           len(y_hold) - y_hold.sum()) == 0:
        result.refused.append("the split left one side without both answers")
        return result

    table = FeatureTable.fit([c.record for c in train], settings.features)
    result.table = table
    if not table.columns:
        result.refused.append("no signal varies across the training contexts")
        return result
    x_train = table.matrix([c.record for c in train])
    x_hold = table.matrix([c.record for c in hold])
    model = make_classifier(settings.seed).fit(x_train, y_train)
    result.model = model
    threshold = choose_threshold(model.predict_proba(x_train)[:, 1], settings.show_share)
    p_hold = model.predict_proba(x_hold)[:, 1]
    result.holdout = evaluate_holdout(p_hold, y_hold, threshold, settings.min_shown)
    result.holdout_rows = (x_hold, p_hold)
    result.refused.extend(result.holdout.reasons)
    return result


def train_all(pairing, settings):
    by_flow = {}
    for context in pairing.contexts:
        by_flow.setdefault(context.flow, []).append(context)
    return [train_flow(flow, by_flow[flow], settings) for flow in sorted(by_flow)]
