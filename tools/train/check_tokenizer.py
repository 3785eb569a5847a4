#!/usr/bin/python3
"""Holds this package's encoder to the host's C++ tokenizer on a tokenizer.json.

  /usr/bin/python3 tools/train/check_tokenizer.py --tokenizer EXPORT/tokenizer.json \\
      --quorvel /work/main/build/quorvel

The cases are the validation verses as they are, upper-cased, and with noise
that reaches the corners of the split regex (digits, contractions, runs of
spaces and tabs, letters and numbers outside ASCII, Unicode separators and
the control characters that Python counts as spaces but the regex does not),
plus the whole validation text at once. All cases go to the C++ tokenizer in
one call, separated by the end-of-text token, which it cuts out before
splitting, so each case is encoded on its own as here.
"""
import argparse
import os
import random
import subprocess
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import bpe  # noqa: E402
import corpus  # noqa: E402

NOISE = ["12", "1611", "3141592", " 7 ", "he's", "THEY'LL", "we've", "I'd", "'tis", "  ", "   ", "\t", " \t ",
         "\n", "\r\n", "\n\n  ", "é", "Æsop", "naïve", "—", "“quoted”", "ﬁne", "Ⅻ", "½", "٣٤٥", "日本語",
         "🙂", "\u00a0", "\u2028", "\u3000", "\x1c", "\x85", "...", "?!", "(", ")", ";\n", "Ωmega", "\u0301"]


def noisy(text, rng):
    words = text.split(" ")
    for _ in range(rng.randint(1, 4)):
        words.insert(rng.randrange(len(words) + 1), rng.choice(NOISE))
    return " ".join(words) if rng.random() < 0.5 else "".join(w + rng.choice([" ", "", "  "]) for w in words)


def check_cases(seed):
    chapters = corpus.parse_chapters(corpus.read_bible_lines())
    _, validation = corpus.split_chapters(chapters)
    lines = [text for text, _ in corpus.verse_lines(validation)]
    rng = random.Random(seed)
    cases = lines + [line.upper() for line in lines]
    cases += [noisy(line, rng) for line in lines for _ in range(3)]
    return cases + ["".join(lines)]


def cpp_ids(quorvel, tokenizer_json, cases, separator_id):
    text = bpe.END_OF_TEXT.join(cases)
    output = subprocess.run([quorvel, "tokenize", "--tokenizer", tokenizer_json], input=text.encode("utf-8"),
                            capture_output=True, check=True).stdout
    ids = [int(x) for x in output.split()]
    per_case, current = [], []
    for token in ids:
        if token == separator_id:
            per_case.append(current)
            current = []
        else:
            current.append(token)
    per_case.append(current)
    return per_case


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--tokenizer", required=True, help="a tokenizer.json written by train.py")
    parser.add_argument("--quorvel", default="/work/main/build/quorvel")
    parser.add_argument("--seed", type=int, default=7)
    args = parser.parse_args(argv)
    tokenizer = bpe.Tokenizer.load(args.tokenizer, bpe.compile_split_regex())
    cases = check_cases(args.seed)
    theirs = cpp_ids(args.quorvel, args.tokenizer, cases, tokenizer.added[bpe.END_OF_TEXT])
    if len(theirs) != len(cases):
        sys.exit(f"the C++ tokenizer returned {len(theirs)} cases for {len(cases)}")
    differ = [i for i, case in enumerate(cases) if tokenizer.encode(case) != theirs[i]]
    for i in differ[:5]:
        print(f"case {i} differs: {cases[i]!r}\n  here: {tokenizer.encode(cases[i])}\n  C++:  {theirs[i]}")
    tokens = sum(len(ids) for ids in theirs)
    print(f"{len(cases) - len(differ)} of {len(cases)} cases ({tokens} tokens) encode alike; {len(differ)} differ")
    return 1 if differ else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
