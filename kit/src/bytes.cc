#include "tolvanger/kit/bytes.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <cstring>
#include <new>
#include <utility>

namespace tolvanger {

SecretBytes::SecretBytes(size_t size) : size_(size) {
  if (size_ == 0) return;
  // The secure heap when there is one with room, plain memory otherwise;
  // CRYPTO_secure_clear_free tells the two apart and wipes either. Without a
  // file and line a full arena leaves nothing on OpenSSL's error queue.
  data_ = static_cast<uint8_t*>(CRYPTO_secure_zalloc(size_, nullptr, 0));
  if (data_ == nullptr) data_ = static_cast<uint8_t*>(OPENSSL_zalloc(size_));
  if (data_ == nullptr) throw std::bad_alloc();
}

SecretBytes::SecretBytes(ByteView data) : SecretBytes(data.size()) {
  if (!data.empty()) std::memcpy(data_, data.data(), data.size());
}

SecretBytes::~SecretBytes() { wipe(); }

SecretBytes::SecretBytes(SecretBytes&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)),
      size_(std::exchange(other.size_, 0)) {}

SecretBytes& SecretBytes::operator=(SecretBytes&& other) noexcept {
  if (this != &other) {
    wipe();
    data_ = std::exchange(other.data_, nullptr);
    size_ = std::exchange(other.size_, 0);
  }
  return *this;
}

void SecretBytes::wipe() {
  if (data_ == nullptr) return;
  OPENSSL_secure_clear_free(data_, size_);
  data_ = nullptr;
  size_ = 0;
}

void wipe(void* data, size_t size) {
  if (data != nullptr && size > 0) OPENSSL_cleanse(data, size);
}
void wipe(std::string& s) {
  wipe(s.data(), s.size());
  s.clear();
}
void wipe(Bytes& b) {
  wipe(b.data(), b.size());
  b.clear();
}

bool constantTimeEqual(ByteView a, ByteView b) {
  if (a.size() != b.size()) return false;
  if (a.empty()) return true;
  return CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

bool constantTimeEqual(std::string_view a, std::string_view b) {
  return constantTimeEqual(asBytes(a), asBytes(b));
}

std::string toHex(ByteView data) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out(data.size() * 2, '0');
  for (size_t i = 0; i < data.size(); ++i) {
    out[2 * i] = kDigits[data[i] >> 4];
    out[2 * i + 1] = kDigits[data[i] & 0xf];
  }
  return out;
}

namespace {
int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool isBase64Char(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
         (c >= '0' && c <= '9') || c == '+' || c == '/';
}
}  // namespace

std::optional<Bytes> fromHex(std::string_view hex) {
  if (hex.size() % 2 != 0) return std::nullopt;
  Bytes out(hex.size() / 2);
  for (size_t i = 0; i < out.size(); ++i) {
    const int hi = hexValue(hex[2 * i]);
    const int lo = hexValue(hex[2 * i + 1]);
    if (hi < 0 || lo < 0) return std::nullopt;
    out[i] = static_cast<uint8_t>(hi << 4 | lo);
  }
  return out;
}

std::string toBase64(ByteView data) {
  if (data.empty()) return {};
  std::string out(4 * ((data.size() + 2) / 3) + 1, '\0');
  const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                data.data(), static_cast<int>(data.size()));
  out.resize(static_cast<size_t>(n));
  return out;
}

std::optional<Bytes> fromBase64(std::string_view text) {
  if (text.empty()) return Bytes{};
  if (text.size() % 4 != 0) return std::nullopt;
  size_t padding = 0;
  if (text.back() == '=') padding = text[text.size() - 2] == '=' ? 2 : 1;
  for (size_t i = 0; i < text.size() - padding; ++i) {
    if (!isBase64Char(text[i])) return std::nullopt;
  }
  Bytes out(text.size() / 4 * 3);
  const int n = EVP_DecodeBlock(
      out.data(), reinterpret_cast<const unsigned char*>(text.data()),
      static_cast<int>(text.size()));
  if (n < 0 || static_cast<size_t>(n) != out.size()) return std::nullopt;
  out.resize(out.size() - padding);
  return out;
}

}  // namespace tolvanger

#include "tolvanger/kit/secret_json.h"

namespace tolvanger {
void wipeForAllocator(void* p, size_t bytes) noexcept { wipe(p, bytes); }
}  // namespace tolvanger
