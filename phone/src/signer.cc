#include "tolvanger/phone/signer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "tolvanger/port/files.h"

namespace tolvanger::phone {

namespace {

constexpr mode_t kDirectoryMode = 0700;
constexpr mode_t kFileMode = 0600;
// Far above any blob; a larger file is not a key.
constexpr size_t kMaxKeyFile = 4096;

std::string errorText(int error) { return std::strerror(error); }

std::string joinPath(const std::string& directory, std::string_view name) {
  std::string path = directory;
  if (!path.empty() && path.back() != '/') path += '/';
  path += name;
  return path;
}

// Makes `directory` if it is missing and gives it mode 0700 either way.
void ensureDirectory(const std::string& directory) {
  if (mkdir(directory.c_str(), kDirectoryMode) != 0 && errno != EEXIST) {
    throw SignerError::create("could not make " + directory + " (" +
                              errorText(errno) + ")");
  }
  struct stat st;
  if (stat(directory.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    throw SignerError::create(directory + " is not a directory");
  }
  // mkdir's mode passes through the umask; the directory's must not.
  if (chmod(directory.c_str(), kDirectoryMode) != 0) {
    throw SignerError::create("could not protect " + directory + " (" +
                              errorText(errno) + ")");
  }
}

// Replaces `path` with `data`: written to "<path>.tmp" with mode 0600, flushed
// to disk, then renamed into place, so a reader sees the old file or the new
// one and never a part. Throws SignerError::create.
void writeAtomically(const std::string& path, ByteView data) {
  if (const int error =
          port::replaceFile(path, data.data(), data.size(), kFileMode)) {
    throw SignerError::create("could not write " + path + " (" +
                              errorText(error) + ")");
  }
}

// The bytes of a key file in wipeable memory; nothing if it is absent.
// Throws SignerError::restore if it cannot be read or is too large.
std::optional<SecretBytes> readKeyFile(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) {
    if (errno == ENOENT) return std::nullopt;
    throw SignerError::restore("could not read " + path + " (" +
                               errorText(errno) + ")");
  }
  SecretBytes buffer(kMaxKeyFile + 1);
  size_t size = 0;
  int error = 0;
  while (size < buffer.size()) {
    const ssize_t n =
        read(fd, buffer.mutableData() + size, buffer.size() - size);
    if (n < 0) {
      if (errno == EINTR) continue;
      error = errno;
      break;
    }
    if (n == 0) break;
    size += static_cast<size_t>(n);
  }
  close(fd);
  if (error != 0) {
    throw SignerError::restore("could not read " + path + " (" +
                               errorText(error) + ")");
  }
  if (size > kMaxKeyFile) {
    throw SignerError::restore(path + " does not hold a key");
  }
  return SecretBytes(buffer.reveal().first(size));
}

crypto::MLDSA65PrivateKey restorePQ(ByteView pqBlob) {
  if (pqBlob.empty()) {
    throw SignerError::restore("no post-quantum key stored");
  }
  std::optional<crypto::MLDSA65PrivateKey> key;
  if (pqBlob[0] == SoftwareSigner::kSeedTag) {
    key = crypto::MLDSA65PrivateKey::fromSeed(pqBlob.subspan(1));
  }
  // A hardware key's blob (tag 1) means nothing without the hardware.
  if (!key) {
    throw SignerError::restore("the post-quantum key blob is unreadable");
  }
  return *std::move(key);
}

}  // namespace

SignerError SignerError::accessControl(std::string text) {
  return SignerError(Kind::kAccessControl, std::move(text));
}
SignerError SignerError::create(std::string text) {
  return SignerError(Kind::kCreate, "could not create the key: " + text);
}
SignerError SignerError::restore(std::string text) {
  return SignerError(Kind::kRestore, "could not open the key: " + text);
}
SignerError SignerError::sign(std::string text) {
  return SignerError(Kind::kSign, std::move(text));
}
SignerError SignerError::noEnclave() {
  return SignerError(
      Kind::kNoEnclave,
      "this device has no Secure Enclave — approvals cannot be signed here");
}

SoftwareSigner::SoftwareSigner()
    : key_(crypto::P256PrivateKey::generate(true)),
      pq_(crypto::MLDSA65PrivateKey::generate()) {}

SoftwareSigner SoftwareSigner::restore(ByteView blob,
                                       std::optional<ByteView> pqBlob) {
  std::optional<crypto::P256PrivateKey> key =
      crypto::P256PrivateKey::fromRaw(blob);
  if (!key) throw SignerError::restore("the P-256 key blob is unreadable");
  return SoftwareSigner(
      *std::move(key),
      pqBlob ? restorePQ(*pqBlob) : crypto::MLDSA65PrivateKey::generate());
}

SoftwareSigner SoftwareSigner::open(const std::string& directory) {
  ensureDirectory(directory);
  const std::string keyPath = joinPath(directory, kKeyFile);
  const std::string pqPath = joinPath(directory, kPQKeyFile);
  const std::optional<SecretBytes> blob = readKeyFile(keyPath);
  const std::optional<SecretBytes> pq = readKeyFile(pqPath);

  std::optional<crypto::P256PrivateKey> key;
  if (blob) {
    key = crypto::P256PrivateKey::fromRaw(blob->reveal());
    if (!key) throw SignerError::restore("the P-256 key blob is unreadable");
  } else {
    key = crypto::P256PrivateKey::generate(true);
  }
  SoftwareSigner signer(
      *std::move(key),
      pq ? restorePQ(pq->reveal()) : crypto::MLDSA65PrivateKey::generate());
  if (!blob) writeAtomically(keyPath, signer.blob().reveal());
  if (!pq) writeAtomically(pqPath, signer.pqBlob().reveal());
  return signer;
}

void SoftwareSigner::save(const std::string& directory) const {
  ensureDirectory(directory);
  writeAtomically(joinPath(directory, kKeyFile), blob().reveal());
  writeAtomically(joinPath(directory, kPQKeyFile), pqBlob().reveal());
}

SecretBytes SoftwareSigner::blob() const { return key_.raw(); }

SecretBytes SoftwareSigner::pqBlob() const {
  const SecretBytes seed = pq_.seed();
  SecretBytes out(1 + seed.size());
  out.mutableData()[0] = kSeedTag;
  std::memcpy(out.mutableData() + 1, seed.reveal().data(), seed.size());
  return out;
}

Bytes SoftwareSigner::publicKeyDER() const { return key_.publicKey().der(); }

Bytes SoftwareSigner::pqPublicKey() const { return pq_.publicKey().raw(); }

Bytes SoftwareSigner::signature(ByteView data) const {
  try {
    return key_.sign(data);
  } catch (const std::exception& e) {
    throw SignerError::sign(e.what());
  }
}

Bytes SoftwareSigner::pqSignature(ByteView data) const {
  try {
    return pq_.sign(data);
  } catch (const std::exception& e) {
    throw SignerError::sign(e.what());
  }
}

EnclaveSigner EnclaveSigner::create(std::string_view) {
  throw SignerError::noEnclave();
}

EnclaveSigner EnclaveSigner::restore(ByteView, std::optional<ByteView>,
                                     std::string_view) {
  throw SignerError::noEnclave();
}

Bytes EnclaveSigner::blob() const { throw SignerError::noEnclave(); }
Bytes EnclaveSigner::pqBlob() const { throw SignerError::noEnclave(); }
Bytes EnclaveSigner::publicKeyDER() const { throw SignerError::noEnclave(); }
Bytes EnclaveSigner::pqPublicKey() const { throw SignerError::noEnclave(); }
Bytes EnclaveSigner::signature(ByteView) const {
  throw SignerError::noEnclave();
}
Bytes EnclaveSigner::pqSignature(ByteView) const {
  throw SignerError::noEnclave();
}

}  // namespace tolvanger::phone
