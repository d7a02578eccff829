// Replay driver for fuzz targets built without libFuzzer.
//
// Runs LLVMFuzzerTestOneInput over every file of the corpus folder given as
// the first argument, then over a bounded, seeded stream of mutations of those
// files (byte flips, truncations, splices, random bytes), so each CTest run
// exercises the parser with inputs nobody wrote by hand. The count comes from
// TOLVANGER_FUZZ_RUNS (default 2000). Exits non-zero only if a target crashes,
// which the sanitizers turn into a report.
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

std::vector<uint8_t> ReadFile(const std::filesystem::path& p) {
  std::ifstream in(p, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

std::vector<uint8_t> Mutate(const std::vector<std::vector<uint8_t>>& seeds,
                            std::mt19937_64& rng) {
  std::vector<uint8_t> out;
  if (!seeds.empty()) out = seeds[rng() % seeds.size()];
  const int steps = 1 + static_cast<int>(rng() % 4);
  for (int i = 0; i < steps; ++i) {
    switch (rng() % 6) {
      case 0:
        if (!out.empty()) out[rng() % out.size()] ^= 1u << (rng() % 8);
        break;
      case 1:
        if (!out.empty()) out.resize(rng() % out.size());
        break;
      case 2: {
        const size_t at = out.empty() ? 0 : rng() % (out.size() + 1);
        out.insert(out.begin() + at, static_cast<uint8_t>(rng()));
        break;
      }
      case 3:
        if (!seeds.empty()) {
          const auto& other = seeds[rng() % seeds.size()];
          if (!other.empty()) {
            const size_t from = rng() % other.size();
            const size_t at = out.empty() ? 0 : rng() % (out.size() + 1);
            out.insert(out.begin() + at, other.begin() + from, other.end());
          }
        }
        break;
      case 4:
        if (!out.empty()) {
          const size_t at = rng() % out.size();
          static const uint8_t kSpecial[] = {0,   0xff, '"', '\\', '\n',
                                             '{', '}',  '[', ']',  0x80};
          out[at] = kSpecial[rng() % sizeof(kSpecial)];
        }
        break;
      default: {
        const size_t n = rng() % 64;
        for (size_t k = 0; k < n; ++k)
          out.push_back(static_cast<uint8_t>(rng()));
        break;
      }
    }
  }
  return out;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::vector<uint8_t>> seeds;
  if (argc > 1 && std::filesystem::is_directory(argv[1])) {
    for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
      if (entry.is_regular_file()) seeds.push_back(ReadFile(entry.path()));
    }
  }
  for (const auto& s : seeds) LLVMFuzzerTestOneInput(s.data(), s.size());
  long runs = 2000;
  if (const char* env = std::getenv("TOLVANGER_FUZZ_RUNS"))
    runs = std::atol(env);
  std::mt19937_64 rng(0x746f6c76);
  for (long i = 0; i < runs; ++i) {
    const auto input = Mutate(seeds, rng);
    LLVMFuzzerTestOneInput(input.data(), input.size());
  }
  std::cout << seeds.size() << " seeds and " << runs << " mutations ran\n";
  return 0;
}
