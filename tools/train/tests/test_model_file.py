import contextlib
import json
import os
import subprocess
import tempfile
import unittest

from orvane_train import model_file
from orvane_train.cli import main
from orvane_train.features import FeatureTable
from orvane_train.records import Problems, Record, record_from_json
from orvane_train.trainer import make_classifier

from .synthetic import moments

SIM = os.environ.get("ORVANE_SIM", os.path.join(os.path.dirname(__file__), "..", "..", "..",
                                                "build", "tools", "sim", "orvane-sim"))


@unittest.skipUnless(os.access(SIM, os.X_OK), "orvane-sim is not built (set ORVANE_SIM)")
class WrittenModelTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.out = os.path.join(cls.folder.name, "out")
        data = os.path.join(cls.folder.name, "uploads")
        os.makedirs(data)
        clear = moments(1500, seed=6, signal_strength=1.5, flow="paywall")
        for event in clear:
            event["ctx_191"] = 3
        noise = moments(800, seed=7, signal_strength=0.0, flow="banner")
        with open(os.path.join(data, "upload.json"), "w") as f:
            json.dump({"events": clear + noise}, f)
        with open(os.devnull, "w") as quiet:
            with contextlib.redirect_stdout(quiet):
                cls.exit_code = main(["--data", data, "--out", cls.out, "--sim", SIM,
                                      "--payload-version", "7"])
        with open(os.path.join(cls.out, "report.json")) as f:
            cls.report = {flow["flow"]: flow for flow in json.load(f)["flows"]}

    @classmethod
    def tearDownClass(cls):
        cls.folder.cleanup()

    def payload(self, name):
        with open(os.path.join(self.out, name)) as f:
            return json.load(f)["updateData"]

    def test_shipped_model_is_assigned_with_its_threshold(self):
        self.assertEqual(self.exit_code, 0)
        paywall = self.report["paywall"]
        self.assertTrue(paywall["ships"], paywall["refused"])
        update = self.payload("payload.json")
        self.assertEqual(update["version"], 7)
        entry = update["modelInfoPerFlow"]["paywall"]
        self.assertFalse(entry["isControl"])
        self.assertEqual(entry["upsellThreshold"], paywall["holdout"]["threshold"])
        self.assertEqual(entry["modelUrl"].rsplit("/", 1)[1],
                         os.path.basename(paywall["modelFile"]))
        self.assertEqual(entry["modelVersion"] + ".mlmodel", os.path.basename(paywall["modelFile"]))
        self.assertEqual(entry["supportedDuration"], 3)

    def test_refused_flow_and_the_control_payload_use_the_control_rule(self):
        self.assertFalse(self.report["banner"]["ships"])
        self.assertIsNone(self.report["banner"]["modelFile"])
        self.assertTrue(self.payload("payload.json")["modelInfoPerFlow"]["banner"]["isControl"])
        control = self.payload("payload-control.json")["modelInfoPerFlow"]
        self.assertEqual({f: (e["isControl"], e["randomUpsellChance"]) for f, e in control.items()},
                         {"paywall": (True, 1.0), "banner": (True, 1.0)})
        self.assertEqual(os.listdir(os.path.join(self.out, "models")),
                         [os.path.basename(self.report["paywall"]["modelFile"])])

    def test_model_carries_what_the_decision_reads(self):
        path = os.path.join(self.out, self.report["paywall"]["modelFile"])
        info = json.loads(subprocess.run([SIM, "model-info", "--model", path], check=True,
                                         capture_output=True, text=True).stdout)
        self.assertEqual(info["predictedProbabilitiesName"], "classProbability")
        self.assertEqual([i["name"] for i in info["inputs"]], self.report["paywall"]["inputs"])
        metadata = json.loads(info["metadata"]["shortDescription"])
        self.assertEqual(metadata["mappings"], {"34": ["US", "DE", "FR"]})
        self.assertFalse(metadata["useInstantContext"])

    def test_check_notices_a_file_that_disagrees(self):
        events = moments(300, seed=9, signal_strength=1.5)
        records = [record_from_json(e, i, Problems(), "t") for i, e in enumerate(events)]
        table = FeatureTable.fit(records)
        x = table.matrix(records)
        labels = [e["ctx_3"] > 0 for e in events]
        result = type("Result", (), {"model": make_classifier(1).fit(x, labels), "table": table,
                                     "flow": "paywall"})()
        data, version = model_file.model_bytes(result, 3)
        path = os.path.join(self.folder.name, version + ".mlmodel")
        with open(path, "wb") as f:
            f.write(data)
        rows = x[:5]
        p = result.model.predict_proba(rows)[:, 1]
        self.assertIsNone(model_file.check_with_runner(SIM, path, table, rows, p))
        self.assertIn("held-out row 2",
                      model_file.check_with_runner(SIM, path, table, rows, p + [0, 0, 1e-8, 0, 0]))


class PayloadPartsTest(unittest.TestCase):
    def test_duration_is_the_one_most_asked_for(self):
        records = [Record(i, {191: v}) for i, v in enumerate((3, 5, 3, None, True, 2.0))]
        self.assertEqual(model_file.supported_duration(records), 3)
        self.assertEqual(model_file.supported_duration([]), 0)


if __name__ == "__main__":
    unittest.main()
