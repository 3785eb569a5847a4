#!/usr/bin/python3
"""Holds the engine's greedy continuations to the reference ones of engine_reference.py.

  /usr/bin/python3 tools/train/compare_engine.py --reference reference_continuations.json \\
      --converted CONVERTED --quorvel /work/main/build/quorvel

For each prompt it runs `quorvel run CONVERTED -p PROMPT -n N --temp 0 --json`
and counts the tokens that agree before the first difference. A difference
is accepted only where the reference's two best logits lay closer than
--gap-threshold: there the engine's own rounding may pick either. The exit
status is 1 when any prompt differs elsewhere.
"""
import argparse
import json
import subprocess
import sys


def engine_tokens(quorvel, converted, prompt, count):
    command = [quorvel, "run", converted, "-p", prompt, "-n", str(count), "--temp", "0", "--json"]
    report = json.loads(subprocess.run(command, capture_output=True, check=True, text=True).stdout)
    return report["tokens"][:count], report["prompt_tokens"]


def agreeing_prefix(ours, theirs):
    for i, (a, b) in enumerate(zip(ours, theirs)):
        if a != b:
            return i
    return min(len(ours), len(theirs))


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--reference", required=True)
    parser.add_argument("--converted", required=True)
    parser.add_argument("--quorvel", default="/work/main/build/quorvel")
    parser.add_argument("--gap-threshold", type=float, default=0.05)
    args = parser.parse_args(argv)
    with open(args.reference, encoding="utf-8") as source:
        reference = json.load(source)
    failures = 0
    print(f"{'prompt':42s} {'agree':>7s}  first difference")
    for item in reference["continuations"]:
        ours = item["tokens"]
        theirs, prompt_tokens = engine_tokens(args.quorvel, args.converted, item["prompt"], reference["tokens"])
        if prompt_tokens != len(item["prompt_ids"]):
            sys.exit(f"{item['prompt']!r}: the engine saw {prompt_tokens} prompt tokens, "
                     f"the reference {len(item['prompt_ids'])}")
        agree = agreeing_prefix(ours, theirs)
        if agree == len(ours) == len(theirs):
            note = "none"
        elif agree < min(len(ours), len(theirs)):
            gap = item["gaps"][agree]
            accepted = gap < args.gap_threshold
            failures += not accepted
            note = f"step {agree}: reference gap {gap:.4f} ({'a near tie' if accepted else 'NOT a near tie'})"
        else:
            failures += 1
            note = f"lengths differ: reference {len(ours)}, engine {len(theirs)}"
        print(f"{item['prompt'][:42]:42s} {agree:3d}/{len(ours):<3d}  {note}")
    print(f"{len(reference['continuations']) - failures} of {len(reference['continuations'])} prompts agree up to "
          f"a near tie (gap below {args.gap_threshold}) or to the end")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
