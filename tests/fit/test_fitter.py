"""The fitter from outside: the real script on made-up histories, its
package through the gzip command, mbox input, and its refusals."""

import base64
import email.message
import email.utils
import json
import mailbox
import os
import subprocess
import sys
import tempfile
import unittest

from fitload import FIT, ROOT, fit

MAKER = os.path.join(ROOT, "tests", "fit", "make_history.py")
FITTED = "2026-11-23 18:00"


def run(*args):
    return subprocess.run([sys.executable, FIT, *args], capture_output=True, text=True)


def make_history(path, count, seed, *extra):
    subprocess.run([sys.executable, MAKER, "--count", str(count), "--seed", str(seed),
                    "--out", path, *extra], check=True)


def gunzip(package_path):
    """Base64-decodes the package and unpacks it with the gzip command."""
    with open(package_path, "rb") as f:
        raw = base64.b64decode(f.read(), validate=True)
    return subprocess.run(["gzip", "-dc"], input=raw, capture_output=True, check=True).stdout


class FittedProfileTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory()
        d = cls.tmp.name
        cls.history = os.path.join(d, "h.jsonl")
        cls.package = os.path.join(d, "p.b64")
        cls.json_path = os.path.join(d, "p.json")
        make_history(cls.history, 3000, 11)
        cls.result = run(cls.history, "--out", cls.package, "--json", cls.json_path,
                         "--fitted", FITTED)
        with open(cls.json_path, "rb") as f:
            cls.data = f.read()
        cls.profile = json.loads(cls.data)

    @classmethod
    def tearDownClass(cls):
        cls.tmp.cleanup()

    def test_package_is_gzip_of_the_json(self):
        self.assertEqual(self.result.returncode, 0, self.result.stderr)
        self.assertIn("3000 messages", self.result.stderr)
        self.assertEqual(gunzip(self.package), self.data)
        with open(self.package, "rb") as f:
            text = f.read()
        self.assertLessEqual(len(text), fit.LIMIT)
        self.assertFalse(text.endswith(b"\n"))

    def test_counts_add_up(self):
        p = self.profile
        mine, others = p["n"]["mine"], p["n"]["others"]
        self.assertEqual(mine + others, 3000)
        self.assertEqual(p["subject"]["senders"], ["owner@example.org"])
        bins = p["model"]["bins"]
        self.assertEqual(sorted(bins), sorted(fit.TIMING + fit.STYLE))
        # Every message falls in exactly one bin of every feature.
        for name, table in bins.items():
            self.assertEqual(sum(c["mirel"] for c in table.values()), mine, name)
            self.assertEqual(sum(c["other"] for c in table.values()), others, name)
        vocab = p["model"]["vocab"]
        self.assertIn("<oov>", vocab)
        for side in ("mirel", "other"):
            self.assertEqual(sum(c[side] for c in vocab.values()), p["model"]["totals"][side])
        self.assertEqual(len(p["stacker"]["w"]), 3)
        self.assertLessEqual(p["cuts"]["no"], p["cuts"]["yes"])
        # The stacker leans towards the owner on all three families.
        self.assertTrue(all(w > 0 for w in p["stacker"]["w"]), p["stacker"])

    def test_check_rows(self):
        rows = self.profile["checks"]
        self.assertEqual(len(rows), 40 + len(fit.PROBES))
        probes, rows = rows[40:], rows[:40]
        self.assertEqual([(r["msg"]["burstlen"], r["msg"]["pos"]) for r in probes],
                         [(p[3], p[4]) for p in fit.PROBES])
        self.assertIsInstance(probes[1]["msg"]["burstlen"], float)
        self.assertEqual(probes[0]["feats"]["hour"], "19")  # rounded up into the hour
        self.assertEqual(probes[1]["feats"]["hour"], "18")
        self.assertEqual(sorted(rows[0]), ["feats", "msg", "score"])
        self.assertEqual(sorted(rows[0]["msg"]), ["burstlen", "gap", "pos", "text", "ts"])
        scores = [r["score"] for r in rows]
        self.assertTrue(any(s > 0.5 for s in scores) and any(s < 0.5 for s in scores))
        self.assertTrue(all(fit.SCORE_LOW < s < fit.SCORE_HIGH for s in scores))
        self.assertTrue(any(r["msg"]["burstlen"] > 1 for r in rows))
        for r in rows:
            self.assertTrue(fit.check_safe(r["msg"]["text"]))
            self.assertIsInstance(r["msg"]["burstlen"], int)
        ok = run("--check", self.package)
        self.assertEqual((ok.returncode, ok.stdout.strip()),
                         (0, "tolvanger-fit: all 48 check rows of %s reproduce" % self.package))

    def test_a_changed_last_digit_is_caught(self):
        p = json.loads(self.data)
        row = p["checks"][7]
        text = repr(row["score"])
        last = text[-1]
        row["score"] = float(text[:-1] + ("1" if last != "1" else "2"))
        path = os.path.join(self.tmp.name, "changed.json")
        with open(path, "w", encoding="utf-8") as f:
            json.dump(p, f, ensure_ascii=False)
        still = run("--check", path)
        # A last-digit change is far inside the tolerance of 1e-9; a change
        # of the digit at 1e-8 is not.
        self.assertEqual(still.returncode, 0, still.stderr)
        row["score"] += 2e-9
        with open(path, "w", encoding="utf-8") as f:
            json.dump(p, f, ensure_ascii=False)
        bad = run("--check", path)
        self.assertEqual(bad.returncode, 1)
        self.assertRegex(bad.stderr, r"^tolvanger-fit: check row 7 scores \d\.\d{12} here and "
                         r"\d\.\d{12} where it was fitted \u2014 the two implementations have "
                         r"come apart\n$")

    def test_scores_messages_like_observe(self):
        lines = [{"ts": 1763900000, "text": "Dear Sir, Please find the QUARTERLY report "
                  "attached: https://example.com/r?id=7."},
                 {"ts": 1763928000, "text": "ok \u043f\u0440\u0438\u0432\u0435\u0442 "
                  "\U0001f600", "gap": 20, "burstlen": 2, "pos": 1}]
        done = subprocess.run([sys.executable, FIT, "--score", self.package], capture_output=True,
                              text=True, input="".join(json.dumps(x) + "\n" for x in lines))
        self.assertEqual(done.returncode, 0, done.stderr)
        got = [json.loads(line) for line in done.stdout.splitlines()]
        self.assertEqual([g["verdict"] for g in got], ["no", "yes"])
        self.assertEqual(got[1]["feats"]["burstlen"], "2")
        profile = fit.read_profile(self.profile)
        for line, g in zip(lines, got):
            m = fit.Message(line["ts"], line["text"], line.get("gap"), line.get("burstlen", 1),
                            line.get("pos", 0))
            self.assertEqual(g["score"], fit.score(profile, m))

    def test_same_input_same_package(self):
        again = os.path.join(self.tmp.name, "again.b64")
        self.assertEqual(run(self.history, "--out", again, "--fitted", FITTED).returncode, 0)
        with open(again, "rb") as a, open(self.package, "rb") as b:
            self.assertEqual(a.read(), b.read())


