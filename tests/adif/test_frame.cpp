// The frame's growth rules, its reception from sockets, what calls do with bad arguments, and the
// byte model of fuzz/frame.cpp.
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cwchar>

#include "adif/framebuf.h"
#include "adif/framecodec.h"
#include "adif/frameio.h"
#include "adif/framesearch.h"
#include "adif/frametext.h"
#include "adif/framext.h"
#include "adif/kalloc.h"
#include "random_inputs.h"

namespace {

/// A handle that deletes its frame.
class holder {
 public:
  holder() = default;
  explicit holder(const std::string &text) { appendString(&frame_, text.c_str()); }
  ~holder() { deleteFrame(&frame_); }
  holder(const holder &) = delete;
  holder &operator=(const holder &) = delete;
  frame_t **handle() { return &frame_; }
  frame_t *get() const { return frame_; }
  frame_t *operator->() const { return frame_; }
  std::string text() const {
    const auto *bytes = reinterpret_cast<const char *>(bytePointer(frame_));
    return bytes ? std::string(bytes, static_cast<size_t>(frameLength(frame_))) : "";
  }

 private:
  frame_t *frame_ = nullptr;
};

class pair {
 public:
  explicit pair(int type = SOCK_STREAM) { EXPECT_EQ(socketpair(AF_UNIX, type, 0, fd_), 0); }
  ~pair() {
    for (const int fd : fd_) close(fd);
  }
  pair(const pair &) = delete;
  pair &operator=(const pair &) = delete;
  int own() const { return fd_[0]; }
  int peer() const { return fd_[1]; }
  void send(const std::string &text) const {
    ASSERT_EQ(::send(peer(), text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
  }

 private:
  int fd_[2];
};

}  // namespace

TEST(frame, grows_by_the_stated_steps) {
  holder byte, run, four;
  putLastByte(byte.handle(), 'x');
  EXPECT_EQ(byte->size, 127);
  EXPECT_EQ(byte->start, 63);
  EXPECT_EQ(frameSetLength(byte.get(), 65), -1) << "the head room is none of the content's";
  appendnBytes(byte.handle(), 'y', 63);
  EXPECT_EQ(byte->size, 127);
  putLastByte(byte.handle(), 'z');
  EXPECT_EQ(byte->size, 254);
  putnLastBytes(run.handle(), "abc", 3);
  EXPECT_EQ(run->size, 130);
  EXPECT_EQ(run->start, 0);
  frameGrowTo(four.handle(), 4);
  EXPECT_EQ(putnLastBytes(four.handle(), nullptr, 10), 0);
  EXPECT_EQ(four->size, 10);
  EXPECT_EQ(four->length, 0);
}

// Room larger than the request, larger than the content, and above 127: else a new array.
TEST(frame, reclaims_head_room_only_when_all_three_tests_hold) {
  const struct {
    int start, length, n;
    bool reclaimed;
  } cases[] = {
      {200, 199, 199, true}, {200, 200, 10, false}, {200, 10, 200, false},
      {128, 1, 1, true},     {127, 1, 1, false},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << c.start << ' ' << c.length << ' ' << c.n);
    holder frame;
    const std::string text = std::string(static_cast<size_t>(c.length - 1), 'a') + 'z';
    frameGrowTo(frame.handle(), 500);
    appendnBytes(frame.handle(), ' ', c.start);
    appendString(frame.handle(), text.c_str());
    deleteBytes(frame.get(), c.start);
    ASSERT_EQ(frame->start, c.start);
    EXPECT_EQ(frameGrow(frame.handle(), c.n), 0);
    EXPECT_EQ(frame->start, c.reclaimed ? c.start - c.n : c.start);
    EXPECT_EQ(frame->size, c.reclaimed ? 500 : 500 + c.n);
    EXPECT_EQ(frame.text(), text);
  }
}

TEST(frame, receives_what_is_there_and_tells_a_close) {
  pair sockets;  // left in blocking mode: the call must not wait
  holder frame;
  int total = -1;
  EXPECT_EQ(frame_tcp_nb_receive(sockets.own(), frame.handle(), &total), 0);
  EXPECT_EQ(total, 0);
  sockets.send("abc");
  EXPECT_EQ(frame_tcp_nb_receive(sockets.own(), frame.handle(), nullptr), 3);
  EXPECT_EQ(frame_tcp_nb_receive2(sockets.own(), frame.handle(), 10, &total), 0);

  sockets.send(std::string(100, 'x'));
  shutdown(sockets.peer(), SHUT_RDWR);
  EXPECT_EQ(frame_tcp_nb_receive2(sockets.own(), frame.handle(), 60, &total), 60);
  EXPECT_EQ(frame_tcp_nb_receive(sockets.own(), frame.handle(), &total), -1);
  EXPECT_EQ(total, 40);
  EXPECT_EQ(frame.text(), "abc" + std::string(100, 'x'));

  EXPECT_EQ(frame_tcp_nb_receive(INT_MAX, frame.handle(), &total), -1) << "no descriptor";
  EXPECT_EQ(total, 0);
}

// A packet socket drops what a receive does not ask for, which makes the pieces visible.
TEST(frame, asks_for_pieces_of_8192_bytes_and_no_more_than_wanted) {
  const pair sockets(SOCK_SEQPACKET);
  for (char c : {'1', '2', '3', '4'}) sockets.send(std::string(9000, c));
  holder frame;
  EXPECT_EQ(frame_tcp_nb_receive2(sockets.own(), frame.handle(), 20000, nullptr), 20000);
  EXPECT_EQ(frame.text(), std::string(8192, '1') + std::string(8192, '2') + std::string(3616, '3'));
}

TEST(frame, reception_is_limited_per_call_and_fails_with_the_frame_whole) {
  const pair sockets;
  const int room = 1 << 20;
  setsockopt(sockets.peer(), SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
  const std::string piece(16384, 'p');
  while (send(sockets.peer(), piece.data(), piece.size(), MSG_DONTWAIT) > 0) continue;
  int pending = 0;
  ioctl(sockets.own(), FIONREAD, &pending);
  // Where the system allows the buffer (as by default), this is more than the limit.
  holder frame("kept");
  adif::fail_allocations(1);
  EXPECT_EQ(frame_tcp_nb_receive(sockets.own(), frame.handle(), nullptr), -1);
  EXPECT_EQ(adif::failed_allocations(), 1);
  adif::fail_allocations(0);
  EXPECT_EQ(frame.text(), "kept");
  pending -= 8192;  // lost, as documented

  EXPECT_EQ(frame_tcp_nb_receive(sockets.own(), frame.handle(), nullptr),
            std::min(pending, 262144));
  EXPECT_EQ(frameLength(frame.get()), 4 + std::min(pending, 262144));
}

TEST(frame, moves_through_sockets_and_files) {
  const pair sockets;
  holder out("hello world"), in;
  int total = 0;
  EXPECT_EQ(frame_tcp_send(sockets.own(), out.get(), 1000, &total), 11);
  EXPECT_EQ(total, 11);
  EXPECT_EQ(frame_tcp_receive(sockets.peer(), in.handle(), 5, 1000, &total), 5);
  EXPECT_EQ(frameRecv(in.handle(), sockets.peer(), 100), 6);
  EXPECT_EQ(frameRecv(in.handle(), sockets.peer(), 100), 0);
  EXPECT_EQ(frameSend(out.get(), sockets.own()), 11);
  EXPECT_EQ(frameLength(out.get()), 0);
  EXPECT_EQ(appendFromSocket(in.handle(), sockets.peer(), 5), 5);
  EXPECT_EQ(frame_tcp_receive(sockets.peer(), in.handle(), 7, 1, &total), 0);  // one short
  EXPECT_EQ(total, 6);
  EXPECT_EQ(in.text(), "hello worldhello world");

  const Folder folder;
  const std::string path = folder / "frame";
  EXPECT_EQ(writeToFile(in.get(), path.c_str()), 22);
  EXPECT_EQ(appendFile(out.handle(), path.c_str()), 22);
  FILE *stream = fopen(path.c_str(), "r");
  EXPECT_EQ(appendFromFile(out.handle(), stream, 5), 5);
  EXPECT_EQ(appendFromFile(out.handle(), stream, 100), 17);
  EXPECT_EQ(appendFromFile(out.handle(), stream, 100), 0);
  fclose(stream);
  EXPECT_EQ(out.text(), in.text() + in.text());
  EXPECT_EQ(appendFile(out.handle(), "/no/such/file"), -1);
  EXPECT_EQ(
      frame_tcp_receive(-1, in.handle(), 1, 1, &total) + frame_tcp_send(-1, out.get(), 1, &total),
      -2);
}

TEST(frame_family, refuses_what_cannot_be) {
  holder held("abc");
  frame_t **const h = held.handle(), *const f = held.get();
  char b[4] = "";
  for (int result :  // an offset outside
       {insertByte(h, -1, 'x'), getByte(f, 3), getnBytes(f, -1, b, 1), peekByte(f, 3),
        peeknBytes(f, -1, b, 1), setByte(f, 3, 'x'), copyToString(f, -1, 2, b, 2),
        insertUintvar(h, -1, 300), decodeNetInt(f, -1, 1, nullptr)})
    EXPECT_EQ(result, -1);
  for (int result :  // more than there can be
       {putnLastBytes(h, nullptr, INT_MAX), frameGrowHead(h, INT_MAX),
        appendnBytes(h, 'x', INT_MAX), deleteMidBytes(f, INT_MAX, INT_MAX), setBit(f, INT_MAX, 1)})
    EXPECT_EQ(result, -1);
  frame_t *same = f;
  EXPECT_EQ(combineFrame(h, h) + combineFrame(h, &same), -2) << "a frame joined to itself";
  EXPECT_EQ(held.text(), "abc");
}

TEST(frame_family, puts_takes_and_sets) {
  holder held("abc");
  frame_t **const h = held.handle(), *const f = held.get();
  char b[4] = "";
  EXPECT_EQ(putnFirstBytes(h, "12", 2) + insertByte(h, 3, 'x') + setByte(f, 0, 'A'), 4);
  EXPECT_EQ(held.text(), "A2axbc");
  EXPECT_EQ(peekByte(f, 5), 'c');
  EXPECT_EQ(getByte(f, 3), 'x');
  EXPECT_EQ(copyBytesToArray(f, b, 2) + peeknBytes(f, 4, b + 2, 9), 3);
  EXPECT_STREQ(b, "A2c");
  EXPECT_EQ(getnFirstBytes(f, b, 2) + getnLastBytes(f, b + 1, 2), 4);
  EXPECT_STREQ(b, "Abc");
  EXPECT_EQ(held.text(), "a");
  appendString(h, "bcdef");
  EXPECT_EQ(insertBytes(h, 3, bytePointer(f) + 1, 4), 4) << "its own bytes";
  EXPECT_EQ(held.text(), "abcbcdedef");
}

TEST(frame, texts_numbers_and_shifts_at_their_bounds) {
  holder frame("  -42 Apples");
  char out[8];
  EXPECT_EQ(frameToLong(frame.get()), -42);
  EXPECT_EQ(copyToString(frame.get(), 6, 3, out, sizeof out), 3);
  EXPECT_STREQ(out, "App");
  appendDecimal(frame.handle(), INT64_MIN);
  EXPECT_EQ(appendFormatString(frame.handle(), "%lc", static_cast<wint_t>(-1)), -1) << "no text";
  EXPECT_STREQ(frameString(frame.get()), "  -42 Apples-9223372036854775808");
  for (const auto shift : {shiftBitLeft, shiftBitRight}) {
    holder bits("@@");
    EXPECT_EQ(shift(bits.get(), INT_MAX), 0);
    EXPECT_EQ(bits.text(), std::string(2, '\0'));
  }
}

TEST(frame, behaves_as_a_string_of_bytes) {
  expect_model_holds(50'000, 300);
}

TEST(frame_buffer, queues_frames_and_chains_in_order) {
  frame_buf *buf = createFrameBuf();
  frame_t *frames[3] = {}, *empty = createFrame(10);
  for (int i = 0; i < 3; ++i) putLastByte(&frames[i], static_cast<uint8_t>('a' + i));
  frames[1]->next = frames[2];
  EXPECT_EQ(appendToBuf(buf, &frames[0]), 1);
  EXPECT_EQ(appendToBuf(buf, &frames[0]), 1);  // null by now
  EXPECT_EQ(appendToBuf(buf, &empty), 1);
  EXPECT_EQ(appendToBuf(buf, &frames[1]), 3);
  putLastByte(&empty, 'd');  // the caller's until now, as it was empty
  EXPECT_EQ(appendToBuf(buf, &empty), 4);
  EXPECT_EQ(traverseCheck(buf->head), 4);
  for (char expected : {'a', 'b', 'c'}) {
    frame_t *taken = getFrameOutofBuf(buf);
    EXPECT_EQ(peekByte(taken, 0), expected);
    EXPECT_EQ(traverseCheck(taken), 1);
    deleteFrame(&taken);
  }
  EXPECT_EQ(emptyFrameBuf(buf) + frameBufNum(buf) + frameBufNum(nullptr), 0);
  EXPECT_EQ(getFrameOutofBuf(buf), nullptr);
  EXPECT_EQ(appendToBuf(nullptr, &empty), 0);
  destroyFrameBuf(&buf);
  EXPECT_EQ(buf, nullptr);
}
