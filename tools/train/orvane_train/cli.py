"""Command line of orvane-train."""

import argparse
import json
import os
import sqlite3
import sys

from . import report
from .features import FeatureSettings
from .pairing import pair
from .records import Problems, read_records
from .trainer import Settings, train_all


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
    p.add_argument("--max-categories", type=int, default=20)
    p.add_argument("--min-category-count", type=int, default=5)
    args = p.parse_args(argv)
    if not 0 < args.holdout_share < 1 or not 0 < args.show_share <= 1:
        p.error("--holdout-share must lie in (0, 1) and --show-share in (0, 1]")
    return args


def main(argv=None):
    args = parse_arguments(sys.argv[1:] if argv is None else argv)
    settings = Settings(seed=args.seed, holdout_share=args.holdout_share,
                        show_share=args.show_share, min_contexts=args.min_contexts,
                        min_each_class=args.min_each_class, min_shown=args.min_shown,
                        features=FeatureSettings(args.max_categories, args.min_category_count))
    problems = Problems()
    records = []
    for path in args.data:
        try:
            found = read_records(path, problems)
        except (OSError, sqlite3.Error) as error:
            print(f"orvane-train: cannot read {path}: {error}", file=sys.stderr)
            return 1
        # Later sources come after earlier ones, so a re-sent record keeps its first copy.
        for record in found:
            record.order += len(records)
        records.extend(found)

    pairing = pair(records, problems)
    print(f"{len(records)} records read")
    for line in report.pairing_lines(pairing) + problems.lines():
        print(line)
    results = train_all(pairing, settings)
    for result in results:
        for line in report.flow_lines(result):
            print(line)

    os.makedirs(args.out, exist_ok=True)
    document = {"records": len(records), "problems": problems.counts,
                "flows": [report.flow_json(r) for r in results]}
    with open(os.path.join(args.out, "report.json"), "w") as f:
        json.dump(document, f, indent=1)
        f.write("\n")
    return 0
