// A program of frame operations, one per three input bytes, against the same program on a string.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "adif/framecodec.h"
#include "adif/frameio.h"
#include "adif/framesearch.h"
#include "adif/framext.h"

namespace {

void require(bool holds) {
  if (!holds) std::abort();
}

bool same(const frame_t *frame, const std::string &text) {
  return frameLength(frame) == static_cast<int>(text.size()) &&
         (text.empty() || std::memcmp(bytePointer(frame), text.data(), text.size()) == 0);
}

/// The frame and its model; offset and count are any bytes, `length` bounds what the model gets.
struct machine {
  frame_t *frame = nullptr;
  std::string text;

  size_t clip(size_t offset, size_t n) const { return std::min(n, text.size() - offset); }
  void step(uint8_t what, size_t offset, size_t n);
};

void machine::step(uint8_t what, size_t offset, size_t n) {
  static const std::string source(256, 's');
  const int at = static_cast<int>(offset);
  const int count = static_cast<int>(n);
  const bool fits = offset <= text.size();
  switch (what % 12) {
    case 0:
      putnLastBytes(&frame, source.data(), count);
      text.append(source, 0, n);
      break;
    case 1:
      putLastByte(&frame, static_cast<uint8_t>(n));
      text.push_back(static_cast<char>(n));
      break;
    case 2:
      putFirstByte(&frame, static_cast<uint8_t>(n));
      text.insert(text.begin(), static_cast<char>(n));
      break;
    case 3:
      require(insertBytes(&frame, at, source.data(), count) == (fits ? count : -1));
      if (fits) text.insert(offset, source, 0, n);
      break;
    case 4:
      require(deleteMidBytes(frame, at, count) ==
              (frame && fits ? static_cast<int>(clip(offset, n)) : -1));
      if (fits) text.erase(offset, n);
      break;
    case 5:
      deleteRearBytes(frame, count);
      text.resize(text.size() - clip(0, n));
      break;
    case 6:
      frameGrow(&frame, count);
      break;
    case 7:
      frameGrowHead(&frame, count);
      break;
    case 8:  // its own bytes
      if (fits && clip(offset, n) > 0) {
        putnLastBytes(&frame, bytePointer(frame) + offset, static_cast<int>(clip(offset, n)));
        text += text.substr(offset, n);
      }
      break;
    case 9:
      require(replaceBytes(&frame, at, count, "xyz", 3) == (fits ? 3 : -1));
      if (fits) text.replace(offset, n, "xyz");
      break;
    case 10: {
      const auto byte = static_cast<uint8_t>(n);
      require(searchChar(frame, at, byte) ==
              (frame ? static_cast<int>(text.find(static_cast<char>(byte), offset)) : -1));
      break;
    }
    default: {
      uint32_t value = 0;
      const auto length = text.size();
      const int added = appendUintvar(&frame, static_cast<uint32_t>(offset * n * n * n));
      require(peekUintvar(frame, static_cast<int>(length), &value) == added);
      require(value == static_cast<uint32_t>(offset * n * n * n));
      deleteRearBytes(frame, added);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  constexpr size_t longest = 4096;
  machine under_test;
  for (; size >= 3 && under_test.text.size() < longest; data += 3, size -= 3) {
    under_test.step(data[0], data[1], data[2]);
    require(same(under_test.frame, under_test.text));
    require(traverseCheck(under_test.frame) == (under_test.frame ? 1 : 0));
  }
  deleteFrame(&under_test.frame);
  return 0;
}
