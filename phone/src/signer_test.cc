// Tests of the phone's signers: signatures that verify, blobs and key
// directories that give the same keys back, and the refusals.
#include "tolvanger/phone/signer.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

namespace tolvanger::phone {
namespace {

namespace fs = std::filesystem;

const Bytes kMessage = toBytes("tolvanger-v1\nd\nr\ndigest\n1\n2");

void expectSameKeys(const RequestSigner& a, const RequestSigner& b) {
  EXPECT_EQ(a.publicKeyDER(), b.publicKeyDER());
  EXPECT_EQ(a.pqPublicKey(), b.pqPublicKey());
}

mode_t modeOf(const fs::path& path) {
  struct stat st;
  EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
  return st.st_mode & 07777;
}

std::string restoreFailure(ByteView blob, std::optional<ByteView> pqBlob) {
  try {
    SoftwareSigner::restore(blob, pqBlob);
  } catch (const SignerError& e) {
    EXPECT_EQ(e.kind(), SignerError::Kind::kRestore);
    return e.what();
  }
  return "restored";
}

TEST(SignerTest, SignaturesVerifyWithThePublicKeys) {
  const SoftwareSigner signer;
  const RequestSigner& any = signer;
  const auto key = crypto::P256PublicKey::fromDER(any.publicKeyDER());
  const auto pq = crypto::MLDSA65PublicKey::fromRaw(any.pqPublicKey());
  ASSERT_TRUE(key && pq);
  EXPECT_TRUE(key->verify(kMessage, any.signature(kMessage)));
  EXPECT_TRUE(pq->verify(kMessage, any.pqSignature(kMessage)));
  EXPECT_FALSE(key->verify(toBytes("other"), any.signature(kMessage)));
}

TEST(SignerTest, BlobsRestoreTheSameKeys) {
  const SoftwareSigner signer;
  const SecretBytes blob = signer.blob();
  const SecretBytes pqBlob = signer.pqBlob();
  EXPECT_EQ(blob.size(), 32u);
  ASSERT_EQ(pqBlob.size(), 33u);
  EXPECT_EQ(pqBlob.reveal()[0], SoftwareSigner::kSeedTag);
  expectSameKeys(SoftwareSigner::restore(blob.reveal(), pqBlob.reveal()),
                 signer);

  // No post-quantum blob at all draws a new post-quantum key.
  const SoftwareSigner fresh =
      SoftwareSigner::restore(blob.reveal(), std::nullopt);
  EXPECT_EQ(fresh.publicKeyDER(), signer.publicKeyDER());
  EXPECT_NE(fresh.pqPublicKey(), signer.pqPublicKey());

  Bytes tag3(pqBlob.reveal().begin(), pqBlob.reveal().end());
  tag3[0] = 3;
  const Bytes tagOnly = {SoftwareSigner::kSeedTag};
  const Bytes enclaveTag = {SoftwareSigner::kEnclaveTag, 1, 2, 3};
  const std::string unreadable =
      "could not open the key: the post-quantum key blob is unreadable";
  EXPECT_EQ(restoreFailure(blob.reveal(), tag3), unreadable);
  EXPECT_EQ(restoreFailure(blob.reveal(), tagOnly), unreadable);
  EXPECT_EQ(restoreFailure(blob.reveal(), enclaveTag), unreadable);
  EXPECT_EQ(restoreFailure(blob.reveal(), Bytes{}),
            "could not open the key: no post-quantum key stored");
  EXPECT_EQ(restoreFailure(blob.reveal().first(31), pqBlob.reveal()),
            "could not open the key: the P-256 key blob is unreadable");
}

TEST(SignerTest, KeepsItsKeysInAPrivateDirectory) {
  const fs::path root =
      fs::temp_directory_path() / ("signer-test-" + std::to_string(getpid()));
  fs::remove_all(root);
  fs::create_directories(root);
  const fs::path dir = root / "keys";
  const fs::path keyFile = dir / SoftwareSigner::kKeyFile;
  const fs::path pqFile = dir / SoftwareSigner::kPQKeyFile;

  const SoftwareSigner first = SoftwareSigner::open(dir);
  EXPECT_EQ(modeOf(dir), 0700u);
  EXPECT_EQ(modeOf(keyFile), 0600u);
  EXPECT_EQ(modeOf(pqFile), 0600u);
  EXPECT_EQ(fs::file_size(keyFile), 32u);
  EXPECT_EQ(fs::file_size(pqFile), 33u);
  expectSameKeys(SoftwareSigner::open(dir), first);

  // A lost post-quantum file is drawn again and kept; the P-256 key stays.
  fs::remove(pqFile);
  const SoftwareSigner second = SoftwareSigner::open(dir);
  EXPECT_EQ(second.publicKeyDER(), first.publicKeyDER());
  EXPECT_NE(second.pqPublicKey(), first.pqPublicKey());
  expectSameKeys(SoftwareSigner::open(dir), second);

  // A broken key file is refused and left as it is, not replaced.
  std::ofstream(keyFile, std::ios::trunc) << std::string(31, 'x');
  try {
    SoftwareSigner::open(dir);
    ADD_FAILURE() << "opened a broken key";
  } catch (const SignerError& e) {
    EXPECT_EQ(e.kind(), SignerError::Kind::kRestore);
  }
  EXPECT_EQ(fs::file_size(keyFile), 31u);

  // save replaces both files in place, with no scratch file left behind.
  second.save(dir);
  expectSameKeys(SoftwareSigner::open(dir), second);
  EXPECT_EQ(modeOf(keyFile), 0600u);
  for (const auto& entry : fs::directory_iterator(dir)) {
    EXPECT_NE(entry.path().extension(), ".tmp");
  }
  fs::remove_all(root);
}

TEST(SignerTest, EnclaveSignerReportsThatThereIsNoEnclave) {
  EXPECT_FALSE(EnclaveSigner::isAvailable());
  const std::string sentence =
      "this device has no Secure Enclave — approvals cannot be signed here";
  for (const auto& make : {
           +[] { EnclaveSigner::create("Approve requests"); },
           +[] { EnclaveSigner::restore(Bytes{1}, Bytes{2}, "Approve"); },
       }) {
    try {
      make();
      ADD_FAILURE() << "made an enclave signer";
    } catch (const SignerError& e) {
      EXPECT_EQ(e.kind(), SignerError::Kind::kNoEnclave);
      EXPECT_EQ(e.what(), sentence);
    }
  }
}

}  // namespace
}  // namespace tolvanger::phone
