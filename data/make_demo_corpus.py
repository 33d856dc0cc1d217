#!/usr/bin/env python3
"""Writes the demo corpus that `quorvane search` uses when no corpus is given.

320 rows of 8 taste features (sweet, sour, salty, bitter, umami, spicy,
crunchy, creamy), 40 rows around each of 8 labelled prototypes. The noise
comes from a fixed linear congruential generator, so the output is the same
on every machine and Python version.

    python3 data/make_demo_corpus.py data

demo_corpus.txt holds the rows in the library's corpus text format (rows
separated by ';'); demo_corpus.labels names each row, one line per row.
"""
import os
import sys

AXES = ["sweet", "sour", "salty", "bitter", "umami", "spicy", "crunchy", "creamy"]

PROTOTYPES = [
    ("dessert", [1.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.1, 0.6]),
    ("citrus", [0.4, 1.0, 0.0, 0.1, 0.0, 0.0, 0.0, 0.0]),
    ("snack", [0.0, 0.0, 1.0, 0.0, 0.2, 0.0, 0.8, 0.0]),
    ("coffee", [0.2, 0.1, 0.0, 1.0, 0.0, 0.0, 0.0, 0.2]),
    ("broth", [0.0, 0.0, 0.5, 0.0, 1.0, 0.1, 0.0, 0.0]),
    ("curry", [0.1, 0.0, 0.2, 0.0, 0.4, 1.0, 0.0, 0.3]),
    ("pickle", [0.0, 0.8, 0.6, 0.0, 0.0, 0.1, 0.5, 0.0]),
    ("cheese", [0.0, 0.1, 0.5, 0.0, 0.4, 0.0, 0.0, 1.0]),
]
ROWS_PER_LABEL = 40
NOISE = 0.15


class Lcg:
    """64-bit LCG (Knuth's MMIX constants); uniform floats from the top 53 bits."""

    def __init__(self, seed):
        self.state = seed & 0xFFFFFFFFFFFFFFFF

    def uniform(self):
        self.state = (self.state * 6364136223846793005 + 1442695040888963407) & 0xFFFFFFFFFFFFFFFF
        return (self.state >> 11) / float(1 << 53)


def main():
    out_dir = sys.argv[1] if len(sys.argv) > 1 else os.path.dirname(os.path.abspath(__file__))
    rng = Lcg(20240601)
    rows, labels = [], []
    for i in range(ROWS_PER_LABEL):
        for name, proto in PROTOTYPES:
            row = [max(0.0, v + (2.0 * rng.uniform() - 1.0) * NOISE) for v in proto]
            rows.append(",".join("%.4f" % v for v in row))
            labels.append("%s-%02d" % (name, i + 1))
    with open(os.path.join(out_dir, "demo_corpus.txt"), "w") as f:
        f.write(";\n".join(rows) + "\n")
    with open(os.path.join(out_dir, "demo_corpus.labels"), "w") as f:
        f.write("\n".join(labels) + "\n")


if __name__ == "__main__":
    main()
