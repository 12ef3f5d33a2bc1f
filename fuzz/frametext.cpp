// A frame's content as text: searches, replacements, codecs and readers on foreign bytes, each
// beside the same on a string. What fails for lack of memory leaves the content as it was.
//
// Input: what is tried and how long the word is, an offset, the word, the content.
#include "adif/frametext.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string>
#include <string_view>

#include "adif/framecodec.h"
#include "adif/framesearch.h"
#include "adif/framext.h"
#include "adif/kalloc.h"
#include "require.h"

namespace {

int sign(int64_t value) {
  return (value > 0) - (value < 0);
}

int where(size_t found) {
  return found == std::string::npos ? -1 : static_cast<int>(found);
}

std::string lower(std::string text) {
  for (char &c : text)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + ('a' - 'A'));
  return text;
}

/// A frame with this content, behind some head room.
class held {
 public:
  explicit held(const std::string &text) {
    putnLastBytes(&frame_, "head", 4);
    putnLastBytes(&frame_, text.data(), static_cast<int>(text.size()));
    deleteBytes(frame_, 4);
  }
  ~held() { deleteFrame(&frame_); }
  held(const held &) = delete;
  held &operator=(const held &) = delete;

  frame_t **handle() { return &frame_; }
  operator frame_t *() { return frame_; }
  std::string text() const {
    return {reinterpret_cast<const char *>(bytePointer(frame_)),
            static_cast<size_t>(frameLength(frame_))};
  }

 private:
  frame_t *frame_ = nullptr;
};

/// What `change` makes of the content: `expected`, with `result` told. Without memory for its first
/// or a later allocation it tells -1 and changes nothing, or does without.
template <class Change>
void changes(const std::string &content, Change change, int result, const std::string &expected) {
  for (int failing = 0; failing <= 3; ++failing) {
    held frame(content);
    adif::fail_allocations(failing);
    const int told = change(frame.handle());
    const bool failed = adif::failed_allocations() > 0;
    adif::fail_allocations(0);
    if (failed && told < 0) {
      require(frame.text() == content);
    } else {
      require(told == result && frame.text() == expected);
    }
    if (failing > 0 && !failed) break;
  }
}

void search(const std::string &content, const std::string &word, int at) {
  held frame(content);
  const int n = static_cast<int>(word.size());
  const bool valid = n > 0 && at <= static_cast<int>(content.size());
  const size_t from = static_cast<size_t>(at);
  const int first = valid ? where(content.find(word, from)) : -1;
  const int last = n > 0 ? where(content.rfind(word, from)) : -1;
  require(searchBytes(frame, at, word.data(), n) == first);
  require(kmpSearchBytes(frame, at, word.data(), n) == first);
  require(reverseSearchBytes(frame, at, word.data(), n) == last);
  require(kmpReverseSearchBytes(frame, at, word.data(), n) == last);
  const char byte = content.empty() ? 'x' : content.back();
  require(searchChar(frame, at, static_cast<uint8_t>(byte)) == where(content.find(byte, from)));
  require(reverseSearchChar(frame, at, static_cast<uint8_t>(byte)) ==
          where(content.rfind(byte, from)));
}

void compare(const std::string &content, const std::string &word, int at) {
  held frame(content);
  const bool valid = !word.empty() && at <= static_cast<int>(content.size());
  const size_t from = static_cast<size_t>(at);
  require(searchString(frame, at, word.c_str()) == (valid ? where(content.find(word, from)) : -1));
  require(searchCaseString(frame, at, word.c_str()) ==
          (valid ? where(lower(content).find(lower(word), from)) : -1));
  require(containString(frame, word.c_str()) ==
          (!word.empty() && content.find(word) != content.npos ? 1 : 0));
  require(sign(compareString(frame, word.c_str())) == sign(content.compare(word)));
  require(sign(compareCaseString(frame, word.c_str())) ==
          sign(lower(content).compare(lower(word))));
  require(compareCaseString(frame, content.c_str()) == 0 || content.find('\0') != content.npos);
  require(frameToLong(frame) == std::strtoll(content.c_str(), nullptr, 10));
  require(std::strcmp(frameString(frame), content.c_str()) == 0);
}

