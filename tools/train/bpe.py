"""Byte-level BPE: the pre-tokenizer, a trainer, an encoder and the tokenizer.json writer.

The pre-tokenizer is the Llama 3 split regex. Python's `re` has no \\p{L} or
\\p{N}, so the classes are spelled out from the Unicode database; \\s is spelled
out too, as the Perl space class that PCRE2 uses with Unicode properties
(separators plus tab, line feed, vertical tab, form feed and carriage return),
which is narrower than Python's own \\s. The encoder merges, within each piece,
the adjacent pair of lowest rank (the leftmost on equal ranks) until none is
left: the rule the host's C++ tokenizer follows.
"""
import heapq
import json
import re
import unicodedata
from collections import Counter

BEGIN_OF_TEXT = "<|begin_of_text|>"
END_OF_TEXT = "<|end_of_text|>"

SPLIT_PATTERN = (
    r"(?i:'s|'t|'re|'ve|'m|'ll|'d)|[^\r\n\p{L}\p{N}]?\p{L}+|\p{N}{1,3}| ?[^\s\p{L}\p{N}]+[\r\n]*|"
    r"\s*[\r\n]+|\s+(?!\S)|\s+"
)


def _ranges(member):
    """Character-class ranges, as regex text, of the code points for which `member` holds."""
    parts, start = [], None
    for code in range(0x110001):
        inside = code < 0x110000 and member(code)
        if inside and start is None:
            start = code
        elif not inside and start is not None:
            parts.append(f"\\U{start:08x}-\\U{code - 1:08x}")
            start = None
    return "".join(parts)


def _category_ranges(prefix):
    return _ranges(lambda code: unicodedata.category(chr(code)).startswith(prefix))


def compile_split_regex():
    """SPLIT_PATTERN translated for Python's `re`."""
    letters, numbers = _category_ranges("L"), _category_ranges("N")
    space = r"\t\n\x0b\x0c\r" + _category_ranges("Z")
    pattern = (
        r"(?i:'s|'t|'re|'ve|'m|'ll|'d)"
        rf"|[^\r\n{letters}{numbers}]?[{letters}]+"
        rf"|[{numbers}]{{1,3}}"
        rf"| ?[^{space}{letters}{numbers}]+[\r\n]*"
        rf"|[{space}]*[\r\n]+"
        rf"|[{space}]+(?![^{space}])"
        rf"|[{space}]+"
    )
    return re.compile(pattern)


def split_pieces(regex, text):
    """Every match is a piece, and so is any text between matches."""
    pieces, done = [], 0
    for match in regex.finditer(text):
        if match.start() == match.end():
            continue
        if match.start() > done:
            pieces.append(text[done:match.start()])
        pieces.append(match.group())
        done = match.end()
    if done < len(text):
        pieces.append(text[done:])
    return pieces


def byte_symbols():
    """The byte-level alphabet: byte -> the one-character string that stands for it."""
    symbols, substitute = {}, 0x100
    for byte in range(256):
        if 0x21 <= byte <= 0x7E or 0xA1 <= byte <= 0xAC or byte >= 0xAE:
            symbols[byte] = chr(byte)
        else:
            symbols[byte] = chr(substitute)
            substitute += 1
    return symbols


def _merge_word(word, pair, new_id):
    merged, i = [], 0
    while i < len(word):
        if i + 1 < len(word) and (word[i], word[i + 1]) == pair:
            merged.append(new_id)
            i += 2
        else:
            merged.append(word[i])
            i += 1
    return tuple(merged)


class _PairTable:
    """Pair counts over weighted words, with a lazy max-heap for the most frequent pair."""

    def __init__(self, words, counts, token_bytes):
        self.words, self.counts, self.token_bytes = words, counts, token_bytes
        self.pair_count, self.where, self.heap = Counter(), {}, []
        for index, word in enumerate(words):
            self._add(index, word, 1)
        for pair in self.pair_count:
            self._push(pair)

    def _add(self, index, word, sign):
        for pair in zip(word, word[1:]):
            self.pair_count[pair] += sign * self.counts[index]
            if sign > 0:
                self.where.setdefault(pair, set()).add(index)

    def _push(self, pair):
        # Most frequent first; on equal counts the pair whose bytes sort first.
        key = (self.token_bytes[pair[0]], self.token_bytes[pair[1]])
        heapq.heappush(self.heap, (-self.pair_count[pair], key, pair))

    def best(self):
        while self.heap:
            negative, _, pair = heapq.heappop(self.heap)
            if self.pair_count.get(pair, 0) == -negative and -negative > 0:
                return pair
        return None

    def merge(self, pair, new_id):
        touched = set()
        for index in self.where.pop(pair, ()):
            old = self.words[index]
            new = _merge_word(old, pair, new_id)
            self._add(index, old, -1)
            self._add(index, new, 1)
            self.words[index] = new
            touched.update(zip(new, new[1:]))
            touched.update(zip(old, old[1:]))
        self.pair_count.pop(pair, None)
        for other in touched:
            if other in self.pair_count:
                self._push(other)


