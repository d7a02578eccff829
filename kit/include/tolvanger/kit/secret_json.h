// JSON for documents that carry a secret, such as a credential offer opened
// from an envelope. Every string the parser builds, including its scratch
// buffers, is allocated through an allocator that wipes memory with
// OPENSSL_cleanse before freeing it, so no copy of the secret is left in
// freed heap.
//
// Thread safety: a value type, like nlohmann::json.
#ifndef TOLVANGER_KIT_SECRET_JSON_H_
#define TOLVANGER_KIT_SECRET_JSON_H_

#include <cstddef>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace tolvanger {

// Frees memory only after wiping it.
template <typename T>
struct WipingAllocator {
  using value_type = T;
  WipingAllocator() = default;
  template <typename U>
  WipingAllocator(const WipingAllocator<U>&) noexcept {}
  T* allocate(size_t n) { return std::allocator<T>().allocate(n); }
  void deallocate(T* p, size_t n) noexcept;
  template <typename U>
  bool operator==(const WipingAllocator<U>&) const noexcept {
    return true;
  }
};

void wipeForAllocator(void* p, size_t bytes) noexcept;

template <typename T>
void WipingAllocator<T>::deallocate(T* p, size_t n) noexcept {
  wipeForAllocator(p, n * sizeof(T));
  std::allocator<T>().deallocate(p, n);
}

using SecretString =
    std::basic_string<char, std::char_traits<char>, WipingAllocator<char>>;
using SecretJson =
    nlohmann::basic_json<std::map, std::vector, SecretString, bool,
                         std::int64_t, std::uint64_t, double, WipingAllocator>;

}  // namespace tolvanger

#endif  // TOLVANGER_KIT_SECRET_JSON_H_
