"""Writes mails the way Python's own email package composes them, for the
mail-reading tests: one JSON object of case names to the message's bytes in
standard base64, on standard output."""

import base64
import json
import sys
from email.header import Header
from email.message import EmailMessage
from email.mime.application import MIMEApplication
from email.mime.multipart import MIMEMultipart
from email.mime.text import MIMEText


def alternative():
    m = EmailMessage()
    m["To"] = "Zoë Ågren <zoe@x.example>"
    m["Cc"] = "team@x.example"
    m["Subject"] = "Café ☕ at ten — the whole team, if the weather holds"
    m.set_content("Hi Zoë,\n\nCoffee at ten?\n")
    m.add_alternative("<p>Hi Zo&euml;,</p><p>Coffee at <b>ten</b>?</p>",
                      subtype="html")
    return m


def html_only():
    m = EmailMessage()
    m["To"] = "ops@x.example"
    m["Subject"] = "Report"
    m.set_content("<h1>Weekly</h1><p>All green.</p>", subtype="html")
    return m


def attachment_first():
    m = MIMEMultipart("mixed")
    m["To"] = "legal@x.example"
    m["Subject"] = "The contract"
    notes = MIMEText("internal notes, not the body\n")
    notes.add_header("Content-Disposition", "attachment", filename="notes.txt")
    m.attach(notes)
    m.attach(MIMEText("The signed contract is attached.\n", "plain", "utf-8"))
    pdf = MIMEApplication(b"%PDF-1.4 not really\n", "pdf")
    pdf.add_header("Content-Disposition", "attachment", filename="c.pdf")
    m.attach(pdf)
    return m


def latin1():
    m = MIMEText("Schöne Grüße aus Köln\n", "plain", "iso-8859-1")
    m["To"] = "anna@x.example"
    m["Subject"] = Header("Grüße", "iso-8859-1")
    return m


def quoted_printable():
    m = EmailMessage()
    m["To"] = "bob@x.example"
    m["Subject"] = "Minutes"
    m.set_content("Décision : on garde le plan. " * 6 + "\nFin.\n",
                  cte="quoted-printable")
    return m


def long_body(characters):
    m = EmailMessage()
    m["To"] = "long@x.example"
    m["Subject"] = "Long"
    line = "é" * 99 + "\n"
    # Ends in a letter, so no trailing line end is trimmed from the count.
    text = (line * (characters // 100 + 1))[:characters - 1] + "é"
    m.set_content(text)
    return m


CASES = {
    "alternative": alternative,
    "html_only": html_only,
    "attachment_first": attachment_first,
    "latin1": latin1,
    "quoted_printable": quoted_printable,
    "body_20000": lambda: long_body(20000),
    "body_20001": lambda: long_body(20001),
}

json.dump({name: base64.b64encode(make().as_bytes()).decode("ascii")
           for name, make in CASES.items()}, sys.stdout)