void replace(const std::string &content, const std::string &word, size_t at) {
  const int n = static_cast<int>(word.size());
  for (const std::string with : {"", "<a longer text>"}) {
    std::string expected;
    size_t from = 0;
    int count = 0;
    for (size_t found; n > 0 && (found = content.find(word, from)) != content.npos; ++count) {
      expected.append(content, from, found - from).append(with);
      from = found + word.size();
    }
    expected.append(content, from);
    const auto all = [&](frame_t **f) {
      return replacePattern(f, word.data(), n, with.empty() ? nullptr : with.data(),
                            static_cast<int>(with.size()));
    };
    changes(content, all, n > 0 ? count : -1, expected);
    const bool fits = at <= content.size();
    const auto some = [&](frame_t **f) {
      return replaceBytes(f, static_cast<int>(at), n, with.data(), static_cast<int>(with.size()));
    };
    expected = content;
    if (fits) expected.replace(at, word.size(), with);
    changes(content, some, fits ? static_cast<int>(with.size()) : -1, expected);
  }
}

void write(const std::string &content, const std::string &word, int number) {
  const char *text = word.c_str();
  const int n = static_cast<int>(word.size());
  changes(
      content, [=](frame_t **f) { return appendString(f, text); }, n, content + word);
  changes(
      content, [=](frame_t **f) { return prependString(f, text); }, n, word + content);
  changes(
      content, [=](frame_t **f) { return copyToFrame(f, text); }, n, word);
  const std::string line = word + "-" + std::to_string(number);
  const int line_n = static_cast<int>(line.size());
  const auto append = [=](frame_t **f) { return appendFormatString(f, "%s-%d", text, number); };
  const auto prepend = [=](frame_t **f) { return prependFormatString(f, "%s-%d", text, number); };
  changes(content, append, line_n, content + line);
  changes(content, prepend, line_n, line + content);
  const std::string decimal = std::to_string(-number);
  const auto append_number = [=](frame_t **f) { return appendDecimal(f, -number); };
  changes(content, append_number, static_cast<int>(decimal.size()), content + decimal);
}

void copy_and_strip(const std::string &content, size_t at) {
  held frame(content);
  char room[16];
  const std::string_view rest = at <= content.size() ? std::string_view(content).substr(at) : "";
  const size_t n = std::min(rest.size(), sizeof room - 1);
  const int copied = copyToString(frame, static_cast<int>(at), 99, room, sizeof room);
  require(copied == (at <= content.size() ? static_cast<int>(n) : -1) && room[n] == '\0');
  require(std::memcmp(room, rest.data(), n) == 0);
  require(copyFrameToString(frame, room, 1) == 0 && room[0] == '\0');

  constexpr char blanks[] = " \t\n\v\f\r";
  const size_t first = std::min(content.find_first_not_of(blanks), content.size());
  const size_t end = std::max(content.find_last_not_of(blanks) + 1, first);
  require(StripBlanks(frame) == static_cast<int>(first) && frame.text() == content.substr(first));
  held both(content);
  require(stripBlanks(both) == static_cast<int>(end - first));
  require(both.text() == content.substr(first, end - first));
  static std::FILE *const nowhere = std::fopen("/dev/null", "w");
  require(outString(both, nowhere) == static_cast<int>(end - first));
}

std::string as_bits(const std::string &text) {
  std::string bits;
  for (const char c : text)
    for (int i = 7; i >= 0; --i) bits += static_cast<char>('0' + (c >> i & 1));
  return bits;
}

void bits(const std::string &content, int n) {
  held left(content), right(content);
  require(shiftBitLeft(left, n) == 0 && shiftBitRight(right, n) == 0);
  const std::string before = as_bits(content);
  const size_t gone = std::min(static_cast<size_t>(n), before.size());
  const std::string zeros(gone, '0');
  require(as_bits(left.text()) == before.substr(gone) + zeros);
  require(as_bits(right.text()) == zeros + before.substr(0, before.size() - gone));
  for (const int value : {1, 0}) {
    const bool there = n < static_cast<int>(before.size());
    require(setBit(left, n, value) == (there ? 0 : -1));
    if (there) require(as_bits(left.text())[static_cast<size_t>(n)] == '0' + value);
  }
}

