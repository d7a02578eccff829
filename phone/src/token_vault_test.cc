#include "tolvanger/phone/token_vault.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "https_upstream.h"
#include "testing/temp_home.h"

namespace tolvanger::phone {
namespace {

// Cheap enough for a test; the real cost is the default.
constexpr crypto::ScryptCost kTestCost{4, 8, 1};

SecretBytes passphrase(std::string_view text) {
  return SecretBytes(asBytes(text));
}

// Whether any file under `root` holds `needle`.
bool anyFileHolds(const std::string& root, std::string_view needle) {
  for (const auto& entry :
       std::filesystem::recursive_directory_iterator(root)) {
    if (!entry.is_regular_file()) continue;
    std::ifstream in(entry.path(), std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), {});
    if (bytes.find(needle) != std::string::npos) return true;
  }
  return false;
}

OAuthCredential credential(std::string name, std::string access,
                           int64_t expiresAt) {
  OAuthCredential c;
  c.name = std::move(name);
  c.provider = "gitlab";
  c.abilities = {"read"};
  c.tokens.accessToken = std::move(access);
  c.tokens.refreshToken = "canary-refresh-5b2f";
  c.tokens.expiresAt = expiresAt;
  c.tokens.scope = "read_api";
  return c;
}

TEST(TokenVault, SealedUnderThePassphraseAndNeverInClear) {
  TempHome dir;
  const PhoneHome home = PhoneHome::open(dir.path());
  const TokenVault vault(home, passphrase("correct horse"), kTestCost);
  EXPECT_TRUE(vault.load().empty());
  vault.put(credential("gitlab", "canary-access-9c1e", 100));
  vault.put(credential("another", "canary-access-0000", 200));

  const TokenVault again(home, passphrase("correct horse"), kTestCost);
  const auto loaded = again.load();
  ASSERT_EQ(loaded.size(), 2u);
  EXPECT_EQ(loaded[1].name, "gitlab");
  EXPECT_EQ(loaded[1].tokens.accessToken, "canary-access-9c1e");
  EXPECT_EQ(loaded[1].tokens.refreshToken, "canary-refresh-5b2f");
  EXPECT_EQ(loaded[1].abilities, std::vector<std::string>{"read"});

  EXPECT_FALSE(anyFileHolds(dir.path(), "canary-"));
  struct stat st {};
  ASSERT_EQ(::stat(home.file(TokenVault::kFile).c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  EXPECT_THROW(TokenVault(home, passphrase("wrong"), kTestCost).load(),
               Refusal);
  // A flipped byte anywhere, header included, is refused too.
  std::string bytes;
  {
    std::ifstream in(home.file(TokenVault::kFile), std::ios::binary);
    bytes.assign(std::istreambuf_iterator<char>(in), {});
  }
  for (const size_t at : {size_t{20}, bytes.size() - 1}) {
    std::string damaged = bytes;
    damaged[at] ^= 1;
    std::ofstream(home.file(TokenVault::kFile), std::ios::binary) << damaged;
    EXPECT_THROW(again.load(), Refusal) << at;
  }
}

TEST(TokenVault, PlantedCostIsRefusedUnspent) {
  const Bytes sealed =
      crypto::sealWithPassphrase(asBytes("p"), asBytes("x"), kTestCost);
  Bytes huge = sealed;
  huge[7] = 40;  // N = 2^40, far above the cap
  EXPECT_FALSE(crypto::openWithPassphrase(asBytes("p"), huge));
  EXPECT_TRUE(crypto::openWithPassphrase(asBytes("p"), sealed));
}

TEST(TokenVault, RefreshesARunOutTokenAndKeepsTheNewOne) {
  TempHome dir;
  testing::HTTPSUpstream server([](const testing::HTTPSUpstream::Received&) {
    return testing::HTTPSUpstream::Reply{
        200, {}, R"({"access_token":"canary-fresh-77aa","expires_in":3600})"};
  });
  const std::string ca = dir.path() + ".ca";
  server.writeCA(ca);
  const OAuthDeployment d = OAuthDeployment::parse(
      R"({"providers":{"gitlab":{"client_id":"c","hosts":{"auth":")" +
      server.netloc() + R"(","api":"api.test"}}}})");
  const OAuthFlow flow(d.provider("gitlab"), "c",
                       std::make_shared<CurlTokenTransport>(ca),
                       [] { return int64_t{5000}; });
  const PhoneHome home = PhoneHome::open(dir.path());
  const TokenVault vault(home, passphrase("p"), kTestCost);
  vault.put(credential("gitlab", "canary-old-1111", 9000));

  EXPECT_EQ(vault.accessToken("gitlab", flow, 5000), "canary-old-1111");
  EXPECT_TRUE(server.received().empty());
  // Within a minute of its end the token counts as run out.
  EXPECT_EQ(vault.accessToken("gitlab", flow, 8950), "canary-fresh-77aa");
  const auto kept = vault.find("gitlab");
  EXPECT_EQ(kept->tokens.accessToken, "canary-fresh-77aa");
  EXPECT_EQ(kept->tokens.expiresAt, 8600);
  EXPECT_EQ(kept->tokens.refreshToken, "canary-refresh-5b2f");
  EXPECT_FALSE(anyFileHolds(dir.path(), "canary-"));
  EXPECT_THROW(vault.accessToken("nope", flow, 0), Refusal);

  // The entry announced for it carries the ability's rules.
  const SecretEntry entry = kept->entry(d.provider("gitlab"));
  EXPECT_EQ(entry.hosts, std::vector<std::string>{"api.test"});
  ASSERT_EQ(entry.rules.size(), 1u);
  EXPECT_TRUE(entry.rules[0].covers("api.test", "GET", "/api/v4/projects"));
  EXPECT_FALSE(entry.rules[0].covers("api.test", "POST", "/api/v4/projects"));
}

}  // namespace
}  // namespace tolvanger::phone