class TinyHistoryTest(unittest.TestCase):
    """Six messages whose bins, bursts and vocabulary are counted by hand."""

    rows = [
        {"ts": 1000.0, "text": "hi there", "from_me": True},
        {"ts": 1030.0, "text": "hi again", "from_me": True},
        {"ts": 1230.0, "text": "Hello.", "from_me": False, "from": "a@x"},
        {"ts": 1250.5, "text": "Hello?", "from_me": False, "from": "b@x"},
        {"ts": 1260.0, "text": "hi hi", "from_me": True},
        {"ts": 1300.0, "text": "Hello again.", "from_me": False, "from": "a@x"},
    ]

    def fitted(self, **kw):
        history = [fit.Sent(r["ts"], r["text"], r.get("from"), r["from_me"]) for r in self.rows]
        fit.arrange(history)
        return history, fit.fit(history, ["me"], FITTED, **kw)

    def test_bursts_and_gaps(self):
        history, _ = self.fitted()
        got = [(s.msg.gap, s.msg.burstlen, s.msg.pos) for s in history]
        # The owner: 1000, 1030 (gap 30), then 1260 (gap 230, a new burst).
        # a@x: 1230, then 1300 (gap 70, same burst); b@x alone.
        self.assertEqual(got, [(None, 2, 0), (30.0, 2, 1), (None, 2, 0), (None, 1, 0),
                               (230.0, 1, 0), (70.0, 2, 1)])

    def test_counts(self):
        _, p = self.fitted(min_count=2)
        bins = p["model"]["bins"]
        # Gaps of 30 s and 230 s from the owner, 70 s from a@x.
        self.assertEqual(bins["gap"], {"3": {"mirel": 1, "other": 0}, "4": {"mirel": 0, "other": 1},
                                       "5": {"mirel": 1, "other": 0},
                                       "none": {"mirel": 1, "other": 2}})
        self.assertEqual(bins["burstlen"], {"1": {"mirel": 1, "other": 1},
                                            "2": {"mirel": 2, "other": 2}})
        self.assertEqual(bins["end"], {".": {"mirel": 0, "other": 2}, "?": {"mirel": 0, "other": 1},
                                       "none": {"mirel": 3, "other": 0}})
        self.assertEqual(bins["hour"], {"3": {"mirel": 3, "other": 3}})
        # "hi" 4 times, "again" twice, "hello" 3 times: kept; "there" once goes
        # to <oov>.
        self.assertEqual(p["model"]["vocab"], {
            "again": {"mirel": 1, "other": 1}, "hello": {"mirel": 0, "other": 3},
            "hi": {"mirel": 4, "other": 0}, "<oov>": {"mirel": 1, "other": 0}})
        self.assertEqual(p["model"]["totals"], {"mirel": 6, "other": 4})
        self.assertEqual(p["n"], {"mine": 3, "others": 3})
        _, p = self.fitted(min_count=1, max_vocab=2)
        self.assertEqual(sorted(p["model"]["vocab"]), ["<oov>", "hello", "hi"])
        self.assertEqual(p["model"]["vocab"]["<oov>"], {"mirel": 2, "other": 1})

    def test_rows_are_the_scoring_of_the_file(self):
        _, p = self.fitted(checks=4)
        self.assertEqual(len(p["checks"]), 4 + len(fit.PROBES))
        data = fit.encode(p)
        self.assertEqual(fit.self_check(data), 12)
        _, p = self.fitted(checks=4, probes=False)
        self.assertEqual(len(p["checks"]), 4)
        back = fit.read_profile(json.loads(data))
        for row, theirs in zip(back["checks"], p["checks"]):
            self.assertEqual(fit.score(back, row["msg"]), theirs["score"])


