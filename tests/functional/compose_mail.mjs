// Writes mails the way nodemailer composes them, for the mail-reading tests:
// one JSON object of case names to the message's bytes in standard base64,
// on standard output. Run beside a node_modules that holds nodemailer.
import nodemailer from "nodemailer";

const transport = nodemailer.createTransport({
  streamTransport: true,
  buffer: true,
  newline: "windows",
});

const longText = (characters) =>
  ("ü".repeat(79) + "\n").repeat(Math.ceil(characters / 80)).slice(0, characters - 1) + "ü";

const cases = {
  alternative: {
    to: '"Jürgen Müller" <j@x.example>',
    subject: "Grüße aus München — Termin am Freitag?",
    text: "Hallo Jürgen,\n\npasst dir Freitag?\n",
    html: "<p>Hallo J&uuml;rgen,</p><p>passt dir <b>Freitag</b>?</p>",
  },
  html_only: {
    to: "ops@x.example",
    subject: "Report",
    html: "<h1>Weekly</h1><p>All green.</p>",
  },
  attachments: {
    to: "legal@x.example",
    cc: "boss@x.example",
    subject: "The contract",
    text: "The signed contract is attached.",
    attachments: [
      { filename: "notes.txt", content: "internal notes, not the body" },
      { filename: "c.pdf", content: Buffer.from("%PDF-1.4 not really") },
    ],
  },
  quoted_printable: {
    to: "bob@x.example",
    subject: "Minutes",
    text: "Décision : on garde le plan. ".repeat(6) + "\nFin.",
  },
  body_20000: { to: "long@x.example", subject: "Long", text: longText(20000) },
  body_20001: { to: "long@x.example", subject: "Long", text: longText(20001) },
};

const out = {};
for (const [name, mail] of Object.entries(cases)) {
  const info = await transport.sendMail({ from: "me@x.example", ...mail });
  out[name] = info.message.toString("base64");
}
process.stdout.write(JSON.stringify(out));
