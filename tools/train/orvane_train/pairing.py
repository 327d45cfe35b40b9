"""Pairing each context with what the user answered.

Rules (the README states them for users of the tool):
- A record sent twice (a batch re-sent after a lost answer) has the same log id: the first
  copy received is kept, later copies are counted and dropped.
- An answer is an outcome log (event type 2) whose outcome is one the host can log: 1..4
  positive, -1..-3 negative, 0 skipped. The SDK's own logs (creation -101, tracked events
  -100, the automatic "not shown" -102, golden signals -104) are not answers.
- A context answered positively at least once is positive (a user who dismissed and later
  converted did convert); otherwise one answered negatively is negative; one only skipped
  is left out, as is one without any answer (a creation log alone).
- Features come from the context's first answer: every log of a context carries the signals
  the decision saw, and answers are always present for labelled contexts, whereas the creation
  log reaches the service only when no answer followed in the same session.
- An answer without a context id (ctx_29) cannot be paired and is counted."""

from dataclasses import dataclass, field

from .records import SHOWN

CREATED = -101
ANSWER_EVENT_TYPE = 2
CREATION_EVENT_TYPE = 1
ANSWERS = range(-3, 5)


@dataclass
class LabelledContext:
    context_id: str
    flow: str
    positive: bool
    record: object  # the Record the features come from
    outcomes: list  # every answer, in the order received

    @property
    def shown(self):
        return self.record.get(SHOWN) is True


@dataclass
class FlowCounts:
    contexts: int = 0
    positive: int = 0
    negative: int = 0
    skipped_only: int = 0
    without_answer: int = 0
    several_answers: int = 0


@dataclass
class Pairing:
    contexts: list = field(default_factory=list)  # LabelledContext
    flows: dict = field(default_factory=dict)  # flow name -> FlowCounts
    duplicates: int = 0
    answers_without_context: int = 0
    other_logs: int = 0  # tracked events, golden signals, "not shown" logs

    def counts(self, flow):
        return self.flows.setdefault(flow, FlowCounts())


def is_answer(record):
    return record.event_type == ANSWER_EVENT_TYPE and record.outcome in ANSWERS


def is_creation(record):
    return record.outcome == CREATED and record.event_type == CREATION_EVENT_TYPE


def pair(records, problems):
    result = Pairing()
    seen_log_ids = set()
    by_context = {}  # context id -> [records]
    for record in sorted(records, key=lambda r: r.order):
        if record.log_id in seen_log_ids:
            result.duplicates += 1
            continue
        seen_log_ids.add(record.log_id)
        if not (is_answer(record) or is_creation(record)):
            result.other_logs += 1
            continue
        if record.context_id is None or record.flow is None:
            if is_answer(record):
                result.answers_without_context += 1
                problems.add("answer without a context id or flow", record.log_id)
            continue
        by_context.setdefault(record.context_id, []).append(record)

    for context_id, logs in by_context.items():
        answers = [r for r in logs if is_answer(r)]
        flow = (answers or logs)[0].flow
        counts = result.counts(flow)
        counts.contexts += 1
        if any(r.flow != flow for r in logs):
            problems.add("context logged under more than one flow", context_id)
        if not answers:
            counts.without_answer += 1
            continue
        outcomes = [r.outcome for r in answers]
        if len(outcomes) > 1:
            counts.several_answers += 1
        if any(o > 0 for o in outcomes):
            positive = True
        elif any(o < 0 for o in outcomes):
            positive = False
        else:
            counts.skipped_only += 1
            continue
        if positive:
            counts.positive += 1
        else:
            counts.negative += 1
        result.contexts.append(LabelledContext(context_id, flow, positive, answers[0], outcomes))
    return result
