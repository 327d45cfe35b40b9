"""Held-out measures: AUC with a DeLong interval, positive rates with Wilson intervals, and
the rule that decides whether a model may ship."""

import math
from dataclasses import dataclass

import numpy as np

Z95 = 1.959963984540054


def midranks(x):
    """Ranks from 1, ties sharing their average rank."""
    order = np.argsort(x, kind="mergesort")
    sorted_x = x[order]
    ranks = np.empty(len(x))
    i = 0
    while i < len(x):
        j = i
        while j + 1 < len(x) and sorted_x[j + 1] == sorted_x[i]:
            j += 1
        ranks[order[i:j + 1]] = (i + j) / 2 + 1
        i = j + 1
    return ranks


def auc_delong(scores, labels, z=Z95):
    """(auc, low, high): the area under the ROC curve and its DeLong interval. Needs both
    classes."""
    scores = np.asarray(scores, dtype=np.float64)
    labels = np.asarray(labels, dtype=bool)
    pos, neg = scores[labels], scores[~labels]
    m, n = len(pos), len(neg)
    if m == 0 or n == 0:
        raise ValueError("AUC needs positive and negative examples")
    all_ranks = midranks(np.concatenate([pos, neg]))
    auc = (all_ranks[:m].sum() - m * (m + 1) / 2) / (m * n)
    # Structural components: each positive's share of negatives it outranks, and conversely.
    v10 = (all_ranks[:m] - midranks(pos)) / n
    v01 = 1.0 - (all_ranks[m:] - midranks(neg)) / m
    variance = (np.var(v10, ddof=1) / m if m > 1 else 0.0) + (
        np.var(v01, ddof=1) / n if n > 1 else 0.0)
    half = z * math.sqrt(max(variance, 0.0))
    return float(auc), max(0.0, auc - half), min(1.0, auc + half)


def wilson(successes, total, z=Z95):
    """(rate, low, high) of a proportion; (nan, 0, 1) for no trials."""
    if total == 0:
        return math.nan, 0.0, 1.0
    p = successes / total
    denominator = 1 + z * z / total
    centre = (p + z * z / (2 * total)) / denominator
    half = z * math.sqrt(p * (1 - p) / total + z * z / (4 * total * total)) / denominator
    return p, max(0.0, centre - half), min(1.0, centre + half)


def choose_threshold(train_probabilities, show_share):
    """The threshold that shows the upsell at `show_share` of the training contexts: the SDK
    shows it when the probability is at least the threshold."""
    p = np.sort(np.asarray(train_probabilities, dtype=np.float64))[::-1]
    count = min(len(p), max(1, int(round(show_share * len(p)))))
    return float(p[count - 1])


@dataclass
class Holdout:
    contexts: int
    positives: int
    auc: tuple  # (value, low, high)
    threshold: float
    shown: int
    shown_positives: int
    model_rate: tuple  # Wilson (rate, low, high) of positives among contexts shown
    control_rate: tuple  # Wilson (rate, low, high) of positives among all contexts
    ships: bool
    reasons: list  # why it does not ship; empty when it does


def evaluate_holdout(probabilities, labels, threshold, min_shown=20):
    """The ship rule, on held-out contexts that were all shown under the current rule:

    The control rule shows the upsell at every context, so its positive rate is the rate over
    all held-out contexts. The model would show it where its probability is at least the
    threshold. The model ships only when
      1. the lower end of the AUC's 95% DeLong interval is above 0.5, and
      2. at least `min_shown` held-out contexts pass the threshold, and
      3. the lower end of the 95% Wilson interval of the positive rate among them is above
         the control rule's positive rate."""
    probabilities = np.asarray(probabilities, dtype=np.float64)
    labels = np.asarray(labels, dtype=bool)
    auc = auc_delong(probabilities, labels)
    shown = probabilities >= threshold
    n_shown, shown_pos = int(shown.sum()), int(labels[shown].sum())
    model_rate = wilson(shown_pos, n_shown)
    control_rate = wilson(int(labels.sum()), len(labels))
    reasons = []
    if auc[1] <= 0.5:
        reasons.append(f"AUC interval reaches 0.5 ({auc[1]:.3f}..{auc[2]:.3f})")
    if n_shown < min_shown:
        reasons.append(f"only {n_shown} held-out contexts pass the threshold (need {min_shown})")
    elif model_rate[1] <= control_rate[0]:
        reasons.append(f"positive rate when shown {model_rate[0]:.3f} (low end "
                       f"{model_rate[1]:.3f}) does not beat the control rule's "
                       f"{control_rate[0]:.3f}")
    return Holdout(len(labels), int(labels.sum()), auc, threshold, n_shown, shown_pos,
                   model_rate, control_rate, not reasons, reasons)
