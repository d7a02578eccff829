"""Known values of the scoring arithmetic, worked out by hand."""

import datetime
import math
import random
import unicodedata
import unittest

from fitload import fit

M = fit.Message


class FeatureTest(unittest.TestCase):
    def test_worked_example(self):
        text = "Ok, don't panic \u2014 it's 5 o'clock, see https://a/b?"
        self.assertEqual(len(text), 50)
        self.assertEqual(fit.tokens(text),
                         ["ok", "don't", "panic", "it's", "o'clock", "see", "url"])
        self.assertEqual(fit.style_features(text), {
            "chars": "3", "words": "3", "wordlen": "3", "lower": "3", "punct": "6",
            "cyr": "0", "emoji": "0", "q": "end", "excl": "n", "nl": "0",
            "apos": "straight", "cap": "y", "end": "?", "tick": "n", "url": "y",
            "digit": "1", "dash": "y"})

    def test_empty_text(self):
        f = fit.style_features("")
        for key in ("chars", "words", "wordlen", "lower", "punct", "cyr", "digit", "nl"):
            self.assertEqual(f[key], "0", key)
        self.assertEqual((f["end"], f["q"], f["cap"], f["url"]), ("none", "no", "n", "n"))
        self.assertEqual(fit.vocab_llr({"vocab": {}, "totals": (1.0, 1.0)}, []), 0.0)

    def test_endings_and_questions(self):
        cases = {"Hello.": (".", "no"), "Hello. ": ("none", "no"),
                 "Really?": ("?", "end"), "Really? \n": ("none", "end"),
                 "why? no": ("none", "mid"), "wait...": ("dots", "no"),
                 "wait\u2026": ("dots", "no"), "wait..": ("dots", "no"),
                 ".": (".", "no"), "x \u2014": ("\u2014", "no"), "ok)": (")", "no"),
                 "abc": ("none", "no")}
        for text, (end, q) in cases.items():
            f = fit.style_features(text)
            self.assertEqual((f["end"], f["q"]), (end, q), repr(text))

    def test_tokens(self):
        self.assertEqual(fit.tokens("rock'n'roll dogs' abc123def a_b"),
                         ["rock'n'roll", "dogs", "abc", "def", "a", "b"])
        self.assertEqual(fit.tokens("it\u2019s 'quoted'"), ["it\u2019s", "quoted"])
        self.assertEqual(fit.tokens("12345 678"), [])
        self.assertEqual(fit.style_features("12345 678")["digit"], "2")
        # Roman numerals and vulgar fractions have a numeric type; they count.
        self.assertEqual(fit.tokens("\u2163 \u00bd x\u00b2"), ["\u2173", "\u00bd", "x\u00b2"])
        # The URL is cut out of the lower-cased text, so capitals still match
        # there, while the feature looks at the text as written.
        self.assertEqual(fit.tokens("HTTPS://EXAMPLE"), ["url"])
        self.assertEqual(fit.style_features("HTTPS://EXAMPLE")["url"], "n")
        self.assertEqual(fit.tokens("see http://x.y/z,w\u00a0then"), ["see", "url", "then"])
        self.assertEqual(fit.tokens("http:// x"), ["http", "x"])

    def test_lowering(self):
        self.assertEqual(fit.tokens("\u039f\u0394\u039f\u03a3 \u03a3"),
                         ["\u03bf\u03b4\u03bf\u03c2", "\u03c3"])
        # U+0130 lowers to "i" and a combining dot, which is no word scalar.
        self.assertEqual(fit.tokens("\u0130X"), ["i", "x"])
        self.assertEqual(fit.tokens("\u041f\u0440\u0438\u0432\u0435\u0442 Bob"),
                         ["\u043f\u0440\u0438\u0432\u0435\u0442", "bob"])

    def test_letter_ratios(self):
        f = fit.style_features("\u041f\u0440\u0438\u0432\u0435\u0442 ok")  # 6 Cyrillic, 2 Latin
        self.assertEqual(f["cyr"], "3")  # 0.75 lies in [0.6, 0.9)
        self.assertEqual(f["lower"], "2")  # 7 of 8 lower: 0.875
        self.assertEqual(fit.style_features("\u00aaA")["lower"], "0")  # U+00AA is Lowercase
        self.assertEqual(fit.style_features("\u01c5x")["cap"], "n")  # titlecase isn't Uppercase
        self.assertEqual(fit.style_features("1 \u00c9t\u00e9")["cap"], "y")
        self.assertEqual(fit.style_features("\u2764\ufe0f \U0001f600 \U0001f600")["emoji"], "2")
        self.assertEqual(fit.style_features("\u2122")["emoji"], "1")  # So

    def test_marks(self):
        f = fit.style_features("a \u2019 b 'c' `x` \n\n\n\n - y!")
        self.assertEqual((f["apos"], f["tick"], f["nl"], f["dash"], f["excl"]),
                         ("both", "y", "3", "y", "y"))
        self.assertEqual(fit.style_features("a-b")["dash"], "n")
        self.assertEqual(fit.style_features("it\u2019s")["apos"], "curly")

    def test_ratio_bins_are_strict(self):
        # 40 scalars, 1 a full stop: 0.025 -> "2"; 4 of 40 is 0.1 -> "5".
        self.assertEqual(fit.style_features("a" * 39 + ".")["punct"], "2")
        self.assertEqual(fit.style_features("a" * 36 + "...,")["punct"], "5")
        # Exactly on a bound goes above it: 12 scalars is bin 1, 11 is bin 0.
        self.assertEqual(fit.style_features("a" * 12)["chars"], "1")
        self.assertEqual(fit.style_features("a" * 11)["chars"], "0")
        # Mean token length 4.5 -> "4" (bounds 3.2 3.7 4.1 4.5 ...).
        self.assertEqual(fit.style_features("abcd abcde")["wordlen"], "4")


