// What reading a mail costs before the phone can show it: mail.send's
// renderer over a 1 MiB multipart message (a quoted-printable plain part, an
// HTML alternative and a base64 attachment, as a mail client sends them),
// in MB/s of the send body. The baseline, in the same run, is the least any
// reader must do to see the message at all: parse the JSON body and decode
// its base64. BM_RenderMail reports both rates and their ratio.
#include <benchmark/benchmark.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <string>

#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/provider_hosts.h"
#include "tolvanger/service/mime.h"
#include "tolvanger/service/ops.h"

namespace {

using nlohmann::json;
using Clock = std::chrono::steady_clock;
namespace svc = tolvanger::service;

// A send body holding a message of about 1 MiB.
std::string sendBody() {
  std::string plain;
  while (plain.size() < 15000) {
    plain +=
        "Caf=C3=A9 at ten, then the review of the quarter's numbers =\r\n"
        "and what they mean for the plan.\r\n";
  }
  std::string html;
  while (html.size() < 200000) {
    html += "<p>Caf&eacute; at ten, then the review of the numbers.</p>\r\n";
  }
  std::string attachment;
  const std::string line =
      tolvanger::toBase64(tolvanger::asBytes(std::string(57, '\x89'))) + "\r\n";
  while (attachment.size() < 830000) attachment += line;
  const std::string message =
      "To: Anna <anna@x.example>\r\nSubject: =?utf-8?Q?Caf=C3=A9?=\r\n"
      "Content-Type: multipart/mixed; boundary=\"mix\"\r\n\r\n"
      "--mix\r\nContent-Type: multipart/alternative; boundary=\"alt\"\r\n\r\n"
      "--alt\r\nContent-Type: text/plain; charset=utf-8\r\n"
      "Content-Transfer-Encoding: quoted-printable\r\n\r\n" +
      plain + "\r\n--alt\r\nContent-Type: text/html; charset=utf-8\r\n\r\n" +
      html +
      "\r\n--alt--\r\n"
      "--mix\r\nContent-Type: application/pdf\r\n"
      "Content-Disposition: attachment; filename=q.pdf\r\n"
      "Content-Transfer-Encoding: base64\r\n\r\n" +
      attachment + "\r\n--mix--\r\n";
  std::string raw = tolvanger::toBase64(tolvanger::asBytes(message));
  for (char& c : raw) {
    if (c == '+') c = '-';
    if (c == '/') c = '_';
  }
  return json{{"raw", raw}}.dump();
}

void BM_RenderMail(benchmark::State& state) {
  svc::Wire wire{"POST", "https", std::string(tolvanger::ProviderHosts::gmail),
                 443, "/gmail/v1/users/me/messages/send"};
  wire.body = sendBody();
  const double megabytes = static_cast<double>(wire.body.size()) / 1e6;
  double rendered = 0, baseline = 0;
  int64_t rounds = 0;
  for (auto _ : state) {
    // Interleaved, so both see the same machine.
    auto start = Clock::now();
    const json fields = svc::Mail::render(wire);
    benchmark::DoNotOptimize(fields);
    rendered += std::chrono::duration<double>(Clock::now() - start).count();

    start = Clock::now();
    const json body = json::parse(wire.body);
    const auto bytes =
        svc::Base64::urlsafe(body["raw"].get_ref<const std::string&>());
    benchmark::DoNotOptimize(bytes);
    baseline += std::chrono::duration<double>(Clock::now() - start).count();
    ++rounds;
  }
  const double renderRate = megabytes * static_cast<double>(rounds) / rendered;
  const double baseRate = megabytes * static_cast<double>(rounds) / baseline;
  state.counters["render_MBps"] = renderRate;
  state.counters["decode_only_MBps"] = baseRate;
  state.counters["time_ratio_to_decode_only"] = baseRate / renderRate;
  state.counters["body_MB"] = megabytes;
}
BENCHMARK(BM_RenderMail)->Unit(benchmark::kMillisecond)->MinTime(2.0);

}  // namespace

BENCHMARK_MAIN();
