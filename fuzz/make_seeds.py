#!/usr/bin/env python3
"""Writes the seed inputs of the API fuzzer into fuzz/corpus.

Each seed makes a few variables, then works one area of the interface
(expressions, constraints, objectives, models, removal, copies, columns);
libFuzzer takes it from there. The operation codes are those of
Run::step() in api_fuzzer.cpp; the bytes after a code are its arguments.

    python3 fuzz/make_seeds.py
"""
import os
import random

OPS = dict(
    int_var=0, bool_var=1, float_var=2, sum=3, scale=4, product=5, range=6, diff=7,
    all_diff=8, all_min=9, pack=10, new_set=11, set_add=12, set_remove=13,
    all_diff_remove=14, objective=15, lex=16, sense=17, constant=18, coef=19,
    quad_coef=20, coefs=21, set_expr=22, model=23, model_add=24, model_add_array=25,
    model_remove=26, model_remove_array=27, expand=28, set_name=29, set_names=30,
    property=31, end=32, end_elements=33, remove_from_all=34, one_by_one=35,
    clone=36, clone_and_end=37, replace_by_clone=38, column=39, evaluate=40,
    empty_handles=41)

AREAS = {
    "expressions": ["sum", "scale", "product", "sum", "product", "range", "evaluate"],
    "constraints": ["range", "diff", "all_diff", "all_min", "pack", "new_set", "set_add",
                    "set_add", "set_remove", "all_diff_remove", "evaluate"],
    "objectives": ["sum", "objective", "sense", "constant", "coef", "quad_coef", "coefs",
                   "set_expr", "lex", "coef", "objective"],
    "models": ["model", "model", "range", "model_add", "model_add", "model_add_array",
               "model_remove", "model_remove_array", "expand", "model_add"],
    "names": ["model", "range", "set_name", "set_names", "property", "property",
              "property", "set_name"],
    "removal": ["sum", "range", "model", "model_add_array", "objective", "end",
                "end_elements", "remove_from_all", "end"],
    "one_by_one": ["one_by_one", "sum", "range", "new_set", "set_add", "model",
                   "model_add_array", "all_min", "end", "end_elements"],
    "copies": ["sum", "range", "model", "model_add_array", "lex", "clone",
               "clone_and_end", "replace_by_clone", "clone"],
    "columns": ["objective", "new_set", "set_add", "all_diff", "column", "column",
                "all_min", "column"],
    "misuse": ["model", "objective", "lex", "empty_handles", "constant", "coef",
               "property", "empty_handles"],
}


def seed(area, ops, rng):
    data = bytearray()
    # A few variables of every kind first, some named.
    for code in (0, 0, 1, 2, 0, 1):
        data += bytes([code, rng.randrange(6)])
    for name in ops:
        data.append(OPS[name])
        data += bytes(rng.randrange(256) for _ in range(6))
    return bytes(data)


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    out = os.path.join(here, "corpus")
    os.makedirs(out, exist_ok=True)
    rng = random.Random(20241121)
    for area, ops in AREAS.items():
        for variant in range(3):
            path = os.path.join(out, "seed-%s-%d" % (area, variant))
            with open(path, "wb") as f:
                f.write(seed(area, ops if variant == 0 else rng.sample(ops, len(ops)), rng))
    # Every operation once, in order.
    with open(os.path.join(out, "seed-every-operation"), "wb") as f:
        f.write(seed("all", sorted(OPS, key=OPS.get), rng))


if __name__ == "__main__":
    main()
