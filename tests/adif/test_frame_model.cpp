// The frame family against std::string: random operations, some of them with failing allocations,
// each compared in its result and its content, with the record's invariants checked after it.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <string_view>

#include "../support.h"
#include "adif/framecodec.h"
#include "adif/frameio.h"
#include "adif/framesearch.h"
#include "adif/frametext.h"
#include "adif/framext.h"
#include "adif/kalloc.h"

namespace {

std::string content(const frame_t *frame) {
  const auto *bytes = reinterpret_cast<const char *>(bytePointer(frame));
  return bytes ? std::string(bytes, static_cast<size_t>(frameLength(frame))) : "";
}

/// One operation's inputs, drawn before it runs, and what it did.
struct turn {
  frame_t **frame;
  const std::string &text;  // the content before
  std::string bytes;        // random, over a small alphabet, at least one
  int offset;               // -1..length + 1
  int n;                    // mostly within the content
  int result = 0;           // of the operation under test
  std::string out;          // what it took out
  std::string expected_out = "";

  bool offset_ok() const { return offset >= 0 && offset <= size(); }
  int size() const { return static_cast<int>(text.size()); }
  /// [offset, offset + n) of the content, 0 for a bad offset.
  int clipped() const { return offset_ok() ? std::min(n, size() - offset) : 0; }
};

struct outcome {
  int result;
  std::string text;
};

using operation = outcome (*)(turn &);

std::string spliced(const turn &t, int offset, int n, std::string_view with) {
  return std::string(t.text).replace(static_cast<size_t>(offset), static_cast<size_t>(n), with);
}

/// What taking or removing up to n bytes at an offset must do.
outcome removal(turn &t, int offset, int n, bool ok = true) {
  if (!*t.frame || !ok) return {-1, t.text};
  t.expected_out = t.text.substr(static_cast<size_t>(offset), static_cast<size_t>(n));
  return {n, spliced(t, offset, n, "")};
}

template <int (*call)(frame_t *, void *, int)>
int take(turn &t) {
  t.out.resize(static_cast<size_t>(t.n));
  const int result = call(*t.frame, t.out.data(), t.n);
  t.out.resize(static_cast<size_t>(std::max(result, 0)));
  return result;
}

const operation operations[] = {
    [](turn &t) -> outcome {
      t.result = putLastByte(t.frame, static_cast<uint8_t>(t.bytes[0]));
      return {1, t.text + t.bytes[0]};
    },
    [](turn &t) -> outcome {
      const int n = static_cast<int>(t.bytes.size());
      t.result = putnLastBytes(t.frame, t.bytes.data(), n);
      return {n, t.text + t.bytes};
    },
    [](turn &t) -> outcome {
      t.result = putFirstByte(t.frame, static_cast<uint8_t>(t.bytes[0]));
      return {1, t.bytes[0] + t.text};
    },
    [](turn &t) -> outcome {
      const int n = static_cast<int>(t.bytes.size());
      t.result = insertBytes(t.frame, t.offset, t.bytes.data(), n);
      if (!t.offset_ok()) return {-1, t.text};
      return {n, spliced(t, t.offset, 0, t.bytes)};
    },
    [](turn &t) -> outcome {  // the frame's own bytes, put in its own middle
      const int n = t.clipped();
      if (n < 1) return {0, t.text};
      const std::string own = t.text.substr(static_cast<size_t>(t.offset), static_cast<size_t>(n));
      t.result = insertBytes(t.frame, t.size() / 2, bytePointer(*t.frame) + t.offset, n);
      return {n, spliced(t, t.size() / 2, 0, own)};
    },
    [](turn &t) -> outcome {
      t.result = appendFrame(t.frame, *t.frame);
      return {t.size(), t.text + t.text};
    },
    [](turn &t) -> outcome {
      t.result = take<getnFirstBytes>(t);
      return removal(t, 0, std::min(t.n, t.size()));
    },
    [](turn &t) -> outcome {
      t.result = take<getnLastBytes>(t);
      const int n = std::min(t.n, t.size());
      return removal(t, t.size() - n, n);
    },
    [](turn &t) -> outcome {
      t.result = deleteMidBytes(*t.frame, t.offset, t.n);
      const outcome removed = removal(t, std::max(t.offset, 0), t.clipped(), t.offset_ok());
      t.expected_out.clear();
      return removed;
    },
    [](turn &t) -> outcome {
      t.result = replaceBytes(t.frame, t.offset, t.n, t.bytes.data(), 1);
      if (!t.offset_ok()) return {-1, t.text};
      return {1, spliced(t, t.offset, t.clipped(), t.bytes.substr(0, 1))};
    },
    [](turn &t) -> outcome {
      const std::string pattern = t.bytes.substr(0, 2);
      const std::string with = t.bytes.substr(0, static_cast<size_t>(t.n % 4));
      t.result = replacePattern(t.frame, pattern.data(), static_cast<int>(pattern.size()),
                                with.data(), static_cast<int>(with.size()));
      outcome expected{0, t.text};
      for (size_t at = 0; (at = expected.text.find(pattern, at)) != std::string::npos;
           at += with.size()) {
        expected.text.replace(at, pattern.size(), with);
        ++expected.result;
      }
      return expected;
    },
    [](turn &t) -> outcome {
      t.result = prependFormatString(t.frame, "<%s %d>", t.bytes.c_str(), t.n);
      const std::string added = "<" + t.bytes + " " + std::to_string(t.n) + ">";
      return {static_cast<int>(added.size()), added + t.text};
    },
    [](turn &t) -> outcome {
      t.result = stripBlanks(*t.frame);
      if (!*t.frame) return {-1, t.text};
      const size_t first = std::min(t.text.find_first_not_of(" \t"), t.text.size());
      const size_t end = t.text.find_last_not_of(" \t") + 1;
      const std::string rest = end > first ? t.text.substr(first, end - first) : "";
      return {static_cast<int>(rest.size()), rest};
    },
    [](turn &t) -> outcome {  // the rear half split off and put in front
      frame_t *rear = splitFrame(*t.frame, t.offset);
      if (!rear) return {0, t.text};
      std::string turned = content(rear) + content(*t.frame);
      const int front = frameLength(*t.frame);
      t.result = combineFrame(&rear, t.frame);
      if (t.result < 0) {  // without memory: put back what was split off
        adif::fail_allocations(0);
        EXPECT_GE(combineFrame(t.frame, &rear), 0);
        return {-1, t.text};
      }
      *t.frame = rear;
      return {front, turned};
    },
    [](turn &t) -> outcome {
      t.result = binToBase64(*t.frame, t.frame);
      if (t.text.empty()) return {-1, t.text};
      const int added = (t.size() + 2) / 3 * 4;
      if (t.result == added) {  // and back again, so that the content stays printable
        adif::fail_allocations(0);
        frame_t *decoded = nullptr;
        frame_t *encoded = splitFrame(*t.frame, t.size());
        EXPECT_EQ(base64ToBin(encoded, &decoded), t.size());
        EXPECT_EQ(content(decoded), t.text);
        deleteFrame(&encoded);
        deleteFrame(&decoded);
      }
      return {added, t.text};
    },
    [](turn &t) -> outcome {
      t.result = frameGrowHead(t.frame, t.n);
      if (t.result == 0 && t.n > 0) {
        EXPECT_GE((*t.frame)->start, t.n);
      }
      return {0, t.text};
    },
    [](turn &t) -> outcome {
      const int room = frameRemaining(*t.frame);
      t.result = frameGrow(t.frame, t.n);
      if (t.result == 0) {
        EXPECT_EQ(frameRemaining(*t.frame), room + t.n);
      }
      return {0, t.text};
    },
    [](turn &t) -> outcome {  // both kinds of search, both ways
      const auto *pattern = t.bytes.data();
      const int n = static_cast<int>(std::min<size_t>(t.bytes.size(), 3));
      const std::string wanted(pattern, static_cast<size_t>(n));
      const bool there = *t.frame && t.offset >= 0;
      const auto at = static_cast<size_t>(std::max(t.offset, 0));
      const size_t next = there ? t.text.find(wanted, at) : std::string::npos;
      const size_t last = there ? t.text.rfind(wanted, at) : std::string::npos;
      EXPECT_EQ(searchBytes(*t.frame, t.offset, pattern, n), static_cast<int>(next));
      EXPECT_EQ(reverseSearchBytes(*t.frame, t.offset, pattern, n), static_cast<int>(last));
      EXPECT_EQ(kmpSearchBytes(*t.frame, t.offset, pattern, n), static_cast<int>(next));
      EXPECT_EQ(kmpReverseSearchBytes(*t.frame, t.offset, pattern, n), static_cast<int>(last));
      EXPECT_EQ(searchCaseString(*t.frame, t.offset, wanted.c_str()), static_cast<int>(next));
      return {0, t.text};
    },
    [](turn &t) -> outcome {
      if (t.n % 8 == 0) deleteFrame(t.frame);
      t.result = emptyFrame(*t.frame);
      return {*t.frame ? 0 : -1, ""};
    },
};

}  // namespace