def train_bpe(texts, vocab_size, added_tokens, regex):
    """Merges in rank order and the token byte strings (id = index) of a vocabulary
    that, with `added_tokens`, holds `vocab_size` entries."""
    piece_counts = Counter()
    for text in texts:
        piece_counts.update(split_pieces(regex, text))
    token_bytes = [bytes([b]) for b in range(256)]
    words = [tuple(piece.encode("utf-8")) for piece in piece_counts]
    table = _PairTable(words, list(piece_counts.values()), token_bytes)
    known = {b: i for i, b in enumerate(token_bytes)}
    merges, target = [], vocab_size - len(added_tokens)
    while len(token_bytes) < target:
        pair = table.best()
        if pair is None:
            break
        joined = token_bytes[pair[0]] + token_bytes[pair[1]]
        if joined not in known:
            known[joined] = len(token_bytes)
            token_bytes.append(joined)
        merges.append(pair)
        table.merge(pair, known[joined])
    return merges, token_bytes


class Tokenizer:
    """Encoder and decoder over a trained vocabulary; added tokens sit after it."""

    def __init__(self, merges, token_bytes, added_tokens, regex):
        self.token_bytes = list(token_bytes)
        self.merges = list(merges)
        self.ranks = {pair: rank for rank, pair in enumerate(merges)}
        ids = {b: i for i, b in enumerate(token_bytes)}
        self.merged = {pair: ids[token_bytes[pair[0]] + token_bytes[pair[1]]] for pair in merges}
        self.added = {text: len(token_bytes) + i for i, text in enumerate(added_tokens)}
        self.regex = regex
        self.cache = {}

    @property
    def vocab_size(self):
        return len(self.token_bytes) + len(self.added)

    def _encode_piece(self, piece):
        ids = list(piece.encode("utf-8"))
        while len(ids) > 1:
            ranked = [(self.ranks.get(pair), i) for i, pair in enumerate(zip(ids, ids[1:]))]
            ranked = [(rank, i) for rank, i in ranked if rank is not None]
            if not ranked:
                break
            _, i = min(ranked)
            ids[i:i + 2] = [self.merged[(ids[i], ids[i + 1])]]
        return ids

    def encode(self, text):
        """Ids of ordinary text (added tokens are not looked for)."""
        ids = []
        for piece in split_pieces(self.regex, text):
            if piece not in self.cache:
                self.cache[piece] = self._encode_piece(piece)
            ids.extend(self.cache[piece])
        return ids

    def decode(self, ids):
        added = {i: text.encode("utf-8") for text, i in self.added.items()}
        raw = b"".join(added[i] if i in added else self.token_bytes[i] for i in ids)
        return raw.decode("utf-8", errors="replace")

    def to_json(self):
        symbols = byte_symbols()
        spell = lambda b: "".join(symbols[x] for x in b)  # noqa: E731
        added = [{"id": i, "content": text, "single_word": False, "lstrip": False, "rstrip": False,
                  "normalized": False, "special": True} for text, i in self.added.items()]
        return {
            "version": "1.0",
            "truncation": None,
            "padding": None,
            "added_tokens": added,
            "normalizer": None,
            "pre_tokenizer": {"type": "Sequence", "pretokenizers": [
                {"type": "Split", "pattern": {"Regex": SPLIT_PATTERN}, "behavior": "Isolated", "invert": False},
                {"type": "ByteLevel", "add_prefix_space": False, "trim_offsets": True, "use_regex": False}]},
            "post_processor": None,
            "decoder": {"type": "ByteLevel", "add_prefix_space": True, "trim_offsets": True, "use_regex": True},
            "model": {"type": "BPE", "dropout": None, "unk_token": None, "continuing_subword_prefix": None,
                      "end_of_word_suffix": None, "fuse_unk": False, "byte_fallback": False,
                      "ignore_merges": False,
                      "vocab": {spell(b): i for i, b in enumerate(self.token_bytes)},
                      "merges": [f"{spell(self.token_bytes[a])} {spell(self.token_bytes[b])}"
                                 for a, b in self.merges]},
        }

    def save(self, path):
        with open(path, "w", encoding="utf-8") as out:
            json.dump(self.to_json(), out, ensure_ascii=False, indent=1)

    @classmethod
    def load(cls, path, regex):
        with open(path, encoding="utf-8") as source:
            data = json.load(source)
        byte_of = {symbol: byte for byte, symbol in byte_symbols().items()}
        unspell = lambda s: bytes(byte_of[c] for c in s)  # noqa: E731
        vocab = data["model"]["vocab"]
        token_bytes = [b"" for _ in vocab]
        for symbols, i in vocab.items():
            token_bytes[i] = unspell(symbols)
        ids = {b: i for i, b in enumerate(token_bytes)}
        merges = [tuple(ids[unspell(s)] for s in m.split(" ")) for m in data["model"]["merges"]]
        added = [t["content"] for t in sorted(data["added_tokens"], key=lambda t: t["id"])]
        return cls(merges, token_bytes, added, regex)


def tokenizer_config(model_max_length):
    """tokenizer_config.json of a plain completion model: no chat template."""
    return {
        "bos_token": BEGIN_OF_TEXT,
        "eos_token": END_OF_TEXT,
        "add_bos_token": True,
        "add_eos_token": False,
        "clean_up_tokenization_spaces": False,
        "model_max_length": model_max_length,
        "tokenizer_class": "PreTrainedTokenizerFast",
    }
