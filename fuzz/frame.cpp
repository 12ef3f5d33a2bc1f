// A program of frame operations, one per three input bytes, against the same program on a string.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include "adif/framecodec.h"
#include "adif/frameio.h"
#include "adif/framesearch.h"
#include "adif/framext.h"
#include "adif/kalloc.h"
#include "require.h"

namespace {

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
  void lack_memory(int at);
};

/// Whatever needs memory tells that there is none, and the content stays.
void machine::lack_memory(int at) {
  constexpr int much = 1 << 20;
  static const std::string source(much, 's');
  static frame_t *other = nullptr;
  if (other == nullptr) putnLastBytes(&other, source.data(), much);
  adif::fail_allocations(1, adif::kFailForGood);
  require(putnLastBytes(&frame, source.data(), much) == -1);
  require(putnLastBytes(&frame, nullptr, much) == -1 && appendnBytes(&frame, 'x', much) == -1);
  require(insertBytes(&frame, at, source.data(), much) == -1);
  require(frameGrow(&frame, much) == -1 && frameGrowHead(&frame, much) == -1);
  require(frameGrowTo(&frame, 1 << 24) == -1 && !copyFrame(frame) && !splitFrame(frame, 0));
  const int taken_over = frame == nullptr ? much : -1;
  require(combineFrame(&frame, &other) == taken_over);
  if (other == nullptr) std::swap(frame, other);
  if (!text.empty()) require(insertBytes(&frame, 0, bytePointer(frame), 1) == -1);
  const int length = frameLength(frame);
  if (frameRemaining(frame) < length)
    require(putnLastBytes(&frame, bytePointer(frame), length) == -1);
  if (frame == nullptr) {
    require(putLastByte(&frame, 'x') == -1 && putFirstByte(&frame, 'x') == -1);
    require(putnLastBytes(&frame, "x", 1) == -1 && attachBuffer(&frame, &other, 1) == -1);
  }
  if (putLastByte(&frame, 'x') == 1) {
    text.push_back('x');
  } else {
    require(frameRemaining(frame) == 0);
  }
  adif::fail_allocations(0);
}

void machine::step(uint8_t what, size_t offset, size_t n) {
  static const std::string source(256, 's');
  const int at = static_cast<int>(offset);
  const int count = static_cast<int>(n);
  const bool fits = offset <= text.size();
  switch (what % 24) {
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
    case 11:
      require(appendnBytes(&frame, 'n', count) == count);
      text.append(n, 'n');
      break;
    case 12: {  // behind a seam, and together again
      frame_t *rear = splitFrame(frame, at);
      require((rear != nullptr) == (frame != nullptr && fits));
      if (rear == nullptr) break;
      require(frameLength(frame) == at);
      require(combineFrame(&frame, &rear) == static_cast<int>(text.size() - offset));
      require(rear == nullptr);
      break;
    }
    case 13: {
      frame_t *copy = copyFrame(frame);
      require(frameCompare(copy, frame) == 0 && same(copy, text));
      if (getLastByte(copy) >= 0) require(frameCompare(copy, frame) < 0);
      deleteFrame(&frame);
      require(combineFrame(&frame, &copy) == frameLength(frame));
      text.resize(text.empty() ? 0 : text.size() - 1);
      break;
    }
    case 14: {
      std::string out(n + 1, '\0');
      const int taken = getnBytes(frame, at, out.data(), count);
      require(taken == (frame && fits ? static_cast<int>(clip(offset, n)) : -1));
      if (taken < 1) break;
      require(text.compare(offset, n, out, 0, static_cast<size_t>(taken)) == 0);
      text.erase(offset, n);
      break;
    }
    case 15:
      require(getFirstByte(frame) == (text.empty() ? -1 : static_cast<uint8_t>(text[0])));
      text.erase(0, 1);
      break;
    case 16: {
      const bool there = frame && n <= text.size();
      require(readnBytes(frame, nullptr, count) == (there ? 0 : frame ? -100 : -1));
      if (there) text.erase(0, n);
      break;
    }
    case 17: {
      const int set = setnBytes(frame, at, source.data(), count);
      const bool inside = offset < text.size() && n > 0;
      require(set == (inside ? static_cast<int>(clip(offset, n)) : -1));
      if (inside) text.replace(offset, clip(offset, n), source, 0, clip(offset, n));
      break;
    }
    case 18:
      require(writeByte(&frame, at, 'w') == (fits ? 1 : -1));
      if (fits) text.resize(std::max(text.size(), offset + 1)), text[offset] = 'w';
      break;
    case 19:
      require(truncateFrame(frame, count) == (frame ? static_cast<int>(clip(0, n)) : -1));
      text.resize(clip(0, n));
      break;
    case 20:
      require(frameGrowTo(&frame, count * 8) == 0 && frameSize(frame) >= count * 8);
      break;
    case 21:
      require(appendFrameBytes(&frame, frame, at, count) ==
              (fits ? static_cast<int>(clip(offset, n)) : -1));
      if (fits) text += text.substr(offset, n);
      break;
    case 22:  // the array and the content of another owner
      if (frame == nullptr) break;
      require(emptyFrame(frame) == 0 &&
              attachBuffer(&frame, kzalloc_dbg(count + 1), count) == count);
      require(frameSetLength(frame, count + 1) == -1 &&
              frameSetLength(frame, count / 2) == count / 2);
      text.assign(n / 2, '\0');
      break;
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
    if (data[0] >= 192) under_test.lack_memory(data[1]);
    under_test.step(data[0], data[1], data[2]);
    require(same(under_test.frame, under_test.text));
    require(traverseCheck(under_test.frame) == (under_test.frame ? 1 : 0));
  }
  deleteFrame(&under_test.frame);
  return 0;
}
