// Loading of the published test vectors under kit/testdata/vectors for the
// crypto tests.
#ifndef TOLVANGER_KIT_SRC_CRYPTO_TEST_VECTORS_H_
#define TOLVANGER_KIT_SRC_CRYPTO_TEST_VECTORS_H_

#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "tolvanger/kit/bytes.h"

namespace tolvanger::crypto::testing {

// Parses kit/testdata/vectors/<relativePath>; throws if it is missing.
inline nlohmann::json loadVectors(const std::string& relativePath) {
  const std::string path = std::string(TOLVANGER_SOURCE_DIR) +
                           "/kit/testdata/vectors/" + relativePath;
  std::ifstream in(path);
  if (!in) throw std::runtime_error("missing test vectors: " + path);
  return nlohmann::json::parse(in);
}

// The bytes of a hex field; an absent field is empty.
inline Bytes hexField(const nlohmann::json& object, const char* key) {
  if (!object.contains(key)) return {};
  auto bytes = fromHex(object.at(key).get<std::string>());
  if (!bytes) throw std::runtime_error(std::string("bad hex in ") + key);
  return *bytes;
}

inline Bytes copy(ByteView view) { return Bytes(view.begin(), view.end()); }

}  // namespace tolvanger::crypto::testing

#endif  // TOLVANGER_KIT_SRC_CRYPTO_TEST_VECTORS_H_