TEST(frame, behaves_as_a_string_of_bytes) {
  Random random;
  const auto below = [&random](int n) { return random.below(n); };

  constexpr int longest = 3000;
  frame_t *frame = nullptr;
  std::string text;
  int failures = 0;
  for (int step = 0; step < 100'000; ++step) {
    if (text.size() > longest) {
      deleteBytes(frame, longest);
      text.erase(0, longest);
    }
    const int size = static_cast<int>(text.size());
    std::string bytes(static_cast<size_t>(1 + below(below(4) ? 8 : 400)), ' ');
    for (char &c : bytes) c = "ab \t"[below(4)];
    turn t{&frame, text, bytes, below(size + 3) - 1, below(below(2) ? size + 2 : 40), 0, "", ""};

    const int which = below(static_cast<int>(std::size(operations)));
    adif::fail_allocations(below(4) == 0 ? 1 + below(2) : 0);
    outcome expected = operations[which](t);
    const bool failed = adif::failed_allocations() > 0 && t.result == -1;
    adif::fail_allocations(0);
    if (failed) expected = {-1, text};
    failures += failed;

    ASSERT_EQ(t.result, expected.result) << "step " << step << " operation " << which;
    ASSERT_EQ(content(frame), expected.text) << "step " << step << " operation " << which;
    if (!failed) {
      ASSERT_EQ(t.out, t.expected_out) << "step " << step << " operation " << which;
    }
    ASSERT_EQ(traverseCheck(frame), frame ? 1 : 0) << "step " << step << " operation " << which;
    text = expected.text;
  }
  EXPECT_GT(failures, 100);
  deleteFrame(&frame);
}
