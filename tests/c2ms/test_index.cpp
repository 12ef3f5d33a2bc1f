// The index of a media end to end: both opens, what the window serves and what is no longer
// fetched, where the range goes, and what becomes of damaged or dishonest indexes.
#include <atomic>
#include <set>

#include "player.h"
#include "support/boxes.h"
#include "testing/mp4_index.h"

namespace player {
namespace {

using namespace boxes;

/// Opens the index bit by bit; the result that ended it.
int open_polling(c2ms_sess *sess, uint32_t *len) {
  int result = C2MS_CACHING;
  eventually(
      [&] {
        const double seconds = took([&] { result = c2ms_sess_idx_open_asyn(sess, len); });
        EXPECT_TRUE(result != C2MS_CACHING || seconds < 2.0);
        return result != C2MS_CACHING;
      },
      60s);
  return result;
}

using opener = int (*)(c2ms_sess *, uint32_t *);
constexpr opener both_opens[] = {c2ms_sess_idx_open, open_polling};

/// A served media whose bytes are known, and a player of it.
class Movie {
 public:
  explicit Movie(std::string content, const std::string &name = "film.mp4",
                 refserver::server_options options = {})
      : bytes(std::move(content)),
        server(options),
        id(server.add_bytes(name, bytes, refserver::type_by_name(name))) {}

  /// After the index has been set.
  void open(int32_t wanted_pack = 4096) {
    ASSERT_TRUE(server.start()) << server.error();
    film = std::make_unique<Film>(library, server, id);
    ASSERT_EQ(film->error(), 0);
    pack = film->prepare(wanted_pack);
    ASSERT_GE(pack, wanted_pack);
    sess = film->get();
  }

  /// Starts with the index that belongs to the media.
  void open_indexed(int32_t wanted_pack = 4096) {
    ASSERT_NE(server.add_index(id), refserver::file_id{});
    open(wanted_pack);
  }

  /// Serves `content` as the index.
  void set_index(const std::string &content) {
    server.set_index(id, server.add_bytes("index", content, 0));
  }

  ::testing::AssertionResult same(uint64_t pos, const void *got, int count) const {
    const bool right =
        count >= 0 && !bytes.compare(pos, static_cast<size_t>(count),
                                     {static_cast<const char *>(got), static_cast<size_t>(count)});
    return (right ? ::testing::AssertionSuccess() : ::testing::AssertionFailure())
           << count << " bytes at " << pos;
  }

