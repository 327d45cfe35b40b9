import unittest

import numpy as np
from sklearn.metrics import roc_auc_score

from orvane_train.evaluation import auc_delong, choose_threshold, evaluate_holdout, wilson
from orvane_train.pairing import pair
from orvane_train.records import Problems, record_from_json
from orvane_train.report import flow_lines
from orvane_train.trainer import Settings, in_holdout, train_flow

from .synthetic import moments


def train(events, settings=Settings()):
    problems = Problems()
    records = [record_from_json(e, i, problems, "t") for i, e in enumerate(events)]
    contexts = pair(records, problems).contexts
    return train_flow("paywall", contexts, settings)


class MeasuresTest(unittest.TestCase):
    def test_auc_matches_the_rank_definition_with_ties(self):
        rng = np.random.RandomState(3)
        labels = rng.rand(300) < 0.4
        scores = np.round(rng.rand(300) + 0.3 * labels, 1)  # many ties
        auc, low, high = auc_delong(scores, labels)
        self.assertAlmostEqual(auc, roc_auc_score(labels, scores), places=12)
        self.assertLess(low, auc)
        self.assertGreater(high, auc)

    def test_auc_interval_narrows_with_more_data(self):
        rng = np.random.RandomState(4)
        widths = []
        for n in (100, 2000):
            labels = rng.rand(n) < 0.5
            scores = rng.rand(n) + 0.5 * labels
            _, low, high = auc_delong(scores, labels)
            widths.append(high - low)
        self.assertLess(widths[1], widths[0] / 3)

    def test_wilson_interval(self):
        rate, low, high = wilson(5, 10)
        self.assertEqual(rate, 0.5)
        self.assertAlmostEqual(low, 0.2366, places=4)
        self.assertAlmostEqual(high, 0.7634, places=4)
        self.assertEqual(wilson(0, 20)[1], 0.0)
        self.assertLess(wilson(20, 20)[1], 1.0)

    def test_threshold_shows_the_asked_share(self):
        p = np.linspace(0, 1, 101)
        threshold = choose_threshold(p, 0.25)
        self.assertEqual(int((p >= threshold).sum()), 25)

    def test_rule_compares_shown_rate_with_control(self):
        labels = np.array([1] * 30 + [0] * 70, dtype=bool)
        # A perfect ranking shows only positives above the threshold.
        good = evaluate_holdout(labels + np.linspace(0, 0.5, 100), labels, 1.0)
        self.assertTrue(good.ships, good.reasons)
        self.assertEqual((good.shown, good.shown_positives), (30, 30))
        # The same ranking, but a threshold that shows everyone: no better than control.
        everyone = evaluate_holdout(labels + np.linspace(0, 0.5, 100), labels, 0.0)
        self.assertFalse(everyone.ships)
        self.assertAlmostEqual(everyone.model_rate[0], everyone.control_rate[0])


class TrainingTest(unittest.TestCase):
    def test_refuses_a_model_of_signals_that_say_nothing(self):
        result = train(moments(1500, seed=5, signal_strength=0.0))
        self.assertIsNotNone(result.holdout)
        self.assertFalse(result.ships)
        self.assertTrue(result.refused)

    def test_ships_a_model_of_a_clear_signal(self):
        result = train(moments(1500, seed=6, signal_strength=1.5))
        self.assertTrue(result.ships, result.refused)
        h = result.holdout
        self.assertGreater(h.auc[1], 0.7)
        self.assertGreater(h.model_rate[1], h.control_rate[0])
        self.assertEqual(h.contexts + result.train_contexts, 1500)
        self.assertIn("113", result.table.names())

    def test_only_shown_contexts_are_used(self):
        events = moments(600, seed=8, signal_strength=1.5)
        for event in events[:400]:
            event["ctx_12"] = False
        result = train(events, Settings(min_contexts=100))
        self.assertEqual((result.shown_contexts, result.not_shown), (200, 400))

    def test_huge_flows_are_sampled_and_say_so(self):
        events = moments(900, seed=10, signal_strength=1.5)
        result = train(events, Settings(max_contexts=600, column_sample=200))
        self.assertEqual((result.shown_contexts, result.sampled_contexts), (900, 600))
        self.assertEqual(len(result.contexts), 600)
        self.assertEqual(result.holdout.contexts + result.train_contexts, 600)
        self.assertEqual(result.column_contexts, 200)
        self.assertTrue(result.ships, result.refused)
        lines = "\n".join(flow_lines(result))
        self.assertIn("sample of 600", lines)
        self.assertIn("sample of 200 training contexts", lines)

    def test_split_is_stable_and_near_the_share(self):
        ids = [f"ctx-{i}" for i in range(4000)]
        settings = Settings(seed=3, holdout_share=0.3)
        held = [i for i in ids if in_holdout(i, settings)]
        self.assertEqual(held, [i for i in reversed(ids) if in_holdout(i, settings)][::-1])
        self.assertAlmostEqual(len(held) / len(ids), 0.3, delta=0.03)
        self.assertNotEqual(held, [i for i in ids if in_holdout(i, Settings(seed=4))])


if __name__ == "__main__":
    unittest.main()
