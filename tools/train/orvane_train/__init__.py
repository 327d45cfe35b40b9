"""orvane-train: per-flow models from the records the SDK uploads."""
