#!/usr/bin/python3
"""Makes up a message history for fitting tests: the owner writes one way,
the other people another. Deterministic for a given seed.

The owner writes mostly in lower case, with curly apostrophes, emoji,
Cyrillic words and bursts of quick messages in the evening; the others write
capitalised sentences with straight apostrophes, full stops, URLs, digits,
dashes and Greek words whose capitals end in a final sigma, during the day.
The invented vocabulary is large, so a long history makes a big profile:
20,000 messages pack to more than 256 KiB.

Only scalars that Unicode 14 and 15 agree on are used (see
doc/profile-fitting.md).

    make_history.py --count 3000 --seed 1 --out history.jsonl
    make_history.py --count 3000 --seed 1 --mbox --out history.mbox
"""

import argparse
import datetime
import email.message
import email.utils
import json
import mailbox
import random
import sys

OWNER = "owner@example.org"
START = 1_700_000_000

_ONSETS = ["b", "d", "f", "g", "k", "l", "m", "n", "p", "r", "s", "t", "v", "z",
           "br", "dr", "kl", "st", "tr", "sh", "ch", "gl"]
_VOWELS = ["a", "e", "i", "o", "u", "ai", "ou", "ea"]
_CODAS = ["", "", "", "n", "r", "s", "l", "k", "th"]
CYRILLIC = ["привет", "да", "нет", "спасибо", "хорошо", "завтра", "сегодня", "ладно",
            "конечно", "дома", "работа", "позже", "Москва", "кофе", "ёлка"]
GREEK = ["ΟΔΟΣ", "ΚΑΛΩΣ", "ΛΟΓΟΣ", "ΚΟΣΜΟΣ", "Σ", "καλημέρα", "ευχαριστώ", "ΝΟΜΟΣ",
         "Οδυσσέας", "ΧΡΟΝΟΣ"]
EMOJI = ["\U0001f600", "\U0001f642", "\U0001f44d", "\U0001f389", "\u2764\ufe0f", "\U0001f605",
         "\u2615", "\U0001f64f", "\u2728", "\U0001f914"]
SITES = ["https://example.com/a/b?x=1", "http://news.example.net/2024/item",
         "https://docs.example.org/guide#part-2", "HTTPS://EXAMPLE.ORG/UP",
         "https://x.example/\u00e9t\u00e9"]


def invented_words(rng, count):
    seen, words = set(), []
    while len(words) < count:
        w = "".join(rng.choice(_ONSETS) + rng.choice(_VOWELS)
                    for _ in range(rng.choice((1, 2, 2, 3)))) + rng.choice(_CODAS)
        if w not in seen:
            seen.add(w)
            words.append(w)
    return words