def is_word(c):
    """A word scalar, spelled out from the general category and numeric type."""
    cat = unicodedata.category(c)
    if c == "_" or cat == "Nd":
        return False
    return cat in ("Lu", "Ll", "Lt", "Lm", "Lo") or unicodedata.numeric(c, None) is not None


def walked_words(text):
    """Words by walking the scalars one at a time."""
    out, i, n = [], 0, len(text)
    while i < n:
        if not is_word(text[i]):
            i += 1
            continue
        j = i
        while j < n and is_word(text[j]):
            j += 1
        while j + 1 < n and text[j] in "'\u2019" and is_word(text[j + 1]):
            j += 1
            while j < n and is_word(text[j]):
                j += 1
        out.append(text[i:j])
        i = j
    return out


class WordTest(unittest.TestCase):
    def test_every_scalar_is_classed_as_spelled_out(self):
        for code in range(0x110000):
            if 0xD800 <= code <= 0xDFFF:
                continue
            c = chr(code)
            self.assertEqual(fit.WORD_RE.fullmatch(c) is not None, is_word(c), hex(code))

    def test_words_match_a_plain_walk(self):
        pool = "ab\u03a3\u00e9\u0436'\u2019_1\u0663 .-\u00bd\u2163\u0301\u02b0\u00aa\U0001f600\n"
        rng = random.Random(9)
        for _ in range(20000):
            text = "".join(rng.choice(pool) for _ in range(rng.randrange(0, 14)))
            self.assertEqual(fit.WORD_RE.findall(text), walked_words(text), repr(text))

    def test_sets(self):
        self.assertEqual(len(fit.PUNCT), 36)
        self.assertEqual(len(fit.WHITESPACE), 29)
        # The same set as Python's own idea of white space.
        self.assertEqual(fit.WHITESPACE, {chr(c) for c in range(0x110000) if chr(c).isspace()})
        self.assertEqual(fit.tokens("a\u2028b\u0085https://x\u3000y"), ["a", "b", "url", "y"])


