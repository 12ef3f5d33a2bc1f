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
#include "compress/x86_filter.h"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr uint32_t kDict = 1 << 16;
constexpr size_t kHeader = LZMA86_HEADER_SIZE, kSizeAt = 6, kTextSize = 4'000;

struct Sample {
  std::string name;
  Bytes bytes;
};

Bytes text(size_t size) {
  std::string lines;
  for (int line = 0; lines.size() < size; ++line) {
    lines += "line " + std::to_string(line * 7919) + " of a text without branches\n";
  }
  lines.resize(size);
  return Bytes(lines.begin(), lines.end());
}

Bytes call_code(size_t calls) {
  std::mt19937 random(7);
  Bytes code;
  for (size_t i = 0; i < calls; ++i) {
    for (unsigned n = random() % 12; n > 0; --n) code.push_back(static_cast<uint8_t>(random()));
    const uint32_t target = 0x1000 * (1 + random() % 8);
    const uint32_t distance = target - static_cast<uint32_t>(code.size() + 5);
    code.push_back(0xE8);
    for (int shift = 0; shift < 32; shift += 8) {
      code.push_back(static_cast<uint8_t>(distance >> shift));
    }
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

// Text, code, noise, runs and nothing, in sizes around the filter's look-ahead and far above it.
std::vector<Sample> samples() {
  std::vector<Sample> all = {{"text", text(70'000)},
                             {"zeros", Bytes(300'000)},
                             {"calls", call_code(5'000)},
                             {"branch noise", branch_noise(100'000, 2)},
                             {"opcodes", Bytes(999, 0xE8)}};
  for (size_t size = 0; size <= 14; ++size) {
    all.push_back({"noise of " + std::to_string(size), branch_noise(size, 3)});
    Bytes calls = call_code(3);
    calls.resize(size);
    all.push_back({"calls of " + std::to_string(size), calls});
  }
  return all;
}

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

Bytes with_number(Bytes packed, size_t at, int bytes, uint64_t number) {
  for (int i = 0; i < bytes; ++i) packed.at(at + i) = static_cast<uint8_t>(number >> (8 * i));
  return packed;
}

Bytes with_size(const Bytes &packed, uint64_t size) {
  return with_number(packed, kSizeAt, 8, size);
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
  size_t in = kHeader, out = 0;
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
  packed = with_size(with_number(packed, 2, 4, kDict), plain.size());
  size_t out = kHeader;
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
  size_t length = 12345;
  const std::unique_ptr<void, decltype([](void *p) { std::free(p); })> copy(
      buffer_un7z_auto(&length, packed.data(), packed.size()));
  EXPECT_TRUE(length == room && std::memcmp(copy.get(), plain.data(), room) == 0);
  return plain;
}

Bytes with_byte(const Bytes &packed, size_t at, uint8_t value) {
  return with_number(packed, at, 1, value);
}

/// Result of unpacking a container of kTextSize bytes into `room` bytes of a heap block of just
/// that size (sanitizers watch its end).
int unpack_result(const Bytes &packed, size_t room) {
  const std::unique_ptr<uint8_t[]> dst(new uint8_t[room]);
  const std::unique_ptr<uint8_t[]> src(new uint8_t[packed.size()]);
  std::copy(packed.begin(), packed.end(), src.get());
  size_t length = room;
  const int result = buffer_un7z(dst.get(), &length, src.get(), packed.size());
  EXPECT_EQ(length, result == 0 ? kTextSize : 0);
  return result;
}

}  // namespace

TEST(Lzma86Oracle, UnpacksWhatWePack) {
  for (const Sample &sample : samples()) {
    SCOPED_TRACE(sample.name);
    Bytes by_mode[3];
    for (const ESzFilterMode mode : {SZ_FILTER_NO, SZ_FILTER_YES, SZ_FILTER_AUTO}) {
      by_mode[mode] = pack(sample.bytes, mode);
      ASSERT_EQ(oracle_unpack(by_mode[mode]), sample.bytes) << "mode " << mode;
      ASSERT_EQ(unpack(by_mode[mode]), sample.bytes) << "mode " << mode;
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
  size_t size = kHeader;
  ASSERT_EQ(lzma_raw_buffer_encode(chain.filters, nullptr, plain.data(), plain.size(),
                                   packed.data(), &size, packed.size()),
            LZMA_OK);
  packed.resize(size);
  EXPECT_EQ(unpack(packed), plain);

  for (const size_t stored : {plain.size() - 1, plain.size() + 1}) {
    packed = with_size(packed, stored);
    Bytes out(stored);
    size_t room = stored, used = packed.size();
    EXPECT_EQ(Lzma86_Decode(out.data(), &room, packed.data(), &used), 1) << stored;
    EXPECT_EQ(room, 0u);
  }
}

TEST(Buffer7z, PacksIntoExactlyTheRoomThatItNeeds) {
  for (const Bytes &plain : {text(kTextSize), call_code(2'000), Bytes{1}}) {
    const Bytes packed = pack(plain, SZ_FILTER_AUTO);
    for (const size_t room : {size_t{0}, kHeader - 1, kHeader, packed.size() - 1, packed.size()}) {
      const std::unique_ptr<uint8_t[]> dst(new uint8_t[room]);
      size_t size = room;
      const bool fits = room == packed.size();
      EXPECT_EQ(buffer_7z(dst.get(), &size, plain.data(), plain.size(), 5, kDict), fits ? 0 : 7);
      EXPECT_EQ(size, fits ? room : 0);
      if (fits) {
        EXPECT_EQ(unpack(Bytes(dst.get(), dst.get() + size)), plain);
      }
    }
  }
}

TEST(Buffer7z, RefusesMissingArguments) {
  const Bytes packed = pack(text(kTextSize), SZ_FILTER_AUTO);
  uint8_t out[16];
  size_t room = sizeof out;
  uint64_t size = 0;
  const uint8_t *const src = packed.data();
  const size_t n = packed.size();
  for (int result :
       {buffer_7z(nullptr, &room, src, 1, 5, kDict), buffer_7z(out, nullptr, src, 1, 5, kDict),
        buffer_7z(out, &room, nullptr, 0, 5, kDict), buffer_un7z_size(nullptr, n, &size),
        buffer_un7z_size(src, n, nullptr), buffer_un7z_size(src, 0, &size),
        buffer_un7z(nullptr, &room, src, n), buffer_un7z(out, nullptr, src, n),
        buffer_un7z(out, &room, nullptr, n), buffer_un7z(out, &room, src, 0)})
    EXPECT_EQ(result, 5);
  EXPECT_EQ(buffer_un7z_auto(nullptr, src, n), nullptr);
  EXPECT_EQ(buffer_un7z_auto(&room, nullptr, n), nullptr);
  EXPECT_EQ(buffer_un7z_auto(&room, src, 0), nullptr);
  EXPECT_EQ(room, sizeof out);
}

TEST(Buffer7z, HostileContainers) {
  constexpr size_t n = kTextSize;
  const Bytes good = pack(text(n), SZ_FILTER_AUTO);
  Bytes longer = good;
  longer.insert(longer.end(), 100, 0xAA);

  const struct {
    const char *name;
    Bytes packed;
    size_t room;
    int result;
  } cases[] = {
      {"as packed", good, n, 0},
      {"room to spare", good, n + 100, 0},
      {"bytes behind the stream", longer, n, 0},
      {"room one short", good, n - 1, 7},
      {"no room", good, 0, 7},
      {"claims nothing", with_size(good, 0), n, 1},
      {"claims one byte less", with_size(good, n - 1), n, 1},
      {"claims one byte more", with_size(good, n + 1), n + 1, 6},
      {"claims one byte more than the room", with_size(good, n + 1), n, 7},
      {"claims 4 GiB", with_size(good, uint64_t{1} << 32), n, 7},
      {"claims 4 GiB and its size", with_size(good, (uint64_t{1} << 32) + n), n, 7},
      {"claims 2^63", with_size(good, uint64_t{1} << 63), n, 7},
      {"claims an unknown size", with_size(good, UINT64_MAX), n, 7},
      {"filter flag 2", with_byte(good, 0, 2), n, 4},
      {"filter flag 255", with_byte(good, 0, 255), n, 4},
      {"properties out of range", with_byte(good, 1, 9 * 5 * 5), n, 4},
      {"first stream byte not zero", with_byte(good, kHeader, 1), n, 1},
      {"damaged stream", with_byte(good, kHeader + 1, good[kHeader + 1] ^ 0xFF), n, 1},
  };
  for (const auto &c : cases) EXPECT_EQ(unpack_result(c.packed, c.room), c.result) << c.name;

  for (size_t length = 1; length < good.size(); ++length) {
    const Bytes cut(good.begin(), good.begin() + static_cast<ptrdiff_t>(length));
    ASSERT_EQ(unpack_result(cut, n), 6) << length;
    uint64_t size = 77;
    ASSERT_EQ(buffer_un7z_size(cut.data(), length, &size), length < kHeader ? 6 : 0);
    ASSERT_EQ(size, length < kHeader ? 77 : n);
  }
}

TEST(Buffer7z, AutoFailures) {
  constexpr size_t n = kTextSize;
  const Bytes good = pack(text(n), SZ_FILTER_AUTO);
  const struct {
    const char *name;
    Bytes packed;
    uint64_t bound;
    bool address;  // a decoding failure returns the address of the buffer that it freed
  } cases[] = {
      {"one byte above the bound", good, n - 1, false},
      {"claims 64 MiB and a byte", with_size(good, kUn7zAutoMax + 1), kUn7zAutoMax, false},
      {"claims 2^63", with_size(good, uint64_t{1} << 63), kUn7zAutoMax, false},
      {"short header", Bytes(good.begin(), good.begin() + kHeader - 1), kUn7zAutoMax, false},
      {"claims a byte more", with_size(good, n + 1), kUn7zAutoMax, true},
      {"filter flag 2", with_byte(good, 0, 2), kUn7zAutoMax, true},
      {"header alone", Bytes(good.begin(), good.begin() + kHeader), kUn7zAutoMax, true},
  };
  for (const auto &c : cases) {
    size_t length = 0;
    const void *const p = buffer_un7z_auto(&length, c.packed.data(), c.packed.size(), c.bound);
    EXPECT_EQ(p != nullptr, c.address) << c.name;
    EXPECT_EQ(length, 0u) << c.name;
  }
}