void numbers(const std::string &content, int at) {
  held frame(content);
  for (int width = 0; width <= 9; ++width) {
    uint64_t value = 0;
    const bool there = width >= 1 && width <= 8 && at + width <= static_cast<int>(content.size());
    require(decodeNetInt(frame, at, width, &value) == (there ? width : -1));
    if (!there) continue;
    const std::string coded = content.substr(static_cast<size_t>(at), static_cast<size_t>(width));
    const auto append = [=](frame_t **f) { return encodeInt(f, value, width); };
    changes(content, append, width, content + coded);
  }
  uint32_t taken = 0, read = 0, peeked = 0;
  const int used = peekUintvar(frame, 0, &peeked);
  held whole(content), strict(content);
  require(extractUintvar(whole, &taken) == used && (used < 1 || taken == peeked));
  const bool cut = used < 1 || (used < 5 && (content[static_cast<size_t>(used) - 1] & 0x80) != 0);
  require(GetUintvar(strict, &read) == (cut ? -100 : 0) && (cut || read == peeked));
  require(strict.text() == (cut ? content : whole.text()));
  frame_t *form = nullptr;
  const int n = appendUintvar(&form, peeked);
  require(insertUintvar(&form, 0, peeked) == n && extractUintvar(form, &taken) == n);
  require(taken == peeked && extractUintvar(form, &taken) == n && taken == peeked);
  deleteFrame(&form);
}

/// Encoded and decoded again, into a frame of its own and into the same one.
void codecs(const std::string &content) {
  struct codec {
    int (*encode)(const frame_t *, frame_t **);
    int (*decode)(const frame_t *, frame_t **);
  };
  for (const codec &c :
       {codec{binToBase64, base64ToBin}, {frame_bin_to_ascii, frame_ascii_to_bin}}) {
    held plain(content), coded(""), again("");
    const int n = static_cast<int>(content.size());
    require((c.encode(plain, coded.handle()) > 0) == (n > 0));
    require(c.decode(coded, again.handle()) == (n > 0 ? n : -1) && again.text() == content);
    const auto to_itself = [&](frame_t **f) { return c.encode(*f, f); };
    changes(content, to_itself, n > 0 ? frameLength(coded) : -1, content + coded.text());
    held foreign(content);
    if (c.decode(plain, foreign.handle()) < 1) require(foreign.text() == content);
  }
}

void readers(const std::string &content, int n) {
  held frame(content);
  std::string out(static_cast<size_t>(n) + 1, '\0');
  const bool there = n <= static_cast<int>(content.size());
  require(GetnLastBytes(frame, out.data(), n) == (there ? 0 : -100));
  if (!there) return;
  const size_t left = content.size() - static_cast<size_t>(n);
  require(out.compare(0, static_cast<size_t>(n), content, left) == 0);
  uint8_t first = 0, last = 0;
  require(GetFirstByte(frame, &first) == (left > 0 ? 0 : -100));
  require(GetLastByte(frame, &last) == (left > 1 ? 0 : -100));
  if (left > 1) require(static_cast<char>(last) == content[left - 1]);
  require(GetnFirstBytes(frame, nullptr, n) ==
          (left >= static_cast<size_t>(n) + 2 || n == 0 ? 0 : -100));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2 || size > 512) return 0;
  const size_t word_size = std::min<size_t>(data[0] % 16, size - 2);
  const int at = data[1];
  const auto *text = reinterpret_cast<const char *>(data + 2);
  const std::string word(text, word_size), content(text + word_size, size - 2 - word_size);
  const std::string name(word.c_str());  // without what follows a NUL
  switch (data[0] / 16) {
    case 0:
      search(content, word, at);
      break;
    case 1:
      compare(content, name, at);
      break;
    case 2:
      replace(content, word, static_cast<size_t>(at));
      break;
    case 3:
      write(content, name, at);
      break;
    case 4:
      copy_and_strip(content, static_cast<size_t>(at));
      break;
    case 5:
      bits(content, at);
      break;
    case 6:
      numbers(content, at);
      break;
    case 7:
      codecs(content);
      break;
    default:
      readers(content, at);
  }
  return 0;
}
