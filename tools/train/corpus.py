"""The King James Bible as training text, from the `bible` program of the bible-kjv package.

`bible -f` prints one verse a line, each behind its reference ("Ge1:1 In the
beginning ..."). The reference is dropped and each verse stays a line of its
own: the verse is the text's natural sentence-to-paragraph unit, a line break
between verses keeps that structure for the model to learn, and a prompt that
starts a verse (as "In the beginning" does) looks like what the model saw at
the start of its training windows. Chapters end with an empty line; a book ends
with the end-of-text token.

Whole chapters go to validation, every 50th chapter (about 2 % of the text),
so that no validation verse has its neighbours in the training part.
"""
import re
import subprocess
from dataclasses import dataclass, field

WHOLE_BIBLE = "Gen 1:1-Rev 22:21"
VALIDATION_EVERY = 50
VALIDATION_OFFSET = 25

_REFERENCE = re.compile(r"^(\d?[A-Za-z]+)(\d+):(\d+) (.*)$")


@dataclass
class Chapter:
    book: str
    number: int
    verses: list = field(default_factory=list)


def read_bible_lines(program="bible"):
    output = subprocess.run([program, "-f", WHOLE_BIBLE], check=True, capture_output=True, text=True).stdout
    return output.splitlines()


def clean_verse(text):
    return " ".join(text.split())


def parse_chapters(lines):
    """Chapters in book order; refuses any line that is not a referenced verse."""
    chapters = []
    for line in lines:
        match = _REFERENCE.match(line)
        if not match:
            raise ValueError(f"not a verse line: {line!r}")
        book, number, text = match.group(1), int(match.group(2)), clean_verse(match.group(4))
        if not chapters or (chapters[-1].book, chapters[-1].number) != (book, number):
            chapters.append(Chapter(book, number))
        chapters[-1].verses.append(text)
    return chapters


def is_validation(index):
    return index % VALIDATION_EVERY == VALIDATION_OFFSET


def split_chapters(chapters):
    """(training chapters, validation chapters), each in book order."""
    train = [c for i, c in enumerate(chapters) if not is_validation(i)]
    validation = [c for i, c in enumerate(chapters) if is_validation(i)]
    return train, validation


def verse_lines(chapters):
    """(verse line, book ends here) pairs: each verse with the line break(s) that follow it."""
    lines = []
    for i, chapter in enumerate(chapters):
        book_ends = i + 1 == len(chapters) or chapters[i + 1].book != chapter.book
        for j, verse in enumerate(chapter.verses):
            last = j + 1 == len(chapter.verses)
            lines.append((verse + ("\n\n" if last and not book_ends else "\n"), last and book_ends))
    return lines
