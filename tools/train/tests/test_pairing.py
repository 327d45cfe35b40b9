import gzip
import json
import os
import sqlite3
import tempfile
import unittest

from orvane_train.pairing import pair
from orvane_train.records import Problems, Sources, read_records, record_from_json

from .synthetic import log


def records_of(events):
    problems = Problems()
    return [record_from_json(e, i, problems, "test") for i, e in enumerate(events)], problems


def paired(events):
    records, problems = records_of(events)
    return pair(records, problems)


class PairingTest(unittest.TestCase):
    def test_resent_record_counts_once(self):
        answer = log("a", "paywall", -1, log_id="L1")
        result = paired([log("b", "paywall", 1), answer, dict(answer)])
        self.assertEqual(result.duplicates, 1)
        self.assertEqual(result.flows["paywall"].negative, 1)
        self.assertEqual(len(result.contexts), 2)

    def test_label_from_all_answers_of_a_context(self):
        result = paired([
            log("dismissed-then-bought", "paywall", -3), log("dismissed-then-bought", "paywall", 3),
            log("skipped-then-refused", "paywall", 0), log("skipped-then-refused", "paywall", -1),
            log("only-skipped", "paywall", 0),
            log("never-answered", "paywall", -101, event_type=1),
        ])
        labels = {c.context_id: c.positive for c in result.contexts}
        self.assertEqual(labels, {"dismissed-then-bought": True, "skipped-then-refused": False})
        counts = result.flows["paywall"]
        self.assertEqual((counts.contexts, counts.skipped_only, counts.without_answer,
                          counts.several_answers), (4, 1, 1, 2))

    def test_features_come_from_the_first_answer_received(self):
        result = paired([
            log("c", "paywall", -101, event_type=1, signals={70: 0.1}),
            log("c", "paywall", -1, signals={70: 0.2}),
            log("c", "paywall", 2, signals={70: 0.3}),
        ])
        (context,) = result.contexts
        self.assertTrue(context.positive)
        self.assertEqual(context.record.get(70), 0.2)
        self.assertEqual(context.outcomes, [-1, 2])

    def test_sdk_logs_that_are_not_answers(self):
        result = paired([
            log("t", "paywall", -100, event_type=12),  # tracked event
            log("g", "paywall", -104, event_type=1),  # golden signals
            log("n", "paywall", -102),  # the automatic "not shown"
            log("x", "paywall", 7),  # not an outcome a host can log
            log(None, "paywall", 1),
        ])
        self.assertEqual(result.contexts, [])
        self.assertEqual(result.other_logs, 4)
        self.assertEqual(result.answers_without_context, 1)


class ReadingTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)

    def path(self, name):
        return os.path.join(self.folder.name, name)

    def test_service_database_in_received_order(self):
        db = self.path("service.sqlite")
        connection = sqlite3.connect(db)
        connection.execute("CREATE TABLE events(id INTEGER PRIMARY KEY, request_number INTEGER, "
                           "log_id TEXT, event TEXT)")
        rows = [(2, json.dumps(log("b", "paywall", 1, log_id="second"))),
                (1, json.dumps(log("a", "paywall", -1, log_id="first"))),
                (3, "{not json"), (4, json.dumps({"ctx_3": 1}))]
        connection.executemany("INSERT INTO events(id, event) VALUES (?, ?)", rows)
        connection.commit()
        connection.close()
        problems = Problems()
        records = read_records(db, problems)
        self.assertEqual([r.log_id for r in records], ["first", "second"])
        self.assertEqual(sum(problems.counts.values()), 2)

    def test_passes_over_several_sources_agree_on_record_order(self):
        with open(self.path("1.json"), "w") as f:
            json.dump({"events": [log("a", "paywall", 1, signals={113: 0.5}), "broken",
                                  log("b", "paywall", -1, custom={"plan": "gold"})]}, f)
        db = self.path("service.sqlite")
        connection = sqlite3.connect(db)
        connection.execute("CREATE TABLE events(id INTEGER PRIMARY KEY, event TEXT)")
        connection.execute("INSERT INTO events(event) VALUES (?)",
                           (json.dumps(log("c", "banner", 2, signals={191: 3})),))
        connection.commit()
        connection.close()
        sources = Sources([self.folder.name, db])
        problems = Problems()
        light = sources.light_records(problems)
        self.assertEqual([(r.order, r.context_id) for r in light], [(0, "a"), (2, "b"), (3, "c")])
        self.assertEqual(problems.counts, {"event is not a JSON object": 1})
        # Light records carry what pairing and the payload read, not the features.
        self.assertNotIn(113, light[0].signals)
        self.assertEqual((light[1].custom, light[2].get(191)), ({}, 3))
        full = dict(sources.full_records({2, 0}))
        self.assertEqual(sorted(full), [0, 2])
        self.assertEqual((full[0].get(113), full[2].custom), (0.5, {"plan": "gold"}))

    def test_upload_folder_with_compressed_and_broken_bodies(self):
        with open(self.path("1.json"), "w") as f:
            json.dump({"events": [log("a", "paywall", 1, custom={"plan": "gold"})]}, f)
        with gzip.open(self.path("2.json.gz"), "wt") as f:
            json.dump({"events": [log("b", "paywall", -2), "not an event"]}, f)
        with open(self.path("3.json"), "w") as f:
            f.write("{\"events\": [")
        with open(self.path("notes.txt"), "w") as f:
            f.write("ignored")
        problems = Problems()
        records = read_records(self.folder.name, problems)
        self.assertEqual([r.context_id for r in records], ["a", "b"])
        self.assertEqual(records[0].custom, {"plan": "gold"})
        self.assertEqual(records[1].outcome, -2)
        self.assertEqual(set(problems.counts),
                         {"event is not a JSON object", "upload file that cannot be read"})


if __name__ == "__main__":
    unittest.main()
