// The container against an LZMA and branch filter that others wrote (liblzma): each side unpacks
// what the other packed. Then the buffer calls: arguments, bounds and hostile containers.
#include <gtest/gtest.h>
#include <lzma.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "compress/buffer_7z.h"
#include "compress/lzma86.h"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr uint32_t kDict = 1 << 16;
constexpr size_t kHeader = LZMA86_HEADER_SIZE, kSizeAt = 6, kTextSize = 4'000;

Bytes with_number(Bytes packed, size_t at, int bytes, uint64_t number) {
  for (int i = 0; i < bytes; ++i) packed.at(at + i) = static_cast<uint8_t>(number >> (8 * i));
  return packed;
}

Bytes with_size(const Bytes &packed, uint64_t size) {
  return with_number(packed, kSizeAt, 8, size);
}

Bytes text(size_t size) {
  std::string lines;
  for (int line = 0; lines.size() < size; ++line)
    lines += "line " + std::to_string(line * 7919) + " of a text without branches\n";
  return Bytes(lines.begin(), lines.begin() + static_cast<ptrdiff_t>(size));
}

Bytes call_code(size_t calls) {
  std::mt19937 random(7);
  Bytes code;
  for (size_t i = 0; i < calls; ++i) {
    for (unsigned n = random() % 12; n > 0; --n) code.push_back(static_cast<uint8_t>(random()));
    const uint32_t target = 0x1000 * (1 + random() % 8);
    const size_t next = code.size() + 5;
    code.push_back(0xE8);
    code.resize(next);
    code = with_number(std::move(code), next - 4, 4, target - next);
  }
  return code;
}

Bytes branch_noise(size_t size, uint32_t seed) {
  static constexpr uint8_t alphabet[] = {0xE8, 0xE9, 0x00, 0xFF, 0xFE, 0x01, 0x00, 0xFF};
  std::mt19937 random(seed);
  Bytes bytes(size);
  for (uint8_t &byte : bytes) {
    const uint32_t draw = static_cast<uint32_t>(random());
    byte = draw % 9 == 8 ? static_cast<uint8_t>(draw >> 8) : alphabet[draw % 9];
  }
  return bytes;
}

