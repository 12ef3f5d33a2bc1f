// Hosts that pull at positions, at one place or at two in turn; seeks that keep what they can.
#include <atomic>

#include "player.h"

namespace player {
namespace {

// A film whose picture and sound come in blocks of several seconds, read by a host that has one
// place in each. One second of film: `picture` bytes of picture, `sound` of sound; `block` seconds
// of each follow each other.
constexpr uint64_t seconds = 60, block = 5, picture = 600'000, sound = 40'000;
uint64_t picture_at(uint64_t second) {
  return second / block * block * (picture + sound) + second % block * picture;
}
uint64_t sound_at(uint64_t second) {
  return (second / block * (picture + sound) + picture) * block + second % block * sound;
}

class Places : public Served {
 protected:
  uint64_t asked_for() const {
    uint64_t bytes = 0;
    for (const auto &request : server->log()) bytes += request.command == 3 ? request.length : 0;
    return bytes;
  }
};

// In blocks of five seconds, the places are up to 3 MB apart, of the ring's 8: with the range
// following either place alone everything that the other one left behind would be fetched again and
// again.
TEST_F(Places, TwoFetchEachByteOnce) {
  constexpr uint64_t end = seconds * (picture + sound);
  start(end + 1);
  std::vector<uint8_t> buf(40'000);
  const auto pull = [&](uint64_t pos, int32_t len) {
    for (int32_t done = 0; done < len;) {
      const int n = c2ms_sess_read_at(film->get(), pos, buf.data(), len - done, 20'000);
      ASSERT_GT(n, 0);
      ASSERT_TRUE(film->right(pos, buf.data(), n));
      pos += static_cast<uint64_t>(n);
      done += n;
    }
  };
  const auto play = [&](uint64_t from, uint64_t to) {
    for (uint64_t second = from; second < to && !HasFatalFailure(); ++second) {
      for (uint64_t k = 0; k < 20; ++k) {
        pull(picture_at(second) + k * 30'000, 30'000);
        pull(sound_at(second) + k * 2000, 2000);
      }
    }
  };
  play(0, seconds);
  pull(end, 1);
  EXPECT_EQ(asked_for(), film->size());
  EXPECT_EQ(c2ms_sess_read_at(film->get(), film->size(), buf.data(), 1, 10), -200);
  // Both places go back: what is left of the last ring serves, the rest comes once more.
  server->clear_log();
  play(10, 30);
  EXPECT_LE(asked_for(), 20 * 640'000u + (8u << 20));
}

// Idle nodes begin at once when a host jumps to another place, as a demuxer does on its way to an
// index at the end of the file and back.
TEST_F(Places, JumpsOfAHostWaitForNobody) {
  start(60'000'001);
  const c2ms_sess *const sess = film->get();
  const auto all_idle = [&] { return sess->unit_num == 0 && sess->ready_num == sess->usable_num; };
  std::vector<uint8_t> buf(100'000);
  std::mt19937 random(7);
  double longest = 0;
  for (int i = 0; i < 30; ++i) {
    ASSERT_TRUE(eventually(all_idle));
    const uint64_t pos = i % 2 == 0 ? size - 200'000 - random() % 1'000'000 : random() % 1'000'000;
    longest = std::max(longest, took([&] {
                         const int n =
                             c2ms_sess_read_at(film->get(), pos, buf.data(), 100'000, 20'000);
                         ASSERT_EQ(n, 100'000);
                         ASSERT_TRUE(film->right(pos, buf.data(), n));
                       }));
  }
  EXPECT_LT(longest, 0.5 * slack());
}

// Whatever another thread seeks to, a read at a position delivers that position's bytes.
TEST_F(Places, ReadsAtAPositionAreOneCall) {
  start(4'000'001);
  ASSERT_TRUE(eventually([&] { return ring_is_full(*film); }));
  std::atomic<bool> stop{false};
  Threads seeker(1, [&](int) {
    for (uint64_t i = 0; !stop; ++i) c2ms_sess_seek(film->get(), i * 777'777 % size);
  });
  std::vector<uint8_t> buf(5000);
  std::mt19937 random(3);
  int delivered = 0;
  for (int i = 0; i < 20'000; ++i) {
    const uint64_t pos = random() % (size - buf.size());
    const int n = c2ms_sess_read_at(film->get(), pos, buf.data(), 5000, 1000);
    delivered += n > 0;
    if (n < 0 || !film->right(pos, buf.data(), n)) {
      ADD_FAILURE() << n << " at " << pos;
      break;
    }
  }
  stop = true;
  EXPECT_GT(delivered, 5000);
}

// A seek waits for nobody, and what the ring still holds after it is not asked for again.
TEST_F(Places, SeeksWaitForNobodyAndKeepWhatTheyCan) {
  start(60'000'001);
  ASSERT_TRUE(film->play(0, 20'000'000, 100'000, Film::blocking));
  ASSERT_TRUE(eventually([&] { return ring_is_full(*film); }));
  const uint64_t before = asked_for();
  for (const uint64_t pos :
       {19'500'000, 22'000'000, 21'500'000, 24'000'000, 23'500'000, 26'000'000}) {
    ASSERT_EQ(c2ms_sess_seek(film->get(), pos), 0);
    std::vector<uint8_t> buf(100'000);
    ASSERT_EQ(c2ms_sess_read(film->get(), buf.data(), 100'000, 1), 100'000) << pos;
    ASSERT_TRUE(film->right(pos, buf.data(), 100'000));
  }
  ASSERT_TRUE(eventually([&] { return ring_is_full(*film); }));
  EXPECT_LE(asked_for() - before, 26'100'000u - 20'000'000 + 2 * 65536);
  on_all([&](int node) { server->set_fault(node, {.kind = refserver::fault_kind::mute}); });
  std::mt19937 random(5);
  std::vector<double> times;
  for (int i = 0; i < 201; ++i)
    times.push_back(took([&] { c2ms_sess_seek(film->get(), random() % film->size()); }));
  std::nth_element(times.begin(), times.begin() + 100, times.end());
  EXPECT_LT(times[100], 0.005 * slack());
}

}  // namespace
}  // namespace player
