"""Command line of orvane-train."""

import argparse
import json
import os
import resource
import sqlite3
import sys
import time

from threadpoolctl import threadpool_limits

from . import model_file, report
from .features import FeatureSettings
from .pairing import pair
from .records import Problems, Sources
from .trainer import Settings, in_holdout, train_all


DEFAULT_SIM = os.path.join(os.path.dirname(__file__), "..", "..", "..", "build", "tools", "sim",
                           "orvane-sim")


def write_models(results, args):
    """Writes each model that passed evaluation and checks the written file; a file that does
    not give the trainer's probabilities is removed and the flow does not ship. Returns the
    payload entries of every flow."""
    folder = os.path.join(args.out, "models")
    os.makedirs(folder, exist_ok=True)
    entries = {}
    for result in results:
        duration = model_file.supported_duration([c.record for c in result.contexts])
        if result.ships:
            data, version = model_file.model_bytes(result, duration)
            path = os.path.join(folder, version + ".mlmodel")
            with open(path, "wb") as f:
                f.write(data)
            rows, probabilities = result.holdout_rows
            picked = model_file.rows_to_check(len(rows), args.check_rows)
            problem = model_file.check_with_runner(args.sim, path, result.table, rows[picked],
                                                   probabilities[picked])
            if problem:
                os.remove(path)
                result.refused.append(problem)
            else:
                result.model_file = os.path.relpath(path, args.out)
                url = args.model_base_url.rstrip("/") + "/" + os.path.basename(path)
                entries[result.flow] = model_file.flow_entry(
                    version, url, result.holdout.threshold, args.random_upsell_chance, duration)
                continue
        entries[result.flow] = model_file.control_entry(duration)
    return entries


def write_rows(results, settings, path):
    """Every trained context's model inputs and the trainer's probability, one JSON object per
    line, in the input format of `orvane-sim predict`: what each model was fed, to compare with
    what the SDK feeds it."""
    with open(path, "w") as f:
        for result in results:
            if result.model is None:
                continue
            probabilities = result.model.predict_proba(result.matrix)[:, 1]
            for context, row, probability in zip(result.contexts, result.matrix, probabilities):
                line = {"flow": result.flow, "context": context.context_id,
                        "heldOut": in_holdout(context.context_id, settings),
                        "positive": context.positive, "probability": float(probability),
                        "inputs": result.table.inputs_json(row)}
                f.write(json.dumps(line) + "\n")


def parse_arguments(argv):
    p = argparse.ArgumentParser(
        prog="orvane-train",
        description="Trains a model per flow from the records the SDK uploaded and reports "
                    "whether each beats the control rule on held-out contexts.")
    p.add_argument("--data", action="append", required=True,
                   help="the development service's SQLite file, or a folder of upload bodies "
                        "(*.json, *.json.gz); may be given several times")
    p.add_argument("--out", required=True, help="folder for report.json (created)")
    p.add_argument("--seed", type=int, default=1, help="seed of the split and the trees")
    p.add_argument("--holdout-share", type=float, default=0.3)
    p.add_argument("--show-share", type=float, default=0.5,
                   help="share of training contexts the chosen threshold shows the upsell at")
    p.add_argument("--min-contexts", type=int, default=200,
                   help="answered contexts a flow needs, shown ones only")
    p.add_argument("--min-each-class", type=int, default=20)
    p.add_argument("--min-shown", type=int, default=20,
                   help="held-out contexts that must pass the threshold")
    p.add_argument("--sim", default=os.environ.get("ORVANE_SIM", DEFAULT_SIM),
                   help="orvane-sim, which checks each written model file (default: $ORVANE_SIM "
                        "or build/tools/sim/orvane-sim)")
    p.add_argument("--model-base-url", default="http://127.0.0.1:8080/models",
                   help="where the service serves the model files; the payload's modelUrl is "
                        "this, \"/\" and the file name")
    p.add_argument("--payload-version", type=int, default=1,
                   help="update version; must exceed the one installations last applied")
    p.add_argument("--random-upsell-chance", type=float, default=0.05,
                   help="chance that a context the model turns down still shows the upsell, "
                        "so later training sees such moments too")
    p.add_argument("--control-share", type=float, default=0.1,
                   help="share of installations the service keeps on the control rule")
    p.add_argument("--check-rows", type=int, default=20,
                   help="held-out rows run through orvane-sim per model")
    p.add_argument("--max-contexts", type=int, default=200_000,
                   help="a flow with more shown contexts trains on a sample of this many "
                        "(0: no limit)")
    p.add_argument("--column-sample", type=int, default=50_000,
                   help="choose a flow's inputs and categories from at most this many of its "
                        "training contexts (0: all)")
    p.add_argument("--threads", type=int, default=1,
                   help="threads the trees are fitted with; more help only on idle cores (on "
                        "a busy machine OpenMP's waiting threads make a fit many times slower)")
    p.add_argument("--rows", metavar="FILE",
                   help="also write every trained context's inputs and probability (JSON lines)")
    p.add_argument("--max-categories", type=int, default=20)
    p.add_argument("--min-category-count", type=int, default=5)
    args = p.parse_args(argv)
    if not 0 < args.holdout_share < 1 or not 0 < args.show_share <= 1:
        p.error("--holdout-share must lie in (0, 1) and --show-share in (0, 1]")
    if not 0 <= args.random_upsell_chance <= 1 or not 0 <= args.control_share <= 1:
        p.error("--random-upsell-chance and --control-share must lie in [0, 1]")
    return args


def main(argv=None):
    args = parse_arguments(sys.argv[1:] if argv is None else argv)
    settings = Settings(seed=args.seed, holdout_share=args.holdout_share,
                        show_share=args.show_share, min_contexts=args.min_contexts,
                        min_each_class=args.min_each_class, min_shown=args.min_shown,
                        max_contexts=args.max_contexts, column_sample=args.column_sample,
                        features=FeatureSettings(args.max_categories, args.min_category_count))
    started = time.monotonic()

    def stage(text):
        peak = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss / 1024
        print(f"[{time.monotonic() - started:7.1f} s, peak {peak:6.0f} MB] {text}")

    problems = Problems()
    # Sources are read once for pairing and again for the contexts trained on; later sources
    # come after earlier ones, so a re-sent record keeps its first copy.
    source = Sources(args.data)
    try:
        records = source.light_records(problems)
        stage(f"{len(records)} records read and paired")
        pairing = pair(records, problems)
        for line in report.pairing_lines(pairing) + problems.lines():
            print(line)
        with threadpool_limits(limits=max(1, args.threads)):
            results = train_all(pairing, settings, source, log=stage)
    except (OSError, sqlite3.Error) as error:
        print(f"orvane-train: cannot read the records: {error}", file=sys.stderr)
        return 1
    os.makedirs(args.out, exist_ok=True)
    entries = write_models(results, args)
    stage("models written and checked")
    for result in results:
        for line in report.flow_lines(result):
            print(line)

    if args.rows:
        write_rows(results, settings, args.rows)

    model_payload, control_payload = model_file.payloads(entries, args.payload_version)
    for name, payload in (("payload.json", model_payload),
                          ("payload-control.json", control_payload)):
        with open(os.path.join(args.out, name), "w") as f:
            json.dump(payload, f, indent=1)
            f.write("\n")
    document = {"records": len(records), "problems": problems.counts,
                "controlShare": args.control_share,
                "flows": [report.flow_json(r) for r in results]}
    with open(os.path.join(args.out, "report.json"), "w") as f:
        json.dump(document, f, indent=1)
        f.write("\n")
    return 0
