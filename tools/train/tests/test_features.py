import math
import unittest

import numpy as np

from orvane_train.features import FeatureSettings, FeatureTable, numeric_value
from orvane_train.records import Problems, record_from_json

from .synthetic import as_written, log


def records(rows):
    """rows: (built-in signals, custom signals) pairs."""
    problems = Problems()
    return [record_from_json(log(f"c{i}", "paywall", 1, signals=s, custom=c), i, problems, "t")
            for i, (s, c) in enumerate(rows)]


class FeatureNamingTest(unittest.TestCase):
    def setUp(self):
        rows = [({70: 0.5 + i / 100, 34: ["US", "DE", "US"][i % 3], 51: i % 2 == 0},
                 {"sessions": i, "ratio": i / 4, "tier": ["gold", "free"][i % 2]})
                for i in range(12)]
        self.table = FeatureTable.fit(records(rows), FeatureSettings(min_category_count=2))

    def test_input_names_follow_the_sdk_grammar(self):
        self.assertEqual(self.table.names(), [
            "34_0", "34_1", "34_-1", "51", "70",
            "<c>ratio</c>", "<c>sessions</c>", "<c>tier</c>_0", "<c>tier</c>_1", "<c>tier</c>_-1"])

    def test_mappings_list_categories_by_frequency(self):
        self.assertEqual(self.table.mappings(),
                         {"34": ["US", "DE"], "<c>tier</c>": ["free", "gold"]})

    def test_input_types_match_what_the_sdk_serves(self):
        types = dict(self.table.input_types())
        # One-hot columns and custom integers are int64; a custom fraction is a double.
        self.assertEqual((types["34_-1"], types["<c>sessions</c>"], types["<c>ratio</c>"],
                          types["70"], types["51"]), ("int64", "int64", "double", "double",
                                                        "double"))

    def test_values_of_one_row(self):
        (row,) = self.table.matrix(records([({70: as_written(0.1), 34: "FR", 51: True},
                                             {"tier": "gold"})]))
        values = dict(zip(self.table.names(), row))
        # An unknown category lights the "-1" column; a 32-bit float is read back exactly.
        self.assertEqual([values[f"34_{i}"] for i in (0, 1, -1)], [0, 0, 1])
        self.assertEqual(values["70"], float(np.float32(0.1)))
        self.assertEqual(values["51"], 1.0)
        self.assertEqual([values[f"<c>tier</c>_{i}"] for i in (0, 1, -1)], [0, 1, 0])
        # Absent signals are missing, every one-hot column included.
        self.assertTrue(math.isnan(values["<c>sessions</c>"]))
        self.assertTrue(math.isnan(values["<c>ratio</c>"]))
        # A float's written text is read back through float32 even when whole; an infinity
        # becomes the largest float32.
        (row,) = self.table.matrix(records([({70: 1.23e10}, {"ratio": "Infinity"})]))
        values = dict(zip(self.table.names(), row))
        self.assertEqual(values["70"], 12300000256.0)
        self.assertEqual(values["<c>ratio</c>"], float(np.finfo(np.float32).max))

    def test_absent_text_signal_leaves_all_its_columns_missing(self):
        (row,) = self.table.matrix(records([({70: 0.2}, {})]))
        values = dict(zip(self.table.names(), row))
        self.assertTrue(all(math.isnan(values[f"34_{i}"]) for i in (0, 1, -1)))

    def test_inputs_file_for_the_model_runner(self):
        (row,) = self.table.matrix(records([({70: 0.25, 34: "US"}, {"sessions": 3})]))
        inputs = self.table.inputs_json(row)
        self.assertEqual(inputs["34_0"], 1)
        self.assertIsInstance(inputs["34_0"], int)
        self.assertEqual(inputs["<c>sessions</c>"], 3)
        self.assertIsNone(inputs["51"])
        self.assertEqual(inputs["70"], 0.25)


class FeatureChoiceTest(unittest.TestCase):
    def test_signals_a_model_cannot_use_are_left_out(self):
        rows = [({70: i / 10, 92: float(i), 9: i * 1.5, 426: 0.5, 24: '{"1":0.4}'}, {})
                for i in range(6)]
        table = FeatureTable.fit(records(rows))
        # Flow timing (92), the log's age (9) and model outputs come after the decision; the
        # log's own ids, flow and decision (ctx_8, ctx_20, ctx_12, ...) too.
        self.assertEqual(table.names(), ["70"])

    def test_constant_mixed_and_rare_signals(self):
        rows = [({70: 1.0, 71: i, 72: "a" if i % 2 else 3, 1: f"v{i}"}, {"x<c>": i})
                for i in range(6)]
        table = FeatureTable.fit(records(rows), FeatureSettings(min_category_count=2))
        self.assertEqual(table.names(), ["71"])
        self.assertEqual(set(table.skipped), {"70", "72", "1", "<c>x<c></c>"})

    def test_float_that_is_never_a_number_is_not_text(self):
        # The SDK serves such a signal as a missing double, never as a category.
        rows = [({70: i / 10, 53: "NaN"}, {}) for i in range(6)]
        table = FeatureTable.fit(records(rows), FeatureSettings(min_category_count=2))
        self.assertEqual(table.names(), ["70"])
        self.assertEqual(table.skipped["53"], "never has a value")

    def test_custom_floats_written_whole_stay_doubles(self):
        rows = [({}, {"big": 1.5e10 * (i + 1), "count": i}) for i in range(6)]
        types = dict(FeatureTable.fit(records(rows)).input_types())
        self.assertEqual(types, {"<c>big</c>": "double", "<c>count</c>": "int64"})

    def test_category_cap_keeps_the_most_frequent(self):
        rows = [({34: "common"}, {}) for _ in range(5)] + [({34: f"r{i % 3}"}, {})
                                                          for i in range(6)]
        table = FeatureTable.fit(records(rows), FeatureSettings(max_categories=2,
                                                                min_category_count=1))
        self.assertEqual(table.mappings(), {"34": ["common", "r0"]})


class NumericValueTest(unittest.TestCase):
    def test_values_as_the_sdk_feeds_them(self):
        self.assertEqual(numeric_value(True), 1.0)
        self.assertEqual(numeric_value(7), 7.0)
        self.assertEqual(numeric_value(0.1), float(np.float32(0.1)))
        self.assertNotEqual(numeric_value(0.1), 0.1)
        # A float's shortest text may be whole ("1.23e+10") without being the float's value;
        # an integer signal's plain digits are exact.
        self.assertEqual(numeric_value(1.23e10), 12300000256.0)
        self.assertEqual(numeric_value(12300000000), 12300000000.0)
        self.assertTrue(math.isnan(numeric_value("NaN")))
        self.assertEqual(numeric_value("-Infinity"), -float(np.finfo(np.float32).max))
        self.assertIsNone(numeric_value("text"))


if __name__ == "__main__":
    unittest.main()