class TimingTest(unittest.TestCase):
    def test_counts_keep_their_type(self):
        labels = [fit.timing_features(M(0, "", None, b, p))
                  for b, p in ((2, 1), (2.0, 1.0), (7.5, 9), (5.0, 3.0), (9, 2.5))]
        self.assertEqual([(f["burstlen"], f["pos"]) for f in labels],
                         [("2", "1"), ("2.0", "1.0"), ("5", "3"), ("5.0", "3.0"), ("5", "2.5")])
        self.assertEqual(fit.timing_features(M(0, "", None, 1e-05, 0))["burstlen"], "1e-05")
        self.assertEqual(fit.shown(-0.0), "-0.0")
        self.assertEqual(fit.shown(1e16), "1e+16")
        self.assertEqual(fit.shown(float("nan")), "nan")
        self.assertEqual(fit.shown(123456789012345.0), "123456789012345.0")

    def test_gap_bins(self):
        gaps = {None: "none", -5.0: "0", 2.999: "0", 3.0: "1", 119.0: "4",
                120.0: "5", 43199.9: "8", 43200.0: "9", 1e9: "9"}
        for gap, label in gaps.items():
            self.assertEqual(fit.timing_features(M(0, "", gap))["gap"], label, gap)

    def test_hour_matches_datetime(self):
        zone = datetime.timezone(datetime.timedelta(hours=3))
        rng = random.Random(5)
        samples = [0.0, -0.0, -1.0, -0.5, 75599.9999996, 75599.9999994, 75599.0000005,
                   -3600.0000004, 1700000000.5, 253402300799.0]
        samples += [rng.uniform(-2e10, 2.5e11) for _ in range(3000)]
        samples += [rng.randrange(0, 2 * 10 ** 9) + rng.randrange(0, 10 ** 6) / 1e6 + 5e-7
                    for _ in range(2000)]
        for ts in samples:
            try:
                expected = datetime.datetime.fromtimestamp(ts, zone).hour
            except (OverflowError, ValueError, OSError):
                continue
            self.assertEqual(fit.hour(ts), expected, repr(ts))
        self.assertEqual(fit.hour(75599.9999996), 0)  # 20:59:59.9999996 UTC rounds up
        self.assertEqual(fit.hour(-1.0), 2)
        self.assertEqual(fit.hour(9.9e14), (int(9.9e14) + 10800) % 86400 // 3600)
        for bad in (1e15, -1e15, math.inf, math.nan):
            with self.assertRaisesRegex(fit.ScoringError, "unusable time"):
                fit.hour(bad)


def cell(m, o):
    return (float(m), float(o))


class FamilyTest(unittest.TestCase):
    model = {
        "bins": {"hour": {"1": cell(3, 1), "2": cell(1, 9)}, "gap": {}},
        "vocab": {"hi": cell(8, 1), "yo": cell(1, 1), "<oov>": cell(2, 6), "nil": None},
        "totals": cell(11, 8),
    }

    def test_binned(self):
        # k = 2, d = 1.5, Sm = 4, So = 10.
        got = fit.binned_llr(self.model, {"hour": "1", "gap": "none"}, fit.TIMING)
        self.assertEqual(got, 0.0 + (math.log(3.5 / 5.5) - math.log(1.5 / 11.5)))
        # A label the table lacks still counts, as a smoothed empty cell.
        got = fit.binned_llr(self.model, {"hour": "7"}, fit.TIMING)
        self.assertEqual(got, 0.0 + (math.log(0.5 / 5.5) - math.log(0.5 / 11.5)))
        # A missing or empty table, or a missing feature, adds nothing.
        self.assertEqual(fit.binned_llr(self.model, {"gap": "3", "pos": "1"}, fit.TIMING), 0.0)
        neg = {"bins": {"hour": {"1": cell(-3, 1), "2": cell(5, 1)}}}
        with self.assertRaisesRegex(fit.ScoringError, "went to zero or below"):
            fit.binned_llr(neg, {"hour": "1"}, ["hour"])

    def test_vocab(self):
        v = 5 * 0.2  # four entries, the empty one and <oov> included, plus one
        p_hi, q_hi = (8.2) / (11 + v), (1.2) / (8 + v)
        p_oov, q_oov = (2.2) / (11 + v), (6.2) / (8 + v)
        r_hi = math.log(p_hi) - math.log(q_hi)
        r_oov = math.log(p_oov) - math.log(q_oov)
        toks = ["hi", "zz", "nil", "hi"]
        expected = (((0.0 + r_hi) + r_oov) + r_oov + r_hi) / 2.0
        self.assertAlmostEqual(fit.vocab_llr(self.model, toks), expected, places=15)
        self.assertEqual(fit.vocab_llr(self.model, toks),
                         (((0.0 + r_hi) + r_oov) + r_oov + r_hi) / math.sqrt(4))
        # A ratio beyond the clip counts as 2.5.
        big = {"vocab": {"a": cell(1000, 0)}, "totals": cell(1000, 1000)}
        self.assertEqual(fit.vocab_llr(big, ["a"]), 2.5)
        self.assertEqual(fit.vocab_llr(big, ["b", "b", "b", "b"]),
                         4 * (math.log(0.2 / 1000.4) - math.log(0.2 / 1000.4)) / 2)
        no_oov = {"vocab": {}, "totals": cell(0, 0)}
        self.assertEqual(fit.vocab_llr(no_oov, ["x"]), 0.0)

    def test_stacker(self):
        st = {"w": [1.0, 2.0, -0.5, 99.0], "b": 0.25, "mean": [1.0, 0.0, 2.0], "std": [2.0, 4.0, 0.5]}
        x = [3.0, -1.0, 1.0]
        z = 0.25 + (((0.0 + (1.0 * 2.0) / 2.0) + (2.0 * -1.0) / 4.0) + (-0.5 * -1.0) / 0.5)
        self.assertEqual(fit.apply_stacker(st, x), 1 / (math.exp(-z) + 1))
        self.assertEqual(fit.apply_stacker(dict(st, b=28.5), x), fit.SCORE_HIGH)  # z = 30
        self.assertEqual(fit.apply_stacker(dict(st, b=-31.5), x), 1 / (math.exp(30) + 1))
        self.assertEqual(fit.apply_stacker(dict(st, b=-31.6), x), fit.SCORE_LOW)
        self.assertEqual(fit.SCORE_HIGH, 1 / (math.exp(-30) + 1))
        self.assertEqual(fit.SCORE_LOW, 1 / (math.exp(30) + 1))
        for w0, std0 in ((0.0, 0.0), (1.0, 0.0), (1e308, 1e-308)):
            bad = dict(st, w=[w0, 2.0, 1.0], std=[std0, 4.0, 0.5])
            with self.assertRaisesRegex(fit.ScoringError, "divides by nothing"):
                fit.apply_stacker(bad, x)

    def test_verdict(self):
        self.assertEqual([fit.verdict({"no": 0.2, "yes": 0.8}, s) for s in (0.2, 0.5, 0.8)],
                         ["no", "maybe", "yes"])
        self.assertEqual(fit.verdict({"no": 0.9, "yes": 0.1}, 0.5), "yes")


class VerifyTest(unittest.TestCase):
    def profile(self):
        model = {"bins": {"hour": {"3": cell(1, 2)}}, "vocab": {"<oov>": cell(1, 1)},
                 "totals": cell(1, 1)}
        stacker = {"w": [1.0, 1.0, 1.0], "b": 0.0, "mean": [0.0, 0.0, 0.0], "std": [1.0, 1.0, 1.0]}
        msg = M(0.0, "Hi")
        # The hour at UTC+3 is "3"; k = 1, so d = 1; the one token is out of
        # the vocabulary and its ratio is zero.
        s = 1 / (math.exp(-(0.0 + (0.0 + (math.log(1.5 / 2.0) - math.log(2.5 / 3.0))))) + 1)
        row = {"msg": msg, "feats": fit.features(msg), "score": s}
        return {"model": model, "stacker": stacker, "checks": [row, dict(row, feats=None)]}

    def test_rows_reproduce(self):
        self.assertEqual(fit.verify(self.profile()), 2)

    def test_disagreements_are_named(self):
        p = self.profile()
        p["checks"][1]["feats"] = dict(p["checks"][0]["feats"], q="end", cap="n")
        p["checks"][1]["feats"]["extra"] = "1"
        del p["checks"][1]["feats"]["tick"]
        with self.assertRaisesRegex(fit.ScoringError, "^check row 1: this Mac reads cap, extra, "
                                    "q, tick differently from whatever fitted the profile$"):
            fit.verify(p)
        p = self.profile()
        good = p["checks"][0]["score"]
        p["checks"][0]["score"] = good + 2e-9
        with self.assertRaisesRegex(fit.ScoringError, "^check row 0 scores %.12f here and %.12f "
                                    % (good, good + 2e-9)):
            fit.verify(p)
        p["checks"][0]["score"] = math.nan
        with self.assertRaisesRegex(fit.ScoringError, "come apart$"):
            fit.verify(p)


if __name__ == "__main__":
    unittest.main()