class Maker:
    def __init__(self, seed, vocab_size):
        self.rng = random.Random(seed)
        words = invented_words(self.rng, vocab_size)
        # Half of the words come from a common order, half from an order
        # each side favours, so the two overlap as real people's do.
        self.common = words[:]
        self.mine_words = words[:]
        self.other_words = words[:]
        self.rng.shuffle(self.mine_words)
        self.rng.shuffle(self.other_words)

    def word(self, stock):
        # A long tail: most draws fall on a few hundred words, the rest spread
        # over the whole stock.
        roll = self.rng.random()
        if roll < 0.6:
            return self.common[self.rng.randrange(len(self.common))]
        if roll < 0.8:
            stock = self.common
        i = int(len(stock) ** (self.rng.random() ** 1.3)) - 1
        return stock[i]

    def mine(self):
        r = self.rng
        parts = []
        for _ in range(r.choice((1, 2, 3, 4, 6, 8, 12, 18, 25))):
            roll = r.random()
            if roll < 0.12:
                parts.append(r.choice(CYRILLIC))
            elif roll < 0.2:
                parts.append(r.choice(("it\u2019s", "don\u2019t", "i\u2019m", "that\u2019s")))
            else:
                parts.append(self.word(self.mine_words))
        text = " ".join(parts)
        if r.random() < 0.3:
            text += " " + r.choice(EMOJI)
        if r.random() < 0.1:
            text += r.choice(("...", "\u2026", " ??", "!!", " :)"))
        if r.random() < 0.15:
            text = text.capitalize() + r.choice((".", "", "?"))
        if r.random() < 0.04:
            text += "\n" + self.word(self.mine_words)
        if r.random() < 0.03:
            text = "`" + text + "`"
        return text

    def other(self):
        r = self.rng
        parts = [self.word(self.other_words) for _ in range(r.choice((3, 5, 7, 9, 14, 20, 30, 45)))]
        roll = r.random()
        if roll < 0.12:
            parts.insert(r.randrange(len(parts)), r.choice(SITES))
        elif roll < 0.22:
            parts.insert(r.randrange(len(parts)), r.choice(GREEK))
        elif roll < 0.32:
            parts.insert(r.randrange(len(parts)), str(r.randrange(1, 10_000)))
        elif roll < 0.36:
            parts.insert(r.randrange(len(parts)), r.choice(CYRILLIC).upper())
        if r.random() < 0.2:
            parts.insert(r.randrange(len(parts)), r.choice(("don't", "it's", "we'll", "o'clock")))
        if r.random() < 0.1:
            parts.insert(r.randrange(len(parts)), r.choice(("\u2014", "-", "\u2013")))
        text = " ".join(parts)
        if r.random() < 0.85:
            text = text[0].upper() + text[1:]
        text += r.choice((".", ".", ".", "?", "!", "", ". ", "?\n", ";", "\u201d"))
        if r.random() < 0.08:
            text = text.upper()
        if r.random() < 0.05:
            text += "\n\n" + self.word(self.other_words).capitalize() + "."
        if r.random() < 0.02:
            text += " \U0001f44d"
        return text

    def history(self, count):
        r = self.rng
        t = float(START)
        out = []
        while len(out) < count:
            t += r.expovariate(1 / 900.0)
            hour = int((t + 10800) % 86400) // 3600
            mine = r.random() < (0.6 if hour >= 18 or hour < 1 else 0.25)
            if mine:
                for _ in range(r.choice((1, 1, 1, 2, 3, 4))):
                    out.append({"ts": round(t, 3), "text": self.mine(), "from_me": True,
                                "from": OWNER})
                    t += r.uniform(2, 70)
            else:
                sender = "friend%d@example.net" % r.randrange(12)
                out.append({"ts": round(t, 3), "text": self.other(), "from_me": False,
                            "from": sender})
        return out[:count]


def as_mbox(rows, path):
    box = mailbox.mbox(path)
    box.lock()
    try:
        for i, row in enumerate(rows):
            m = email.message.EmailMessage()
            m["From"] = row["from"]
            m["To"] = "friend0@example.net" if row["from_me"] else OWNER
            m["Subject"] = "note %d" % i
            when = datetime.datetime.fromtimestamp(row["ts"], datetime.timezone.utc)
            m["Date"] = email.utils.format_datetime(when)
            m.set_content(row["text"])
            box.add(m)
        box.flush()
    finally:
        box.unlock()
        box.close()


def main(argv=None):
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--count", type=int, default=3000)
    ap.add_argument("--seed", type=int, default=1)
    ap.add_argument("--vocab", type=int, default=100000, help="invented words in stock")
    ap.add_argument("--mbox", action="store_true", help="write an mbox, not JSON lines")
    ap.add_argument("--out", default="-")
    args = ap.parse_args(argv)
    rows = Maker(args.seed, args.vocab).history(args.count)
    if args.mbox:
        if args.out == "-":
            ap.error("an mbox needs a file: name it with --out")
        as_mbox(rows, args.out)
        return 0
    stream = sys.stdout if args.out == "-" else open(args.out, "w", encoding="utf-8")
    try:
        for row in rows:
            stream.write(json.dumps(row, ensure_ascii=False) + "\n")
    finally:
        if stream is not sys.stdout:
            stream.close()
    return 0


if __name__ == "__main__":
    sys.exit(main())
