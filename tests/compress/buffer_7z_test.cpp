// The buffer calls: arguments, bounds and hostile containers.
#include "compress/buffer_7z.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

#include "samples.h"

namespace {

constexpr uint32_t kDict = 1 << 16;
constexpr size_t kHeader = 14;
constexpr size_t kSizeAt = 6;
constexpr size_t kTextSize = 4'000;

struct Free {
  void operator()(void *p) const { std::free(p); }
};

Bytes pack(const Bytes &plain) {
  Bytes packed(plain.size() * 5 / 4 + 100);
  size_t size = packed.size();
  const uint8_t *const src = plain.empty() ? packed.data() : plain.data();  // never null
  EXPECT_EQ(buffer_7z(packed.data(), &size, src, plain.size(), 5, kDict), 0);
  packed.resize(size);
  return packed;
}

Bytes with_size(Bytes packed, uint64_t size) {
  for (int i = 0; i < 8; ++i) packed.at(kSizeAt + i) = static_cast<uint8_t>(size >> (8 * i));
  return packed;
}

Bytes with_byte(Bytes packed, size_t at, uint8_t value) {
  packed.at(at) = value;
  return packed;
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

TEST(Buffer7z, AutoReturnsACopyOfWhatWasPacked) {
  for (const Sample &sample : samples()) {
    SCOPED_TRACE(sample.name);
    const Bytes packed = pack(sample.bytes);
    size_t length = 12345;
    const std::unique_ptr<void, Free> copy(buffer_un7z_auto(&length, packed.data(), packed.size()));
    ASSERT_TRUE(copy);
    const auto *bytes = static_cast<const uint8_t *>(copy.get());
    EXPECT_EQ(Bytes(bytes, bytes + length), sample.bytes);
  }
}

TEST(Buffer7z, PacksIntoExactlyTheRoomThatItNeeds) {
  for (const Bytes &plain : {text(kTextSize), call_code(2'000), Bytes{1}}) {
    const Bytes packed = pack(plain);
    for (const size_t room : {size_t{0}, kHeader - 1, kHeader, packed.size() - 1, packed.size()}) {
      const std::unique_ptr<uint8_t[]> dst(new uint8_t[room]);
      size_t size = room;
      const bool fits = room == packed.size();
      EXPECT_EQ(buffer_7z(dst.get(), &size, plain.data(), plain.size(), 5, kDict), fits ? 0 : 7);
      EXPECT_EQ(size, fits ? room : 0);
    }
  }
}

TEST(Buffer7z, RefusesMissingArguments) {
  const Bytes packed = pack(text(kTextSize));
  uint8_t out[16];
  size_t room = sizeof out;
  uint64_t size = 0;
  const uint8_t *const src = packed.data();

  EXPECT_EQ(buffer_7z(nullptr, &room, src, 1, 5, kDict), 5);
  EXPECT_EQ(buffer_7z(out, nullptr, src, 1, 5, kDict), 5);
  EXPECT_EQ(buffer_7z(out, &room, nullptr, 0, 5, kDict), 5);
  EXPECT_EQ(buffer_un7z_size(nullptr, packed.size(), &size), 5);
  EXPECT_EQ(buffer_un7z_size(src, packed.size(), nullptr), 5);
  EXPECT_EQ(buffer_un7z_size(src, 0, &size), 5);
  EXPECT_EQ(buffer_un7z(nullptr, &room, src, packed.size()), 5);
  EXPECT_EQ(buffer_un7z(out, nullptr, src, packed.size()), 5);
  EXPECT_EQ(buffer_un7z(out, &room, nullptr, packed.size()), 5);
  EXPECT_EQ(buffer_un7z(out, &room, src, 0), 5);
  EXPECT_EQ(buffer_un7z_auto(nullptr, src, packed.size()), nullptr);
  EXPECT_EQ(buffer_un7z_auto(&room, nullptr, packed.size()), nullptr);
  EXPECT_EQ(buffer_un7z_auto(&room, src, 0), nullptr);
  EXPECT_EQ(room, sizeof out);
}

TEST(Buffer7z, HostileContainers) {
  constexpr size_t n = kTextSize;
  const Bytes good = pack(text(n));
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
  const Bytes good = pack(text(n));
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
