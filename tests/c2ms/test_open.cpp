// Opening: what is accepted, which error each failure gives and how soon.
#include "adif/tsock.h"
#include "c2ms/core/context.h"
#include "c2ms/core/records.h"
#include "c2ms/fetch/dispatch.h"
#include "c2ms/fetch/node.h"
#include "c2ms/session/object.h"
#include "c2ms/session/url.h"
#include "player.h"

namespace player {
namespace {

class Opening : public Served {
 protected:
  Opening() { library = std::make_unique<Library>(); }
  int32_t open_error(const std::string &url, int32_t (*cb)(void) = nullptr) const {
    int32_t error = 1;
    c2ms_sess *const sess = c2ms_sess_open1(library->get(), url.c_str(), &error, cb);
    EXPECT_EQ(sess != nullptr, error == 0);
    if (sess != nullptr) c2ms_sess_close(sess);
    return error;
  }
};

TEST_F(Opening, UrlErrorsComeBeforeAnyTraffic) {
  // Whoever connects to it would be seen.
  const int listener = tcp_server_create("127.0.0.1", 0);
  const std::string here = "127.0.0.1:" + std::to_string(port_of(listener));
  const struct {
    std::string url;
    int32_t error;
  } cases[] = {
      {"", C2MS_INVALID_URL},
      {"kesp://", C2MS_INVALID_URL},
      {" \t\r\n \t\r\n", C2MS_INVALID_URL},
      {"kesp://host:65536/x", C2MS_INVALID_URL},
      {"kesp://host:-1/x", C2MS_INVALID_URL},
      {"kesp://host:99999999999999999999/x", C2MS_INVALID_URL},
      {"http://" + here + "/film?fid=00", C2MS_UNSUPPORTED_SCHEME},
      {here + "/film", C2MS_UNSUPPORTED_SCHEME},
      {"kespx://" + here + "/x", C2MS_UNSUPPORTED_SCHEME},
      {"kes://" + here + "/film", C2MS_UNSUPPORTED_SCHEME},
      {std::string(4096, '/'), C2MS_UNSUPPORTED_SCHEME},
  };
  for (const auto &c : cases) EXPECT_EQ(open_error(c.url), c.error) << c.url;
  int32_t error = 0;
  EXPECT_EQ(c2ms_sess_open(nullptr, "kesp://host/film", &error), nullptr);
  EXPECT_EQ(error, C2MS_INVALID_PARAMETER);
  EXPECT_EQ(c2ms_sess_open(library->get(), nullptr, &error), nullptr);
  EXPECT_EQ(error, C2MS_INVALID_URL);
  EXPECT_STREQ(c2ms_sess_error(-1006), "Session open timeout");
  EXPECT_STREQ(c2ms_sess_error(C2MS_NO_CIPHERS), "No DES or MD5");
  EXPECT_STREQ(c2ms_sess_error(C2MS_NO_CIPHERS - 1), "");
  EXPECT_STREQ(c2ms_sess_error(5), "");
  EXPECT_STREQ(c2ms_read_text(C2MS_END), "End of file");
  EXPECT_STREQ(c2ms_idx_text(C2MS_IDX_TIMEOUT), "Index not complete in time");
  for (const auto text : {c2ms_read_text, c2ms_idx_text}) {
    EXPECT_STREQ(text(C2MS_UNAUTHORIZED), "User unauthorized");
    EXPECT_STREQ(text(4096), "OK");
    EXPECT_STREQ(text(-3), "Unknown result");
  }
  EXPECT_EQ(sock_read_ready(listener, 1), 0);
  close(listener);
}

TEST_F(Opening, UrlsAreTakenApart) {
  const auto parse = [&](const std::string &url) {
    c2ms_sess *const sess = c2ms_sess_fetch(library->get());
    std::strncpy(sess->url, url.c_str(), sizeof sess->url - 1);
    EXPECT_EQ(c2ms_sess_para_parse(sess), 0);
    return std::unique_ptr<c2ms_sess, int (*)(c2ms_sess *)>(sess, c2ms_sess_close);
  };
  const auto text = [](const char *at, int32_t len) {
    return std::string(at, static_cast<size_t>(len));
  };
  const std::string digits = "00112233445566778899aabbccddeeff";
  auto sess = parse("  KEDP://10.0.0.5:8000/x/y?a=1;fid=" + digits +
                    "ff;stamp=99999999999;keyid=3;auth=0F1g");
  EXPECT_EQ(text(sess->scheme, sess->scheme_len), "KEDP://");
  EXPECT_STREQ(sess->host, "10.0.0.5");
  EXPECT_EQ(sess->port, 8000u);
  EXPECT_EQ(text(sess->path, sess->path_len), "/x/y");
  EXPECT_EQ(to_hex(sess->fid, 17), digits + "00") << "34 digits fill 16 bytes and no more";
  EXPECT_EQ(sess->stamp, UINT32_MAX);
  EXPECT_EQ(sess->keyid, 3u);
  EXPECT_EQ(sess->auth[0], 0x0f);
  sess = parse("kesp:///media?stamp=no");
  EXPECT_STREQ(sess->host, g_entry_server);
  EXPECT_EQ(sess->port, 3528u);
  EXPECT_EQ(sess->stamp, 0u);
  EXPECT_EQ(sess->fid[0], 0);
  sess = parse("kesp://" + std::string(100, 'h') + ":/film");
  EXPECT_EQ(std::string(sess->host), std::string(63, 'h'));
  EXPECT_EQ(sess->port, 3528u);
}

TEST_F(Opening, EntryServersThatCannotBeReached) {
  const int listener = tcp_server_create("127.0.0.1", 0);
  const std::string port = std::to_string(port_of(listener));
  close(listener);  // a port that refuses
  for (const std::string &host : {"127.0.0.1:" + port, std::string("300.1.1.1")}) {
    const std::string url = "kesp://" + host + "/film?fid=01";
    EXPECT_LT(took([&] { EXPECT_EQ(open_error(url), C2MS_ENTRY_UNAVAILABLE); }), 1.5) << host;
  }
}

TEST_F(Opening, RefusalsAndListsHaveTheirCodes) {
  using enum refserver::fault_kind;
  const struct {
    const char *what;
    bool entry;  // commits it, too, not the nodes alone
    refserver::fault order;
    int32_t error;
  } cases[] = {
      {"media missing", false, {refusal, 10}, C2MS_MEDIA_NOT_EXIST},
      {"unauthorised", false, {refusal, 20}, C2MS_UNAUTHORIZED},
      {"failed", true, {refusal, 30}, C2MS_AUTH_FAILED},
      {"in debt", true, {refusal, 40}, C2MS_IN_DEBT},
      {"a code of no meaning", true, {refusal, 2}, C2MS_OPEN_TIMEOUT},
      {"the largest code", false, {refusal, UINT32_MAX}, C2MS_OPEN_TIMEOUT},
      {"an empty list", true, {list_size, 0}, C2MS_OPEN_TIMEOUT},
      {"closed without an answer", true, {close_at}, C2MS_ENTRY_UNAVAILABLE},
      {"a list of 65535", true, {list_size, 65535}, C2MS_ENTRY_UNAVAILABLE},
      {"six entries", true, {list_size, 6}, 0},
      {"more entries than bytes", true, {list_count, 65535}, 0},
      {"no addresses", true, {list_zero, 1}, 0},
      {"duplicates", true, {list_duplicates}, 0},
      {"itself", true, {list_self}, 0},
      {"another description", false, {desc_type, 200}, 0},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    // Media servers that say of themselves that they serve lists are asked for theirs.
    const refserver::node_options both{.type = 3};
    start(1'000'000, {.nodes = 3, .node = {both, both, both}, .entry = both}, 0);
    for (int node = c.entry ? refserver::entry_server : 0; node < 3; ++node)
      server->set_fault(node, c.order);
    EXPECT_LT(took([&] { EXPECT_EQ(open_error(server->url(id)), c.error); }), 2.0);
    EXPECT_LT(server->totals().accepted, 40u);
    EXPECT_LT(server->totals().lists, 40u);
  }
}

TEST_F(Opening, ServersThatOnlyKnowOthersAreFew) {
  start(1'000'000);
  const c2ms::Turn strand(film->get());
  int opened = 0;
  for (uint32_t port = 1; port <= 40; ++port)
    opened += c2ms_node_open(film->get(), nullptr, htonl(0x7f000001), port, 1, 0, 2) != nullptr;
  EXPECT_EQ(opened, 16);
}

// The list takes 400 ms; servers that are known from the film before need not wait for it. It
// decides all the same: who is not on it is left, and a refusal ends what was begun.
TEST_F(Opening, TheNextFilmBeginsWithTheServersOfTheOneBefore) {
  start(1'000'000, {.nodes = 2, .entry = {.delay_ms = 400}}, 0);
  const auto open_for_400_ms = [&] {
    int32_t error = 0;
    c2ms_sess *const sess = c2ms_sess_open(library->get(), server->url(id).c_str(), &error);
    EXPECT_EQ(error, 0);
    std::this_thread::sleep_for(600ms);
    return sess;
  };
  EXPECT_GE(took([&] { EXPECT_EQ(open_error(server->url(id)), 0); }), 0.4);
  EXPECT_LT(took([&] { EXPECT_EQ(open_error(server->url(id)), 0); }), 0.4);

  c2ms_sess *sess = open_for_400_ms();
  ASSERT_NE(sess, nullptr);
  for (const int node : {0, 1}) EXPECT_EQ(server->totals(node).open, 1u);  // nobody is there twice
  c2ms_sess_close(sess);

  server->set_fault(refserver::entry_server, {.kind = refserver::fault_kind::list_duplicates});
  sess = open_for_400_ms();
  ASSERT_NE(sess, nullptr);
  EXPECT_TRUE(eventually([&] { return server->totals(1).open == 0; }));
  c2ms_sess_close(sess);

  server->set_fault(refserver::entry_server, {.kind = refserver::fault_kind::refusal, .value = 20});
  sess = open_for_400_ms();
  ASSERT_NE(sess, nullptr);
  char byte;
  ASSERT_EQ(c2ms_sess_cache_init(sess, 0), 0);
  ASSERT_EQ(c2ms_sess_range(sess, 0, 1'000'000), 0);
  EXPECT_EQ(c2ms_sess_read(sess, &byte, 1, 0), C2MS_UNAUTHORIZED);
  c2ms_sess_close(sess);
}

// All servers of the first list are dead; the next list names a living one. When none lives, the
// entry server is asked ever more rarely.
TEST_F(Opening, AnotherListIsAskedForWhenAllServersOfOneAreDead) {
  start(1'000'000, {.nodes = 2}, 0);
  server->kill_node(0);
  const auto lists = [&] { return server->totals(refserver::entry_server).lists; };
  server->set_fault(refserver::entry_server,
                    {.kind = refserver::fault_kind::list_duplicates, .count = 1});
  EXPECT_LT(took([&] { EXPECT_EQ(open_error(server->url(id)), 0); }), 2.0 * slack());
  EXPECT_EQ(lists(), 2u);
  server->kill_node(1);
  static int seconds;
  seconds = 0;
  const auto after_two = [] { return ++seconds < 2 ? int32_t{0} : int32_t{-1}; };
  EXPECT_EQ(open_error(server->url(id), after_two), C2MS_UNAUTHORIZED);
  EXPECT_GE(lists(), 2u + 3);
  EXPECT_LE(lists(), 2u + 4);
}

TEST_F(Opening, CallbackAndDeadline) {
  start(1'000'000, {.nodes = 2}, 0);
  on_all([&](int node) { server->set_fault(node, {.kind = refserver::fault_kind::mute}); });
  const auto stop = [] { return int32_t{-1}; };
  EXPECT_NEAR(took([&] { EXPECT_EQ(open_error(server->url(id), stop), C2MS_UNAUTHORIZED); }), 1.0,
              0.7);
}

TEST_F(Opening, ConfigurationNamesTheEntryServer) {
  start(100'000, {.nodes = 1}, 0);
  // The host is left out of the URL and comes from the file; the port stays.
  std::string bare = server->url(id);
  bare.erase(bare.find("127.0.0.1"), 9);
  const Folder folder;
  const std::string path = folder / "conf";
  write_file(
      path,
      "[Communication Option]\nEntry Server = 127.0.0.1\nBuild TCP Max Time = 0\nSession Check "
      "Time = 7\n");
  g_entry_server = "300.300.300.300";
  library = std::make_unique<Library>(0, path.c_str());
  EXPECT_EQ(open_error(bare), 0);
  EXPECT_EQ(library->get()->build_tcp_max_time, 10);
  EXPECT_EQ(library->get()->sess_check_time, 7);
  EXPECT_EQ(library->get()->mem_size, 8 << 20);
  write_file(path, "this is no configuration\n");  // leaves the defaults
  EXPECT_EQ(c2ms_mgmt_readconf(library->get()), 0);
  EXPECT_EQ(library->get()->sess_check_time, 5);
  EXPECT_EQ(open_error(bare), C2MS_ENTRY_UNAVAILABLE);
  g_entry_server = "127.0.0.1";
}

}  // namespace
}  // namespace player
