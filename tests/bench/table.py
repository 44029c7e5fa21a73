"""Prints the figures of a file with one line of JSON each as a table."""

import json
import sys


def cell(value):
    return f"{value:.3f}" if isinstance(value, float) else str(value)


def main(path):
    with open(path) as file:
        figures = [json.loads(line) for line in file if line.startswith("{")]
    print()
    for figure in figures:
        name = f"{figure.pop('bench')} ({figure.pop('n')})" if "n" in figure else figure.pop("bench")
        print(f"{name:32}" + "  ".join(f"{key} {cell(value)}" for key, value in figure.items()))


main(sys.argv[1])
