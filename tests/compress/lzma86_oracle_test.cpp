// The container against an LZMA and branch filter that others wrote (liblzma): each side unpacks
// what the other packed.
#include <gtest/gtest.h>
#include <lzma.h>

#include <cstring>

#include "compress/lzma86.h"
#include "compress/x86_filter.h"
#include "samples.h"

namespace {

constexpr uint32_t kDict = 1 << 16;

/// liblzma's chain for a container with this flag, properties byte, dictionary and unpacked size.
struct Chain {
  lzma_options_lzma lzma{};
  lzma_filter filters[3]{};

  Chain(bool x86, uint8_t props, uint32_t dict, uint64_t size) {
    lzma_lzma_preset(&lzma, 3);
    lzma.dict_size = dict;
    lzma.lc = props % 9;
    lzma.lp = props / 9 % 5;
    lzma.pb = props / 45;
    lzma.ext_flags = 0;
    lzma.ext_size_low = static_cast<uint32_t>(size);
    lzma.ext_size_high = static_cast<uint32_t>(size >> 32);
    lzma_filter *next = filters;
    if (x86) *next++ = {LZMA_FILTER_X86, nullptr};
    *next++ = {LZMA_FILTER_LZMA1EXT, &lzma};
    *next = {LZMA_VLI_UNKNOWN, nullptr};
  }
};

uint64_t little_endian(const uint8_t *p, int bytes) {
  uint64_t value = 0;
  for (int i = 0; i < bytes; ++i) value |= uint64_t{p[i]} << (8 * i);
  return value;
}

Bytes pack(const Bytes &plain, ESzFilterMode mode, int level = 5) {
  Bytes packed(plain.size() * 5 / 4 + 100);
  size_t size = packed.size();
  EXPECT_EQ(Lzma86_Encode(packed.data(), &size, plain.data(), plain.size(), level, kDict, mode), 0);
  packed.resize(size);
  return packed;
}

Bytes oracle_unpack(const Bytes &packed) {
  const uint64_t size = little_endian(&packed[6], 8);
  const auto dict = static_cast<uint32_t>(little_endian(&packed[2], 4));
  const Chain chain(packed[0] == 1, packed[1], dict, size);
  Bytes plain(size + 1);
  size_t in = LZMA86_HEADER_SIZE, out = 0;
  EXPECT_EQ(lzma_raw_buffer_decode(chain.filters, nullptr, packed.data(), &in, packed.size(),
                                   plain.data(), &out, size),
            LZMA_OK);
  EXPECT_EQ(in, packed.size());
  plain.resize(out);
  return plain;
}

Bytes oracle_pack(const Bytes &plain, bool x86, uint8_t props) {
  const Chain chain(x86, props, kDict, plain.size());
  Bytes packed(plain.size() * 5 / 4 + 100);
  packed[0] = x86;
  packed[1] = props;
  for (int i = 0; i < 4; ++i) packed[2 + i] = static_cast<uint8_t>(kDict >> (8 * i));
  const uint64_t size = plain.size();
  for (int i = 0; i < 8; ++i) packed[6 + i] = static_cast<uint8_t>(size >> (8 * i));
  size_t out = LZMA86_HEADER_SIZE;
  EXPECT_EQ(lzma_raw_buffer_encode(chain.filters, nullptr, plain.data(), plain.size(),
                                   packed.data(), &out, packed.size()),
            LZMA_OK);
  packed.resize(out);
  return packed;
}

Bytes unpack(const Bytes &packed) {
  uint64_t stored = 0;
  EXPECT_EQ(Lzma86_GetUnpackSize(packed.data(), packed.size(), &stored), 0);
  Bytes plain(stored + 1);
  size_t room = stored, used = packed.size();
  EXPECT_EQ(Lzma86_Decode(plain.data(), &room, packed.data(), &used), 0);
  EXPECT_EQ(used, packed.size());
  plain.resize(room);
  return plain;
}

}  // namespace

TEST(Lzma86Oracle, UnpacksWhatWePack) {
  for (const Sample &sample : samples()) {
    SCOPED_TRACE(sample.name);
    Bytes by_mode[3];
    for (const ESzFilterMode mode : {SZ_FILTER_NO, SZ_FILTER_YES, SZ_FILTER_AUTO}) {
      by_mode[mode] = pack(sample.bytes, mode);
      ASSERT_EQ(oracle_unpack(by_mode[mode]), sample.bytes) << "mode " << mode;
    }
    // The automatic mode is the better of the two, to the byte; the unfiltered one when they tie.
    const bool filtered = by_mode[SZ_FILTER_YES].size() < by_mode[SZ_FILTER_NO].size();
    EXPECT_TRUE(by_mode[SZ_FILTER_AUTO] == by_mode[filtered ? SZ_FILTER_YES : SZ_FILTER_NO]);
    EXPECT_TRUE(filtered || sample.name != "calls");
  }
}

TEST(Lzma86Oracle, WeUnpackWhatItPacks) {
  // lc 3, lp 0, pb 2 is everybody's default; the others are the corners that liblzma can write.
  for (const uint8_t props : {93, 0, 4, 4 * 9, (4 * 5 + 1) * 9 + 3}) {
    for (const Sample &sample : samples()) {
      for (const bool x86 : {false, true}) {
        SCOPED_TRACE(sample.name + (x86 ? " filtered, properties " : " plain, properties ") +
                     std::to_string(props));
        ASSERT_EQ(unpack(oracle_pack(sample.bytes, x86, props)), sample.bytes);
      }
    }
  }
}

TEST(Lzma86Oracle, FilterAgreesOnOverlappingBranches) {
  uint64_t branches = 0;
  for (uint32_t seed = 0; seed < 400; ++seed) {
    const Bytes plain = branch_noise(seed < 200 ? seed / 5 : 500 + seed, seed);
    ASSERT_EQ(unpack(oracle_pack(plain, true, 93)), plain) << seed;
    ASSERT_EQ(oracle_unpack(pack(plain, SZ_FILTER_YES, 0)), plain) << seed;
    Bytes copy = plain;
    branches += compress::x86_encode(copy);
  }
  EXPECT_GT(branches, 5'000u);  // else the inputs had nothing to disagree about
}

TEST(Lzma86Oracle, EndMarkMustStandAtTheStoredSize) {
  const Bytes plain = text(3'000);
  Chain chain(false, 93, kDict, plain.size());
  chain.filters[0].id = LZMA_FILTER_LZMA1;  // the kind that ends with a mark
  Bytes packed = oracle_pack(plain, false, 93);
  packed.resize(plain.size() + 100);
  size_t size = LZMA86_HEADER_SIZE;
  ASSERT_EQ(lzma_raw_buffer_encode(chain.filters, nullptr, plain.data(), plain.size(),
                                   packed.data(), &size, packed.size()),
            LZMA_OK);
  packed.resize(size);
  EXPECT_EQ(unpack(packed), plain);

  for (const size_t stored : {plain.size() - 1, plain.size() + 1}) {
    packed[6] = static_cast<uint8_t>(stored);
    packed[7] = static_cast<uint8_t>(stored >> 8);
    Bytes out(stored);
    size_t room = stored, used = packed.size();
    EXPECT_EQ(Lzma86_Decode(out.data(), &room, packed.data(), &used), 1) << stored;
    EXPECT_EQ(room, 0u);
  }
}