  int get(char *buf, int32_t len, bool receive) const {
    return receive ? c2ms_sess_recv(sess, buf, len, 20'000) : c2ms_sess_read(sess, buf, len, 0);
  }

  /// Reads everything from the position `pos` (of a range that begins at `base`) to the -200 after
  /// the end.
  ::testing::AssertionResult play(uint64_t pos, int32_t chunk, bool receive, uint64_t base = 0,
                                  uint64_t end = UINT64_MAX) const {
    end = std::min<uint64_t>(end, bytes.size() - base);
    std::vector<char> buf(static_cast<size_t>(chunk));
    for (;;) {
      const int n = get(buf.data(), chunk, receive);
      if (n == -200 && pos == end) return ::testing::AssertionSuccess();
      if (n < 1) return ::testing::AssertionFailure() << "result " << n << " at " << pos;
      if (const auto ok = same(base + pos, buf.data(), n); !ok) return ok;
      pos += static_cast<uint64_t>(n);
    }
  }

  /// How many packs lying wholly in [begin, end) were asked for since the log was cleared.
  int asked_inside(uint64_t begin, uint64_t end) const {
    int count = 0;
    for (const auto &request : server.log()) {
      if (request.command != 3 || request.fid != id) continue;
      count += request.offset >= begin && request.offset + request.length <= end ? 1 : 0;
    }
    return count;
  }

  std::string bytes;
  refserver::media_server server;
  const refserver::file_id id;
  const Library library;
  std::unique_ptr<Film> film;
  c2ms_sess *sess = nullptr;
  int32_t pack = 0;
};

struct shape {
  const char *name;
  std::string (*make)();
  size_t moov_size;
  int attr;
  int32_t pack;
};

constexpr size_t long_moov = 2'200'001;  // two hours

const shape shapes[] = {
    {"MoovAtTheEnd",
     [] { return ftyp() + box("free", "") + box("mdat", noise(9'500'000)) + moov(long_moov); },
     long_moov, 2, 65536},
    {"MoovFirst", [] { return ftyp() + moov(300'001) + box("mdat", noise(9'500'000)); }, 300'001, 1,
     65536},
    {"MdatIn64Bits",
     [] { return ftyp() + header(1, "mdat", 9'000'016) + noise(9'000'000) + moov(30'000); }, 30'000,
     2, 4096},
    {"InTheMiddle",
     [] {
       return ftyp() + box("mdat", noise(5'000'000)) + moov(300'000) +
              box("mdat", noise(5'000'000, 2));
     },
     300'000, 1, 32768},
    {"NearlyTheEnd",
     [] { return ftyp() + box("mdat", noise(99'999)) + moov(50'000) + box("free", noise(992)); },
     50'000, 2, 4096},
    {"NotTheEnd",
     [] { return ftyp() + box("mdat", noise(99'999)) + moov(50'000) + box("free", noise(993)); },
     50'000, 1, 4096},
    {"SmallerThanAPack", [] { return ftyp() + box("mdat", noise(300'000)) + moov(900); }, 900, 2,
     4096},
    {"MadeByAnEncoder", [] { return read_file(C2MS_TEST_MEDIA "/demo.mp4"); }, 17'931, 2, 4096},
};

class Shapes : public ::testing::TestWithParam<shape> {
 protected:
  void SetUp() override {
    movie = std::make_unique<Movie>(GetParam().make());
    begin = movie->bytes.find("moov") - 4;
    end = begin + GetParam().moov_size;
    movie->open_indexed(GetParam().pack);
  }

  void check_open(opener open, bool returns_count) {
    EXPECT_EQ(c2ms_sess_idx_attr(movie->sess), 1);
    EXPECT_EQ(c2ms_sess_idx_size(movie->sess), 0u);
    uint32_t len = 99;
    const int result = open(movie->sess, &len);
    ASSERT_EQ(result > 0, returns_count) << result;
    ASSERT_GE(result, 0);
    EXPECT_EQ(len, GetParam().moov_size);
    movie->server.clear_log();
    uint64_t offset = 0;
    EXPECT_EQ(c2ms_sess_idx_offset(movie->sess, &offset), 0);
    EXPECT_EQ(offset, begin);
    EXPECT_EQ(c2ms_sess_idx_size(movie->sess), GetParam().moov_size);
    EXPECT_EQ(c2ms_sess_idx_attr(movie->sess), GetParam().attr);
    for (const uint64_t pos : {begin - 1, begin, end - 1, end})
      EXPECT_EQ(c2ms_sess_is_in_idx(movie->sess, pos), pos >= begin && pos < end ? 1 : 0) << pos;
    EXPECT_EQ(open(movie->sess, &len), 0) << "open already";
    EXPECT_EQ(len, 0u);
  }

  // A seek into the window places the range where play goes on, and the lead is counted from there.
  void check_range() {
    ASSERT_EQ(c2ms_sess_seek(movie->sess, 1), 0);
    ASSERT_EQ(c2ms_sess_buffering(movie->sess, 1 << 20), 0);
    ASSERT_EQ(c2ms_sess_seek(movie->sess, (begin + end) / 2), 0);
    // As far from the range's begin as any seek leaves it, unless the media's end is too near.
    const c2ms_stats s = stats_of(*movie->film);
    const uint64_t target = GetParam().attr == 2 ? 0 : end;
    EXPECT_LE(s.ring_begin, target);
    EXPECT_TRUE(target - s.ring_begin < s.memory_bytes / 8 + static_cast<uint64_t>(movie->pack) ||
                s.ring_end == movie->bytes.size())
        << target << " in a ring from " << s.ring_begin;
    int32_t ratio = 0;
    EXPECT_TRUE(eventually([&] {
      return c2ms_sess_bufratio(movie->sess, &ratio) == 0 && ratio == 100;
    })) << ratio;
    ASSERT_EQ(c2ms_sess_buffering(movie->sess, 0), 0);
  }

  // Reads end at the window's end, receives cross every border.
  void check_borders() {
    std::mt19937 random(3);
    std::vector<char> buf(200'000);
    const uint64_t size = movie->bytes.size();
    for (int i = 0; i < 60; ++i) {
      const uint64_t border = i % 2 == 0 ? begin : end;
      const uint64_t near = border - std::min<uint64_t>(border, random() % 10'000);
      const uint64_t pos = std::min(near + random() % 10'000, size - 1);
      const auto len = static_cast<int32_t>(random() % (i % 3 == 0 ? buf.size() : 5000) + 1);
      const bool receive = i % 4 < 2;
      ASSERT_EQ(c2ms_sess_seek(movie->sess, pos), 0);
      const int n = movie->get(buf.data(), len, receive);
      const bool stops_at_end = !receive && pos >= begin && pos < end;
      const uint64_t last = std::min(pos + static_cast<uint64_t>(len), stops_at_end ? end : size);
      ASSERT_EQ(n, static_cast<int>(last - pos))
          << pos << " of " << begin << " to " << end << (receive ? " recv" : " read");
      ASSERT_TRUE(movie->same(pos, buf.data(), n));
    }
  }

  std::unique_ptr<Movie> movie;
  uint64_t begin = 0, end = 0;
};

TEST_P(Shapes, MoovComesFromTheIndex) {
  static std::atomic<int> at_end;
  at_end = 0;
  c2ms_set_diag(
      [](void *, const char *line) { at_end += !std::strcmp(line, "----moov at end----\n"); },
      nullptr);
  for (const opener open : both_opens) {
    SCOPED_TRACE(open == open_polling ? "polling" : "waiting");
    check_open(open, open == open_polling);
    EXPECT_TRUE(movie->play(0, 100'003, false));
    ASSERT_EQ(c2ms_sess_seek(movie->sess, 0), 0);
    EXPECT_TRUE(movie->play(0, 70'001, true));
    check_range();
    check_borders();
    EXPECT_EQ(movie->asked_inside(begin, end), 0);
    // Closed, that part of the media is fetched like any other.
    const uint64_t middle = (begin + end) / 2;
    ASSERT_EQ(c2ms_sess_seek(movie->sess, middle), 0);
    ASSERT_EQ(c2ms_sess_idx_close(movie->sess), 0);
    EXPECT_EQ(c2ms_sess_is_in_idx(movie->sess, middle), 0);
    EXPECT_TRUE(movie->play(middle, 100'003, false));
    const bool has_packs = end - begin > 2 * static_cast<uint64_t>(movie->pack);
    EXPECT_TRUE(!has_packs || movie->asked_inside(begin, end) > 0);
  }
  EXPECT_EQ(at_end, GetParam().attr == 2 ? 2 : 0);
}

INSTANTIATE_TEST_SUITE_P(All, Shapes, ::testing::ValuesIn(shapes),
                         [](const auto &test) { return test.param.name; });

TEST(Index, NoneWorthHaving) {
  const std::pair<std::string, const char *> cases[] = {
      {ftyp() + box("moov", box("mvhd", noise(100)) + box("mvex", box("trex", noise(24)))) +
           box("moof", noise(500)),
       "fragmented"},
      {noise(20'000), "no moov box"},
  };
  for (const auto &[content, problem] : cases) {
    Movie movie(content + box("mdat", noise(100'000)));
    std::string told;
    EXPECT_EQ(movie.server.add_index(movie.id, &told), refserver::file_id{});
    EXPECT_EQ(told, problem);
    movie.open();
    for (const opener open : both_opens) {
      uint32_t len = 99;
      EXPECT_EQ(open(movie.sess, &len), 0);
      EXPECT_EQ(len, 0u);
    }
    EXPECT_EQ(c2ms_sess_idx_attr(movie.sess), 0);
  }
}

std::string packed_with_size(uint64_t size) {
  std::string packed = refserver::pack_index(moov(3000));
  for (size_t i = 0; i < 8; ++i) packed[6 + i] = static_cast<char>(size >> (8 * i));
  return packed;
}

TEST(Index, DamagedOrDishonest) {
  const std::string good = ftyp() + box("mdat", noise(60'000)) + moov(3000);
  const std::string packed = refserver::pack_index(moov(3000));
  std::string stream = packed, boxes = ftyp();
  stream[40] = '\xa5';
  for (int i = 0; i < 19; ++i) boxes += box("free", noise(3000));
  const struct {
    const char *what;
    std::string media, index;
    int result;
  } cases[] = {
      {"shorter than its header", good, packed.substr(0, 13), -300},
      {"header alone", good, packed.substr(0, 14), -400},
      {"cut in the middle", good, packed.substr(0, packed.size() / 2), -400},
      {"size 0", good, packed_with_size(0), -301},
      {"one byte less", good, packed_with_size(2999), -400},
      {"above the bound", good, packed_with_size((uint64_t{64} << 20) + 1), -350},
      {"2^63", good, packed_with_size(uint64_t{1} << 63), -350},
      {"wrong stream", good, stream, -400},
      {"no moov", ftyp() + box("mdat", noise(60'000)), packed, -401},
      {"moov is the 21st box", boxes + moov(3000), packed, -401},
      {"a walk that never ends", ftyp() + header(0, "free") + noise(60'000), packed, -401},
      {"moov's header is cut", ftyp() + box("mdat", noise(60'000)) + header(16, "moov"), packed,
       -401},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    Movie movie(c.media);
    movie.set_index(c.index);
    movie.open();
    for (const opener open : both_opens) {
      EXPECT_EQ(open(movie.sess, nullptr), c.result);
      uint64_t offset = 1;
      c2ms_sess_idx_offset(movie.sess, &offset);
      EXPECT_EQ(offset + c2ms_sess_idx_size(movie.sess), 0u);
      EXPECT_EQ(c2ms_sess_idx_attr(movie.sess), 1);
      EXPECT_EQ(c2ms_sess_idx_read(movie.sess, nullptr, 1, 0), -100);
      EXPECT_TRUE(movie.play(0, 10'000, false)) << "the media is selected again";
    }
  }
}

TEST(Index, OfAnotherLengthThanItsBox) {
  // The window is what both have; an index that is longer is not laid over the media behind the
  // box.
  std::string index = moov(3000);
  index.replace(4, 4, "MooV");  // in any letter case
  const struct {
    std::string packed;
    uint32_t size;
  } cases[] = {
      {refserver::pack_index(index + noise(20'000, 9)), 23'000},
      {refserver::pack_index(index.substr(0, 2000)), 2000},
      {packed_with_size(3001), 3001},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.size);
    Movie movie(ftyp() + index + box("mdat", noise(60'000)));
    movie.set_index(c.packed);
    movie.open();
    // One byte more than the truth may come out of the stream's padding, or may not come.
    const int opened = c2ms_sess_idx_open(movie.sess, nullptr);
    ASSERT_TRUE(opened == 0 || (opened == -400 && c.size == 3001)) << opened;
    EXPECT_EQ(c2ms_sess_idx_size(movie.sess), opened == 0 ? c.size : 0u);
    EXPECT_TRUE(movie.play(0, 1000, false));
    ASSERT_EQ(c2ms_sess_seek(movie.sess, 0), 0);
    EXPECT_TRUE(movie.play(0, 1000, true));
  }
}

TEST(Index, RefusedOrUnfinished) {
  const std::string media = ftyp() + box("mdat", noise(60'000)) + moov(3000);
  {
    Movie movie(media);
    movie.server.set_index(movie.id, movie.server.add_generated("big", (64 << 20) + 1));
    movie.open();
    movie.server.clear_log();
    for (const opener open : both_opens) EXPECT_EQ(open(movie.sess, nullptr), -350);
    for (const auto &request : movie.server.log()) EXPECT_EQ(request.fid, movie.id);
  }
  {  // a last pack of size 0 is never delivered: five receives fail at once
    Movie movie(media);
    movie.set_index(refserver::pack_index(moov(3000)).substr(0, 1) + noise(4095));
    movie.library.get()->patience.index_receive_ms = 100;
    movie.open();
    ASSERT_EQ(c2ms_sess_cache_init(movie.sess, 4096), 0);
    EXPECT_EQ(c2ms_sess_idx_open(movie.sess, nullptr), -200);
  }
  // No cache at all.
  Movie movie(media);
  movie.set_index(refserver::pack_index(moov(3000)));
  ASSERT_TRUE(movie.server.start());
  const Film film(movie.library, movie.server, movie.id);
  for (const opener open : {c2ms_sess_idx_open, c2ms_sess_idx_open_asyn})
    EXPECT_EQ(open(film.get(), nullptr), -2);
}

TEST(Index, OfAnotherMediaStandsForItsFirstBytes) {
  Movie movie(noise(50'000), "film.avi");
  const std::string index = noise(1000, 5);
  movie.set_index(refserver::pack_index(index));
  movie.open(1000);  // raised to 4096
  ASSERT_EQ(open_polling(movie.sess, nullptr), 0);
  EXPECT_EQ(c2ms_sess_idx_attr(movie.sess), 1);
  EXPECT_EQ(c2ms_sess_is_in_idx(movie.sess, 500), 0);
  char buf[4096];
  ASSERT_EQ(c2ms_sess_read(movie.sess, nullptr, 900, 0), 900);  // skips without a buffer
  ASSERT_EQ(c2ms_sess_read(movie.sess, buf, 4096, 0), 100);
  EXPECT_EQ(index.compare(900, 100, buf, 100), 0);
  ASSERT_EQ(c2ms_sess_read(movie.sess, buf, 4096, 0), 4096);
  EXPECT_TRUE(movie.same(1000, buf, 4096));
  ASSERT_EQ(c2ms_sess_seek(movie.sess, 900), 0);
  ASSERT_EQ(c2ms_sess_recv(movie.sess, buf, 4096, 10'000), 4096);  // the cache's, whole
  EXPECT_TRUE(movie.same(900, buf, 4096));
  // The offset limits the count but does not move the source.
  EXPECT_EQ(c2ms_sess_idx_read(movie.sess, buf, 100, 930), 70);
  EXPECT_EQ(index.compare(0, 70, buf, 70), 0);
  EXPECT_EQ(c2ms_sess_idx_read(movie.sess, nullptr, 100, 999), 1);
  EXPECT_EQ(c2ms_sess_idx_read(movie.sess, buf, 100, 1000), 0);
  EXPECT_EQ(c2ms_sess_idx_read(movie.sess, buf, 0, 0), 0);
}

TEST(Index, KeepsTheSelectedRange) {
  const std::string head = ftyp() + box("mdat", noise(30'000));
  Movie movie(head + moov(50'000) + box("mdat", noise(30'000)));
  movie.open_indexed();
  const uint64_t begin = head.size(), size = movie.bytes.size();
  // Ranges that begin before, in and behind the window, and end before, in and behind it.
  const uint64_t cuts[] = {0, 7, begin, begin + 12'345, begin + 50'000, begin + 60'000, size};
  for (const uint64_t base : cuts) {
    for (const uint64_t end : cuts) {
      if (end <= base || (end - base) % static_cast<uint64_t>(movie.pack) == 0) continue;
      SCOPED_TRACE(std::to_string(base) + " to " + std::to_string(end));
      for (const opener open : both_opens) {
        ASSERT_EQ(c2ms_sess_range(movie.sess, base, end - base), 0);
        ASSERT_GE(open(movie.sess, nullptr), 0);
        EXPECT_TRUE(movie.play(0, 9'999, open == open_polling, base, end - base));
        ASSERT_EQ(c2ms_sess_idx_close(movie.sess), 0);
      }
    }
  }
}

TEST(Index, LargerThanTheCache) {
  // Of the arena another session leaves about a megabyte; the packed index alone is longer.
  const std::string index = header(2'000'008, "moov") + noise(2'000'000);
  Movie movie(ftyp() + index + box("mdat", noise(100'000, 3)));
  movie.set_index(refserver::pack_index(index));
  movie.open();
  const Film second(movie.library, movie.server, movie.id);
  ASSERT_EQ(c2ms_sess_cache_init(movie.sess, 7 << 20), 0);
  ASSERT_EQ(c2ms_sess_cache_init(second.get(), 65536), 0);
  movie.sess = second.get();
  ASSERT_LT(stats_of(second).memory_bytes, index.size());
  for (const opener open : both_opens) {
    uint32_t len = 0;
    ASSERT_GE(open(movie.sess, &len), 0);
    EXPECT_EQ(len, index.size());
    movie.server.clear_log();
    EXPECT_TRUE(movie.play(0, 100'003, false));
    EXPECT_EQ(movie.asked_inside(ftyp().size(), ftyp().size() + len), 0);
    c2ms_sess_idx_close(movie.sess);
  }
}

TEST(Index, IncrementalOpenGivenUpOrDisturbed) {
  Movie movie(
      ftyp() + box("mdat", noise(200'000)) + moov(60'000), "film.mp4",
      {.nodes = 1, .node = {{.rate_bytes_per_s = 40'000}}, .entry = {.rate_bytes_per_s = 40'000}});
  movie.open_indexed();
  uint32_t len = 0;
  ASSERT_EQ(c2ms_sess_idx_open_asyn(movie.sess, &len), C2MS_CACHING);
  // Reads in between take the index's bytes away, and the end of the file counts backwards: the
  // open does not complete, and writes nowhere but into its buffer.
  uint32_t index_len = 0;
  c2ms_sess_idxfile(movie.sess, nullptr, &index_len);
  ASSERT_EQ(c2ms_sess_recv(movie.sess, nullptr, static_cast<int32_t>(index_len), 30'000),
            static_cast<int>(index_len));
  for (int i = 0; i < 800; ++i) {
    ASSERT_TRUE(i != 400 || c2ms_sess_seek(movie.sess, 0) == 0);
    ASSERT_EQ(c2ms_sess_idx_open_asyn(movie.sess, &len), C2MS_CACHING);
  }
  ASSERT_EQ(c2ms_sess_idx_close(movie.sess), 0);
  char buf[5000];
  ASSERT_EQ(c2ms_sess_read(movie.sess, buf, 5000, 0), 5000);
  EXPECT_TRUE(movie.same(0, buf, 5000)) << "given up: the media again";
  movie.server.set_rate(0, 0);
  movie.server.set_rate(refserver::entry_server, 0);
  // Selecting a file makes the next call start again.
  ASSERT_EQ(c2ms_sess_idx_open_asyn(movie.sess, &len), C2MS_CACHING);
  ASSERT_EQ(c2ms_sess_range(movie.sess, 0, 100'001), 0);
  ASSERT_GT(open_polling(movie.sess, &len), 0);
  EXPECT_TRUE(movie.play(0, 10'000, false, 0, 100'001)) << "the range that was selected";
}

TEST(Index, SeeksDuringAnOpenDoNothing) {
  for (const opener open : both_opens) {
    Movie movie(ftyp() + moov(100'000) + box("mdat", noise(300'000)), "film.mp4",
                {.nodes = 1, .node = {{.rate_bytes_per_s = 400'000}}});
    movie.open_indexed();
    std::atomic<bool> over{false};
    std::thread seeker([&] {
      for (uint64_t pos = 0; !over; pos += 7919) c2ms_sess_seek(movie.sess, pos % 400'000);
    });
    uint32_t len = 0;
    EXPECT_GE(open(movie.sess, &len), 0);
    over = true;
    seeker.join();
    movie.server.set_rate(0, 0);
    ASSERT_EQ(c2ms_sess_seek(movie.sess, 0), 0);
    EXPECT_TRUE(movie.play(0, 10'000, false));
  }
}

TEST(Index, ReadAtInsideKeepsTheNodesAtWork) {
  Movie movie(ftyp() + moov(200'001) + box("mdat", noise(12'000'000)));
  movie.open_indexed(65536);
  ASSERT_EQ(c2ms_sess_idx_open(movie.sess, nullptr), 0);
  char buf[1000];
  ASSERT_EQ(c2ms_sess_read_at(movie.sess, 11'900'000, buf, 1000, 5000), 1000);
  ASSERT_TRUE(eventually([&] { return stats_of(*movie.film).in_flight == 0; }));
  ASSERT_EQ(c2ms_sess_read_at(movie.sess, 1000, buf, 1000, 5000), 1000);
  EXPECT_TRUE(movie.same(1000, buf, 1000));
  const c2ms_stats s = stats_of(*movie.film);
  EXPECT_GT(s.in_flight + s.buffered_ahead, 0u);
  movie.sess->refusal = C2MS_UNAUTHORIZED;  // a refused play is not served from memory either
  EXPECT_EQ(c2ms_sess_read_at(movie.sess, 1000, buf, 1000, 50), C2MS_UNAUTHORIZED);
  EXPECT_EQ(c2ms_sess_read(movie.sess, buf, 1000, 0), C2MS_UNAUTHORIZED);
  movie.sess->refusal = 0;
}

TEST(Index, WalkAsksForHeadersAlone) {
  Movie movie(ftyp() + box("mdat", noise(5'000'000)) + moov(60'000) + box("free", noise(5'000)));
  movie.server.add_index(movie.id);
  movie.server.set_delay(refserver::entry_server, 20);
  for (int i = 0; i < 4; ++i) movie.server.set_delay(i, 20);
  movie.open();
  ASSERT_EQ(c2ms_sess_idx_open_asyn(movie.sess, nullptr), C2MS_CACHING);
  movie.server.clear_log();
  int result = C2MS_CACHING;
  std::set<uint64_t> asked;  // places: a slow answer's may be asked for twice
  ASSERT_TRUE(eventually([&] {
    asked.clear();
    for (const auto &request : movie.server.log())
      if (request.command == 3 && request.fid == movie.id) asked.insert(request.offset);
    result = c2ms_sess_idx_open_asyn(movie.sess, nullptr);
    return result != C2MS_CACHING;
  }));
  ASSERT_GT(result, 0);
  // The packs of three headers, counted before the call that ended the walk.
  EXPECT_LE(asked.size(), 3u);
}

// Cancel is on for a moment while an index that takes its time is unpacked.
TEST(Index, APulseOfCancelEndsTheUnpacking) {
  Movie movie(noise(100'000), "film.mkv");
  movie.set_index(refserver::pack_index(std::string(40 << 20, '\0')));
  movie.open();
  const double whole = took([&] { ASSERT_EQ(c2ms_sess_idx_open(movie.sess, nullptr), 0); });
  for (const opener open : both_opens) {
    ASSERT_EQ(c2ms_sess_idx_close(movie.sess), 0);
    int result = 0;
    Threads waiting(1, [&](int) { result = open(movie.sess, nullptr); });
    std::this_thread::sleep_for(std::chrono::duration<double>(whole / 3));
    ASSERT_EQ(c2ms_sess_cancel(movie.sess, 1), 0);
    ASSERT_EQ(c2ms_sess_cancel(movie.sess, 0), 0);
    waiting.join();
    EXPECT_EQ(result, C2MS_CLOSED) << "of " << whole << " s";
  }
}

TEST(Index, OpenEndsWithoutServers) {
  Movie movie(ftyp() + box("mdat", noise(60'000)) + moov(50'000));
  movie.library.get()->patience.index_open_ms = 1500;
  movie.library.get()->patience.index_receive_ms = 500;
  movie.open_indexed();
  movie.server.kill_all();
  // One deadline for all of it.
  const double seconds = took([&] { EXPECT_EQ(c2ms_sess_idx_open(movie.sess, nullptr), -201); });
  EXPECT_TRUE(seconds >= 1.49 && seconds < 1.5 + 0.5 * slack()) << seconds;
}

}  // namespace
}  // namespace player
