"""Token streams for training and validation, and the windows cut from them.

A stream is the verses of one part, each verse encoded on its own (a verse
line ends in its line break, and the split regex never joins a line break to
the next line's first word, so this equals encoding the whole text), with the
end-of-text id after the last verse of each book. A window starts at a verse
and is preceded by the begin-of-text id, as a prompt is in the engine.
"""
from dataclasses import dataclass

import numpy as np

import bpe
import corpus

VOCAB_SIZE = 4096
ADDED_TOKENS = [bpe.BEGIN_OF_TEXT, bpe.END_OF_TEXT]


@dataclass
class TokenStream:
    tokens: np.ndarray  # int64 ids
    verse_starts: np.ndarray  # offsets into tokens where a verse begins

    def window_starts(self, length):
        """Verse starts that leave `length` tokens after them."""
        return self.verse_starts[self.verse_starts + length <= len(self.tokens)]

    def tiling_starts(self, length):
        """Verse starts of windows that follow each other without overlap, from the first verse on."""
        chosen, next_free = [], 0
        for start in self.window_starts(length):
            if start >= next_free:
                chosen.append(start)
                next_free = start + length
        return np.array(chosen, dtype=np.int64)


@dataclass
class PreparedData:
    tokenizer: bpe.Tokenizer
    train: TokenStream
    validation: TokenStream


def encode_lines(tokenizer, lines):
    tokens, starts = [], []
    end_of_text = tokenizer.added[bpe.END_OF_TEXT]
    for text, book_ends in lines:
        starts.append(len(tokens))
        tokens.extend(tokenizer.encode(text))
        if book_ends:
            tokens.append(end_of_text)
    return TokenStream(np.array(tokens, dtype=np.int64), np.array(starts, dtype=np.int64))


def prepare(bible_program="bible"):
    """Reads the Bible, trains the tokenizer on the training part, encodes both parts."""
    chapters = corpus.parse_chapters(corpus.read_bible_lines(bible_program))
    train_chapters, validation_chapters = corpus.split_chapters(chapters)
    train_lines = corpus.verse_lines(train_chapters)
    validation_lines = corpus.verse_lines(validation_chapters)
    regex = bpe.compile_split_regex()
    merges, token_bytes = bpe.train_bpe([text for text, _ in train_lines], VOCAB_SIZE, ADDED_TOKENS, regex)
    tokenizer = bpe.Tokenizer(merges, token_bytes, ADDED_TOKENS, regex)
    return PreparedData(tokenizer, encode_lines(tokenizer, train_lines), encode_lines(tokenizer, validation_lines))


def window_batch(stream, starts, length, begin_of_text):
    """(inputs, targets), each (len(starts), length): begin-of-text, then the stream from each start."""
    rows = np.empty((len(starts), length + 1), dtype=np.int64)
    rows[:, 0] = begin_of_text
    for i, start in enumerate(starts):
        rows[i, 1:] = stream.tokens[start:start + length]
    return rows[:, :-1], rows[:, 1:]
