"""The per-flow report: printed lines for people and a JSON document for tools."""


def _interval(rate):
    value, low, high = rate
    return f"{value:.3f} ({low:.3f}..{high:.3f})"


def flow_lines(result):
    lines = [f"flow {result.flow}: {result.shown_contexts} shown contexts answered "
             f"({result.not_shown} answered but not shown, left out)"]
    if result.sampled_contexts:
        lines.append(f"  trained and held out on a sample of {result.sampled_contexts} of them")
    if result.column_contexts:
        lines.append(f"  inputs chosen from a sample of {result.column_contexts} training "
                     f"contexts")
    h = result.holdout
    if h is not None:
        lines.append(f"  train {result.train_contexts} ({result.train_positives} positive), "
                     f"held out {h.contexts} ({h.positives} positive), "
                     f"{len(result.table.names())} inputs")
        lines.append(f"  AUC {_interval(h.auc)}")
        lines.append(f"  threshold {h.threshold:.4f}: shown at {h.shown} of {h.contexts} held-out "
                     f"contexts, positive rate {_interval(h.model_rate)}; control rule "
                     f"{_interval(h.control_rate)}")
    if result.ships:
        lines.append(f"  ships: {result.model_file}")
    else:
        lines.extend(f"  not shipped: {reason}" for reason in result.refused)
    return lines


def pairing_lines(pairing):
    lines = [f"{len(pairing.contexts)} answered contexts; {pairing.duplicates} re-sent records "
             f"dropped; {pairing.answers_without_context} answers without a context; "
             f"{pairing.other_logs} other logs (tracked events, golden signals, not shown)"]
    for flow, c in sorted(pairing.flows.items()):
        lines.append(f"  {flow}: {c.contexts} contexts, {c.positive} positive, {c.negative} "
                     f"negative, {c.skipped_only} only skipped, {c.without_answer} without "
                     f"answer, {c.several_answers} with several answers")
    return lines


def flow_json(result):
    out = {"flow": result.flow, "ships": result.ships, "refused": result.refused,
           "shownContexts": result.shown_contexts, "notShown": result.not_shown,
           "sampledContexts": result.sampled_contexts or None,
           "columnContexts": result.column_contexts or None,
           "trainContexts": result.train_contexts, "trainPositives": result.train_positives}
    h = result.holdout
    if h is not None:
        rate = lambda r: {"value": r[0], "low": r[1], "high": r[2]}  # noqa: E731
        out["holdout"] = {"contexts": h.contexts, "positives": h.positives, "auc": rate(h.auc),
                          "threshold": h.threshold, "shown": h.shown,
                          "shownPositives": h.shown_positives,
                          "positiveRateWhenShown": rate(h.model_rate),
                          "controlPositiveRate": rate(h.control_rate)}
        out["modelFile"] = result.model_file
        out["inputs"] = result.table.names()
        out["notInputs"] = result.table.skipped
    return out
