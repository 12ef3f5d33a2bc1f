// DES, triple DES and MD5 against published vectors; padding; random texts and the entropy pool.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <set>
#include <vector>

#include "crypto/des.h"
#include "crypto/md5.h"
#include "crypto/random.h"
#include "support/support.h"

namespace {

constexpr int kWeakKey = 43;  // GPG_ERR_WEAK_KEY

std::string from_hex(const std::string &hex) {
  std::string bytes;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

const uint8_t *bytes(const std::string &text) {
  return reinterpret_cast<const uint8_t *>(text.data());
}

// Hexadecimal keys, one for DES and two or three for triple DES, told by their length.
struct cipher {
  explicit cipher(const std::string &hex) : keys(from_hex(hex)), single(keys.size() == 8) {
    const uint8_t *const k = bytes(keys);
    result = single              ? DesSetKey(&des, k)
             : keys.size() == 16 ? Des3Set2Key(&des3, k, k + 8)
                                 : Des3Set3Key(&des3, k, k + 8, k + 16);
  }

  std::string encrypt(const std::string &in, bool in_place = false) const {
    std::string out = in + std::string(8, '\0');
    int n = -7;
    const int size = static_cast<int>(in.size());
    const char *const from = in_place ? out.data() : in.data();
    const int code = single ? DesEncrypt(&des, from, size, out.data(), &n)
                            : Des3Encrypt(&des3, from, size, out.data(), &n);
    return code == 0 ? out.substr(0, static_cast<size_t>(n)) : "failed";
  }

  std::string decrypt(const std::string &in) const {
    std::string out = in;  // in place
    int n = -7;
    const int size = static_cast<int>(in.size());
    const int code = single ? DesDecrypt(&des, out.data(), size, out.data(), &n)
                            : Des3Decrypt(&des3, out.data(), size, out.data(), &n);
    if (code != 0) return n == -7 ? "failed" : "failed, with a length";
    return out.substr(0, static_cast<size_t>(n));
  }

  std::string keys;
  bool single;
  des_context des;
  des3_context des3;
  int result;
};

TEST(Des, PublishedVectors) {
  const struct {
    std::string key, plain, enciphered;
    int result;
  } rows[] = {
      {"133457799bbcdff1", "0123456789abcdef", "85e813540f0ab405", 0},
      // NIST SP 800-17, tables of variable plaintext, variable key, permutation and substitution.
      {"0101010101010101", "8000000000000000", "95f8a5e5dd31d900", kWeakKey},
      {"8001010101010101", "0000000000000000", "95a8d72813daa94d", 0},
      {"7ca110454a1a6e57", "01a1d6d039776742", "690f5b0d9a26939b", 0},
      // NIST SP 800-67, appendix B.
      {"0123456789abcdef23456789abcdef01456789abcdef0123",
       "5468652071756663"
       "6b2062726f776e20"
       "666f78206a756d70",
       "a826fd8ce53b855f"
       "cce21c8112256fe6"
       "68d5c05dd9b6b900",
       0},
      // Three equal keys are single DES; two keys are the first one again as the third.
      {"133457799bbcdff1133457799bbcdff1133457799bbcdff1", "0123456789abcdef", "85e813540f0ab405",
       0},
      {"133457799bbcdff1133457799bbcdff1", "0123456789abcdef", "85e813540f0ab405", 0},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.key);
    const cipher c(row.key);
    EXPECT_EQ(c.result, row.result);
    const std::string out = c.encrypt(from_hex(row.plain));
    ASSERT_EQ(out.size(), row.plain.size() / 2 + 8) << "a whole block of padding";
    EXPECT_EQ(to_hex(out.data(), out.size() - 8), row.enciphered);
    EXPECT_EQ(c.decrypt(out), from_hex(row.plain));
  }
}

TEST(Des, EveryLengthGoesThereAndBackInThreadsThatShareAContext) {
  for (const char *const key : {"0123456789abcdef", "0123456789abcdef23456789abcdef01"}) {
    const cipher c(key);
    Threads(4, [&c](int) {
      std::string text;
      for (int len = 0; len < 100; ++len, text += static_cast<char>(len)) {
        const std::string out = c.encrypt(text);
        ASSERT_EQ(out.size(), text.size() / 8 * 8 + 8);
        ASSERT_EQ(c.decrypt(out), text) << len;
        ASSERT_EQ(c.encrypt(text, true), out) << "in place";
      }
    }).join();
  }
}

// The block under test, padding and all, is made by enciphering it as data.
TEST(Des, WrongPaddingAndLengthsAreRefused) {
  const cipher c("fedcba9876543210");
  const struct {
    std::string block, expected;
  } rows[] = {
      {"4142434445464701", "ABCDEFG"}, {"4142434445030303", "ABCDE"},
      {"0808080808080808", ""},        {"4142434445464709", "failed"},
      {"4142434445464700", "failed"},  {"4142434445030302", "failed"},
      {"41424344450302ff", "failed"},  {"0708080808080808", "failed"},
  };
  for (const auto &row : rows) {
    const std::string sealed = c.encrypt("in front" + from_hex(row.block)).substr(0, 16);
    EXPECT_EQ(c.decrypt(sealed), row.expected == "failed" ? "failed" : "in front" + row.expected)
        << row.block;
  }
  for (const size_t len : {0, 1, 7, 9, 15}) EXPECT_EQ(c.decrypt(std::string(len, 'x')), "failed");

  uint8_t out[16];
  int n = 0;
  EXPECT_EQ(DesEncrypt(&c.des, "x", INT32_MAX, out, &n), -1) << "padded, no int tells its length";
}

TEST(Md5, PublishedVectorsWholeInPiecesAndFromFiles) {
  const struct {
    std::string text, digest;
  } rows[] = {
      // RFC 1321, appendix A.5.
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
       "d174ab98d277d9f5a5611c2c9f419d9f"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"},
      {std::string(1000000, 'a'), "7707d6ae4e027c70eea2a935c2296f21"},
  };
  const Folder folder;
  const std::string path = folder / "file";
  for (const auto &row : rows) {
    uint8_t digest[kMd5Bytes];
    Md5Val(row.text.data(), static_cast<int64_t>(row.text.size()), digest);
    EXPECT_EQ(to_hex(digest, sizeof digest), row.digest);

    md5_context context;
    MD5Init(&context);
    for (size_t at = 0; at < row.text.size(); at += 977) {
      const std::string piece = row.text.substr(at, 977);
      MD5Update(&context, piece.data(), static_cast<int64_t>(piece.size()));
      MD5Update(&context, piece.data(), 0);
    }
    MD5Final(digest, &context);
    EXPECT_EQ(to_hex(digest, sizeof digest), row.digest);

    write_file(path, row.text);
    EXPECT_EQ(file_md5(path.c_str(), digest), 0);
    EXPECT_EQ(to_hex(digest, sizeof digest), row.digest);
  }
  uint8_t untouched[kMd5Bytes] = {42};
  EXPECT_EQ(file_md5("/no/such/file", untouched), -1);
  EXPECT_EQ(file_md5("/", untouched), -1) << "a directory can't be read";
  EXPECT_EQ(untouched[0], 42);
}

TEST(RandomString, DrawsFromTheAlphabetOfItsKind) {
  const std::string signs = "!@#$^*()-=_+{}[];:'<>,?";
  const struct {
    int kind;
    bool digits;
    std::string others;
    size_t characters;  // the whole alphabet turns up
  } rows[] = {{0, false, "", 52},
              {1, true, "", 62},
              {2, true, signs + "/", 86},
              {3, true, signs + "|", 86},
              {4, true, signs + "|", 86}};
  for (const auto &row : rows) {
    std::string text(20001, '\x7f');
    ASSERT_EQ(GetRandomString(text.data(), 20000, row.kind), 0);
    ASSERT_EQ(text.back(), '\x7f') << "no ending zero";
    text.pop_back();
    for (const char c : text) {
      const bool known = std::isalpha(c) || (row.digits && std::isdigit(c)) ||
                         row.others.find(c) != std::string::npos;
      ASSERT_TRUE(known) << row.kind << c;
    }
    EXPECT_EQ(std::set<char>(text.begin(), text.end()).size(), row.characters) << row.kind;
  }
  for (int i = 0; i < 500; ++i) {
    char c = 0, digit = 0;
    GetRandomString(&c, 1, 2);
    GetRandomString(&digit, 1, 5);
    ASSERT_TRUE(std::isalpha(c)) << "a password begins with a letter";
    ASSERT_TRUE(std::isdigit(digit));
  }
}

TEST(RandomString, TheSequenceRestartsInLaterSeconds) {
  char first[16], again[16];
  GetRandomString(first, 1, 1);
  pause_ms(1100);
  GetRandomString(first, sizeof first, 1);
  GetRandomString(again, sizeof again, 1);
  EXPECT_EQ(std::string(first, sizeof first), std::string(again, sizeof again));
}

TEST(RandPool, DrawsOnceItIsFedAndNeverTheSameTwice) {
  const std::string entropy(100, 'e');
  rand_state one, two;
  RandInit(&one);
  const auto draw = [](rand_state *from) {
    uint8_t out[100];
    return GenerateBytes(out, sizeof out, from) == 0 ? to_hex(out, sizeof out) : "";
  };
  for (const uint32_t missing : {256u, 156u, 56u, 0u}) {
    uint32_t needed = 1;
    EXPECT_EQ(RandBytesNeeded(&needed, &one), 0);
    EXPECT_EQ(needed, missing);
    EXPECT_EQ(draw(&one).empty(), missing > 0);
    two = one;
    EXPECT_EQ(RandUpdate(&one, entropy.data(), 100), 0);
  }
  one = two;
  const std::string first = draw(&one);
  EXPECT_EQ(first, draw(&two)) << "the same pool gives the same bytes";
  EXPECT_NE(first, draw(&two));
  EXPECT_NE(first.substr(0, 64), first.substr(64, 64)) << "blocks differ";
  two = one;
  RandMix(&two);
  EXPECT_NE(draw(&one), draw(&two)) << "mixing moves the pool";

  EXPECT_EQ(RandCreate(&one) + RandCreate(&two), 0);
  EXPECT_NE(draw(&one), draw(&two));
  RandFinal(&one);
  EXPECT_EQ(to_hex(one.pool, sizeof one.pool), std::string(2 * sizeof one.pool, '0'));
  EXPECT_EQ(draw(&one), "") << "a wiped pool is to be fed again";
}

}  // namespace