class StackerTest(unittest.TestCase):
    def test_finds_the_informative_family(self):
        import random
        rng = random.Random(3)
        xs, ys = [], []
        for _ in range(2000):
            y = rng.random() < 0.3
            xs.append([rng.gauss(2.0 if y else -1.0, 1.5), rng.gauss(0, 4), 7.0])
            ys.append(int(y))
        st = fit.fit_stacker(xs, ys)
        self.assertGreater(st["w"][0], 1.0)
        self.assertLess(abs(st["w"][1]), 0.2)
        self.assertEqual(st["std"][2], 1.0)  # a constant family doesn't divide by zero
        self.assertAlmostEqual(st["mean"][2], 7.0)
        self.assertEqual(fit.fit_stacker(xs, ys), st)

    def test_cuts(self):
        mine = [i / 100 for i in range(1, 91)]  # 90 scores: 0.01 .. 0.90
        other = [i / 1000 for i in range(90)]  # 0.000 .. 0.089
        self.assertEqual(fit.choose_cuts(mine, other), {"no": 0.02, "yes": 0.088})
        self.assertEqual(fit.choose_cuts([0.9, 0.95], [0.1, 0.2]), {"no": 0.9, "yes": 0.9})


class LimitTest(unittest.TestCase):
    def test_vocabulary_shrinks_to_fit(self):
        with tempfile.TemporaryDirectory() as d:
            path = os.path.join(d, "h.jsonl")
            make_history(path, 1500, 4)
            history = fit.arrange(fit.read_history(path, "auto", set()))
        saved = fit.LIMIT
        try:
            _, full, _ = fit.fit_within_limits(history, ["me"], FITTED, 10, 1, 10 ** 6)
            fit.LIMIT = len(full) // 2
            profile, data, package = fit.fit_within_limits(history, ["me"], FITTED, 10, 1, 10 ** 6)
        finally:
            fit.LIMIT = saved
        self.assertLessEqual(max(len(data), len(package)), len(full) // 2)
        self.assertEqual(fit.self_check(data), 10 + len(fit.PROBES))
        self.assertIn("<oov>", profile["model"]["vocab"])


class MboxTest(unittest.TestCase):
    def message(self, sender, when, body, **kw):
        m = email.message.EmailMessage()
        m["From"] = sender
        m["To"] = "someone@example.net"
        m["Subject"] = "s"
        if when is not None:
            m["Date"] = email.utils.formatdate(when)
        m.set_content(body, **kw)
        return m

    def test_mbox_from_the_email_package(self):
        with tempfile.TemporaryDirectory() as d:
            path = os.path.join(d, "mail.mbox")
            box = mailbox.mbox(path)
            t = 1_700_000_000
            for i in range(30):
                box.add(self.message("Me Myself <Owner@Example.org>", t + 600 * i,
                                     "ok \u043f\u0440\u0438\u0432\u0435\u0442 %d\n\n"
                                     "> quoted Words From Someone\n-- \nsig line" % i,
                                     charset="koi8-r" if i % 2 else "utf-8"))
                box.add(self.message("Friend <friend@example.net>", t + 600 * i + 300,
                                     "Dear Owner, From the report: see https://x.example/%d." % i))
            alt = self.message("owner@example.org", t + 99999, "plain words here")
            alt.add_alternative("<p>html words</p>", subtype="html")
            box.add(alt)
            box.add(self.message("owner@example.org", None, "no date"))
            box.close()
            out, js = os.path.join(d, "p.b64"), os.path.join(d, "p.json")
            done = run(path, "--me", "OWNER@example.org", "--out", out, "--json", js,
                       "--checks", "61", "--fitted", FITTED)
            self.assertEqual(done.returncode, 0, done.stderr)
            self.assertIn("left out 1 messages", done.stderr)
            with open(js, encoding="utf-8") as f:
                p = json.load(f)
        self.assertEqual(p["n"], {"mine": 31, "others": 30})
        self.assertEqual(p["subject"]["senders"], ["OWNER@example.org"])
        texts = {r["msg"]["text"] for r in p["checks"]}
        self.assertIn("ok \u043f\u0440\u0438\u0432\u0435\u0442 3", texts)  # koi8-r decoded
        self.assertIn("plain words here", texts)
        self.assertIn("Dear Owner, From the report: see https://x.example/4.", texts)
        self.assertNotIn("quoted", p["model"]["vocab"])
        self.assertNotIn("sig", p["model"]["vocab"])
        self.assertNotIn("html", p["model"]["vocab"])


class RefusalTest(unittest.TestCase):
    def write(self, d, name, text):
        path = os.path.join(d, name)
        with open(path, "w", encoding="utf-8") as f:
            f.write(text)
        return path

    def test_sentences(self):
        with tempfile.TemporaryDirectory() as d:
            good = '{"ts": 1, "text": "a", "from_me": true}\n'
            other = '{"ts": 2, "text": "b", "from_me": false}\n'
            cases = [
                (["missing.jsonl"], "cannot read missing.jsonl: No such file or directory"),
                ([self.write(d, "bad.jsonl", good + "\n" + '{"ts": 1, "text":\n')],
                 "bad.jsonl line 3 is not JSON: Expecting value: line 1 column 18 (char 17)"),
                ([self.write(d, "arr.jsonl", "[1]\n")], "arr.jsonl line 1 is not a JSON object"),
                ([self.write(d, "ts.jsonl", '{"ts": true, "text": "a", "from_me": true}\n')],
                 "ts.jsonl line 1 has no usable time in ts (seconds since 1970)"),
                ([self.write(d, "big.jsonl", '{"ts": 1e15, "text": "a", "from_me": true}\n')],
                 "big.jsonl line 1 has no usable time in ts (seconds since 1970)"),
                ([self.write(d, "huge.jsonl", good + '{"ts": 1%s, "text": "a", "from_me": true}\n'
                             % ("0" * 400))],
                 "huge.jsonl line 2 has no usable time in ts (seconds since 1970)"),
                ([self.write(d, "me.jsonl", '{"ts": 1, "text": "a", "from_me": 1}\n')],
                 "me.jsonl line 1 has no from_me of true or false"),
                ([self.write(d, "none.jsonl", other * 3), "--me", "x"],
                 "none of the 3 messages is yours, so there is nothing to fit: check --me "
                 "or from_me"),
                ([self.write(d, "all.jsonl", good * 2), "--me", "x"],
                 "all 2 messages are yours: the profile needs other people's messages to "
                 "tell yours apart from"),
                ([self.write(d, "anon.jsonl", good + other)],
                 "name the sender id the tripwire is to watch with --me: your lines in "),
                ([self.write(d, "m.mbox", "From x Mon Jan  1 00:00:00 2024\n\nhi\n")],
                 "an mbox does not say which messages are yours: name your address with --me"),
                ([self.write(d, "empty.jsonl", "\n\n")], "empty.jsonl holds no messages"),
                ([self.write(d, "f.jsonl", good + other), "--me", "x", "--fitted", "2025-02-29 10:00"],
                 "--fitted takes a time as YYYY-MM-DD HH:MM"),
            ]
            for args, sentence in cases:
                args = [os.path.join(d, a) if a.endswith(".jsonl") and "/" not in a else a
                        for a in args]
                done = run(*args, "--out", os.path.join(d, "out.b64"))
                self.assertEqual(done.returncode, 1, args)
                self.assertTrue(done.stderr.startswith("tolvanger-fit: "), done.stderr)
                self.assertIn(sentence, done.stderr.replace(d + "/", ""), args)
            self.assertFalse(os.path.exists(os.path.join(d, "out.b64")))

    def test_fitted_form(self):
        for text, ok in (("2025-3-9 8:05", True), ("2025-03-09 08:05", True),
                         ("2024-02-29 23:59", True), (" 2025-01-01  10:00 ", True),
                         ("2025-02-29 10:00", False), ("2025-13-01 10:00", False),
                         ("25-01-01 10:00", False), ("2025-01-01 24:00", False),
                         ("2025-01-01T10:00", False), ("2025-01-01 10:00:00", False),
                         ("2025-01-01 1\u0660:00", False)):
            self.assertEqual(fit.fitted_ok(text), ok, text)

    def test_reader_refuses_booleans_as_numbers(self):
        p = json.loads(fit.encode(TinyHistoryTest().fitted()[1]))
        p["model"]["bins"]["hour"]["3"]["mirel"] = True
        with self.assertRaisesRegex(fit.ProfileError,
                                    "^that profile does not score: bins.hour.3.mirel is not a number$"):
            fit.read_profile(p)
        p = json.loads(fit.encode(TinyHistoryTest().fitted()[1]))
        p["model"]["vocab"]["hi"] = None
        with self.assertRaisesRegex(fit.ProfileError, "vocab.hi is not a cell$"):
            fit.read_profile(p)
        p["model"]["vocab"]["hi"] = {}
        self.assertIsNone(fit.read_profile(p)["model"]["vocab"]["hi"])


if __name__ == "__main__":
    unittest.main()
