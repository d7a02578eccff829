// Byte strings and the two text forms the system gives them.
//
// `Bytes` is an ordinary owned byte string for public material (keys' public
// halves, signatures, ciphertexts). `SecretBytes` owns secret material: it is
// move-only, its storage is allocated once, on OpenSSL's secure heap when the
// process started one (locked, guarded, out of core dumps; see
// secure_memory.h for what happens without it), and wiped with
// OPENSSL_cleanse when it dies. Its contents are reachable only through
// `reveal()`, so every read of a secret is visible in the code.
//
// Thread safety: values; no shared state.
#ifndef TOLVANGER_KIT_BYTES_H_
#define TOLVANGER_KIT_BYTES_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tolvanger {

using Bytes = std::vector<uint8_t>;
using ByteView = std::span<const uint8_t>;

// Views a text's bytes.
inline ByteView asBytes(std::string_view s) {
  return {reinterpret_cast<const uint8_t*>(s.data()), s.size()};
}
inline Bytes toBytes(std::string_view s) { return Bytes(s.begin(), s.end()); }
inline std::string toString(ByteView b) {
  return std::string(b.begin(), b.end());
}

class SecretBytes {
 public:
  SecretBytes() = default;
  // Allocates `size` zeroed bytes.
  explicit SecretBytes(size_t size);
  // Copies `data` in. The caller remains responsible for wiping its own copy.
  explicit SecretBytes(ByteView data);
  ~SecretBytes();

  SecretBytes(SecretBytes&& other) noexcept;
  SecretBytes& operator=(SecretBytes&& other) noexcept;
  SecretBytes(const SecretBytes&) = delete;
  SecretBytes& operator=(const SecretBytes&) = delete;

  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

  // The secret itself. Do not copy it anywhere that outlives the call.
  ByteView reveal() const { return {data_, size_}; }
  uint8_t* mutableData() { return data_; }

  // Wipes and frees now; the object is empty afterwards.
  void wipe();

 private:
  uint8_t* data_ = nullptr;
  size_t size_ = 0;
};

// Wipes a buffer that held a secret (OPENSSL_cleanse, which the compiler may
// not elide).
void wipe(void* data, size_t size);
void wipe(std::string& s);
void wipe(Bytes& b);

// Compares two byte strings in time that depends only on their lengths.
bool constantTimeEqual(ByteView a, ByteView b);
// Compares two texts on their UTF-8 bytes, as above.
bool constantTimeEqual(std::string_view a, std::string_view b);

// Lowercase hexadecimal, two digits a byte.
std::string toHex(ByteView data);
// Accepts upper- or lowercase digits; nothing on odd length or a non-digit.
std::optional<Bytes> fromHex(std::string_view hex);

// Standard Base64 with padding and no line breaks.
std::string toBase64(ByteView data);
// Strict: the standard alphabet, length a multiple of four, padding only at
// the end. Nothing on any other input.
std::optional<Bytes> fromBase64(std::string_view text);

}  // namespace tolvanger

#endif  // TOLVANGER_KIT_BYTES_H_