// Text, code, runs, and branches that overlap in sizes around the filter's look-ahead and above it.
std::vector<Bytes> samples() {
  std::vector<Bytes> all = {text(70'000), call_code(5'000), branch_noise(100'000, 500),
                            Bytes(300'000), Bytes(999, 0xE8)};
  for (uint32_t seed = 0; seed < 300; ++seed)
    all.push_back(branch_noise(seed < 150 ? seed / 5 : 350 + seed, seed));
  return all;
}

uint64_t number_at(const Bytes &packed, size_t at, int bytes) {
  uint64_t value = 0;
  for (int i = 0; i < bytes; ++i) value |= uint64_t{packed.at(at + i)} << (8 * i);
  return value;
}

/// liblzma's chain for a container that begins with this header.
struct Chain {
  lzma_options_lzma lzma{};
  lzma_filter filters[3]{};
  uint64_t size;

  explicit Chain(const Bytes &header) : size(number_at(header, kSizeAt, 8)) {
    lzma_lzma_preset(&lzma, 3);
    lzma.dict_size = static_cast<uint32_t>(number_at(header, 2, 4));
    lzma.lc = header[1] % 9;
    lzma.lp = header[1] / 9 % 5;
    lzma.pb = header[1] / 45;
    lzma.ext_size_low = static_cast<uint32_t>(size);
    lzma_filter *next = filters;
    if (header[0] == 1) *next++ = {LZMA_FILTER_X86, nullptr};
    *next++ = {LZMA_FILTER_LZMA1EXT, &lzma};
    *next = {LZMA_VLI_UNKNOWN, nullptr};
  }
};

Bytes oracle_unpack(const Bytes &packed) {
  const Chain chain(packed);
  Bytes plain(chain.size + 1);
  size_t in = kHeader, out = 0;
  EXPECT_EQ(lzma_raw_buffer_decode(chain.filters, nullptr, packed.data(), &in, packed.size(),
                                   plain.data(), &out, chain.size),
            LZMA_OK);
  EXPECT_EQ(in, packed.size());
  plain.resize(out);
  return plain;
}

/// `marked`: the stream ends with a mark.
Bytes oracle_pack(const Bytes &plain, bool x86, uint8_t props, bool marked = false) {
  Bytes packed(plain.size() * 5 / 4 + 100);
  packed[0] = x86;
  packed[1] = props;
  packed = with_size(with_number(packed, 2, 4, kDict), plain.size());
  Chain chain(packed);
  if (marked) chain.filters[0].id = LZMA_FILTER_LZMA1;
  size_t out = kHeader;
  EXPECT_EQ(lzma_raw_buffer_encode(chain.filters, nullptr, plain.data(), plain.size(),
                                   packed.data(), &out, packed.size()),
            LZMA_OK);
  packed.resize(out);
  return packed;
}

Bytes pack(const Bytes &plain, ESzFilterMode mode = SZ_FILTER_AUTO, int level = 5) {
  Bytes packed(plain.size() * 5 / 4 + 100);
  size_t size = packed.size();
  EXPECT_EQ(Lzma86_Encode(packed.data(), &size, plain.data(), plain.size(), level, kDict, mode), 0);
  packed.resize(size);
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
  size_t length = 12345;
  const std::unique_ptr<void, decltype([](void *p) { std::free(p); })> copy(
      buffer_un7z_auto(&length, packed.data(), packed.size()));
  EXPECT_TRUE(length == room && std::memcmp(copy.get(), plain.data(), room) == 0);
  return plain;
}

/// Result of unpacking a container of kTextSize bytes into `room` bytes of a heap block of just
/// that size (sanitizers watch its end). fuzz/lzma86 tries the call that takes its own memory.
int unpack_result(const Bytes &packed, size_t room) {
  const std::unique_ptr<uint8_t[]> dst(new uint8_t[room]);
  size_t length = room;
  const int result = buffer_un7z(dst.get(), &length, Bytes(packed).data(), packed.size());
  EXPECT_EQ(length, result == 0 ? kTextSize : 0);
  return result;
}

}  // namespace

TEST(Lzma86Oracle, EachUnpacksWhatTheOtherPacks) {
  int filtered = 0;
  const std::vector<Bytes> all = samples();
  for (const Bytes &sample : all) {
    SCOPED_TRACE(&sample - all.data());
    Bytes by_mode[3];
    for (const ESzFilterMode mode : {SZ_FILTER_NO, SZ_FILTER_YES, SZ_FILTER_AUTO}) {
      by_mode[mode] = pack(sample, mode);
      ASSERT_EQ(oracle_unpack(by_mode[mode]), sample) << "mode " << mode;
      ASSERT_EQ(unpack(by_mode[mode]), sample) << "mode " << mode;
    }
    // The automatic mode is the better of the two, to the byte; the unfiltered one when they tie.
    const bool better = by_mode[SZ_FILTER_YES].size() < by_mode[SZ_FILTER_NO].size();
    EXPECT_TRUE(by_mode[SZ_FILTER_AUTO] == by_mode[better ? SZ_FILTER_YES : SZ_FILTER_NO]);
    filtered += better;
    // lc 3, lp 0, pb 2 is everybody's default; the others are the corners that liblzma can write.
    for (const uint8_t props : {93, 0, 4, 4 * 9, (4 * 5 + 1) * 9 + 3}) {
      for (const bool x86 : {false, true})
        ASSERT_EQ(unpack(oracle_pack(sample, x86, props)), sample) << x86 << ' ' << int{props};
    }
  }
  EXPECT_GT(filtered, 0);
}

TEST(Buffer7z, PacksIntoExactlyTheRoomThatItNeeds) {
  for (const Bytes &plain : {text(kTextSize), call_code(2'000), Bytes{1}}) {
    const Bytes packed = pack(plain);
    for (const bool fits : {false, true}) {
      Bytes dst(packed.size() - (fits ? 0 : 1));
      size_t size = dst.size();
      EXPECT_EQ(buffer_7z(dst.data(), &size, plain.data(), plain.size(), 5, kDict), fits ? 0 : 7);
      EXPECT_EQ(size, fits ? dst.size() : 0);
      EXPECT_TRUE(!fits || dst == packed);
    }
  }
}

TEST(Buffer7z, StopsWithinASlice) {
  const Bytes plain(2'000'000, 7), packed = pack(plain);
  Bytes out(plain.size());
  for (int asked_until = 1; asked_until <= 9; ++asked_until) {
    size_t length = out.size();
    int asked = 0;
    const auto stop = [&] { return ++asked == asked_until; };
    const int result = buffer_un7z_until(out.data(), &length, packed.data(), packed.size(), stop);
    EXPECT_EQ(result, asked_until <= 8 ? 10 : 0);
    EXPECT_EQ(length, asked_until <= 8 ? 0 : plain.size());
    EXPECT_EQ(asked, std::min(asked_until, 8)) << "once for each 256 KiB";
  }
  EXPECT_EQ(out, plain);
}

TEST(Buffer7z, HostileContainers) {
  constexpr size_t n = kTextSize;
  const Bytes good = pack(text(n)), marked = oracle_pack(text(n), false, 93, true);
  Bytes longer = good;
  longer.insert(longer.end(), 100, 0xAA);
  EXPECT_EQ(unpack(marked), text(n));

  const struct {
    const char *name;
    Bytes packed;
    size_t room;
    int result;
  } cases[] = {
      {"room to spare", good, n + 100, 0},
      {"bytes behind the stream", longer, n, 0},
      {"room one short", good, n - 1, 7},
      {"no room", good, 0, 7},
      {"claims nothing", with_size(good, 0), n, 1},
      {"claims one byte less", with_size(good, n - 1), n, 1},
      {"claims one byte more", with_size(good, n + 1), n + 1, 6},
      {"claims one byte more than the room", with_size(good, n + 1), n, 7},
      {"claims 4 GiB and its size", with_size(good, (uint64_t{1} << 32) + n), n, 7},
      {"claims an unknown size", with_size(good, UINT64_MAX), n, 7},
      {"end mark behind the claimed size", with_size(marked, n - 1), n, 1},
      {"end mark before the claimed size", with_size(marked, n + 1), n + 1, 1},
      {"filter flag 2", with_number(good, 0, 1, 2), n, 4},
      {"properties out of range", with_number(good, 1, 1, 9 * 5 * 5), n, 4},
      {"first stream byte not zero", with_number(good, kHeader, 1, 1), n, 1},
      {"damaged stream", with_number(good, kHeader + 1, 1, good[kHeader + 1] ^ 0xFF), n, 1},
  };
  for (const auto &c : cases) EXPECT_EQ(unpack_result(c.packed, c.room), c.result) << c.name;

  size_t length = 0;
  EXPECT_EQ(buffer_un7z_auto(&length, good.data(), good.size(), n - 1), nullptr);
  const Bytes huge = with_size(good, kUn7zAutoMax + 1);
  EXPECT_EQ(buffer_un7z_auto(&length, huge.data(), huge.size()), nullptr);
  for (length = 1; length < good.size(); ++length) {
    const Bytes cut(good.begin(), good.begin() + static_cast<ptrdiff_t>(length));
    ASSERT_EQ(unpack_result(cut, n), 6) << length;
  }
}
