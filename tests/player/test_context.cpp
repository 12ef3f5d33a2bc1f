// Contexts at their limits: descriptors, many at once, names that lead nowhere, an identity found
// late.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>

#include "c2ms.h"
#include "c2ms/core/context.h"
#include "c2ms/core/identity.h"
#include "c2ms/core/records.h"
#include "c2ms/session/object.h"
#include "support/support.h"

namespace {

c2ms_mgmt *make(const uint8_t *hid = nullptr) {
  c2ms_set_diag(nullptr, nullptr);
  return c2ms_mgmt_init(nullptr, 1, 2, hid, 0);
}

TEST(Context, WithoutDescriptorsThereIsNoneAndTheProcessLives) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const struct {
    const char *what;
    rlim_t limit;
    int opened;
  } rows[] = {{"few free", 10, 0}, {"none below 1024 free", limit.rlim_max, 1030}};
  for (const auto &row : rows) {
    EXPECT_EQ(in_child([&] {
                const rlimit own{row.limit, limit.rlim_max};
                if (setrlimit(RLIMIT_NOFILE, &own) != 0) return 9;
                for (int i = 0; i < row.opened; ++i) {
                  if (dup(0) < 0) return 8;
                }
                return make() == nullptr ? 0 : 7;
              }),
              0)
        << row.what;
  }
}

TEST(Context, SixtyFourServeAtOnce) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = std::max<rlim_t>(limit.rlim_cur, std::min<rlim_t>(limit.rlim_max, 2048));
  setrlimit(RLIMIT_NOFILE, &limit);
  std::vector<c2ms_mgmt *> all;
  std::atomic<int> fired{0};
  for (int i = 0; i < 64; ++i) {
    all.push_back(make());
    ASSERT_NE(all.back(), nullptr) << i;
    const auto count = [](void *arg, void *, int, int) {
      return ++*static_cast<std::atomic<int> *>(arg);
    };
    EXPECT_NE(StartTimer2(all.back()->probe, 1, 0, 0, count, &fired), nullptr);
  }
  EXPECT_TRUE(eventually([&] { return fired == 64; })) << fired;
  for (c2ms_mgmt *mgmt : all) c2ms_mgmt_clean(mgmt);
}

// What it says asks for the configuration's lock.
TEST(Context, ABadFileIsToldToThePlayerAloneWithNoLockHeld) {
  const Folder folder;
  const std::string path = folder / "conf";
  ASSERT_LT(path.size(), 64u);
  write_file(path, "Entry Server = x\nno entry\n");
  struct Player {
    c2ms_mgmt *mgmt;
    std::string said;
  } player{};
  testing::internal::CaptureStdout();
  c2ms_set_diag(
      [](void *arg, const char *line) {
        auto *const self = static_cast<Player *>(arg);
        self->said += line;
        if (self->mgmt != nullptr) c2ms::entry_server(self->mgmt);
      },
      &player);
  player.mgmt = c2ms_mgmt_init(path.c_str(), 1, 2, nullptr, 0);
  EXPECT_EQ(c2ms_mgmt_readconf(player.mgmt), 0);
  const std::string line = "profile " + path + " format not support\n";
  EXPECT_EQ(player.said, line + line);
  c2ms_mgmt_clean(player.mgmt);
  c2ms_set_diag(nullptr, nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(Context, NamesThatLeadNowhereAreNoAddressAndNoCrash) {
  const auto entry = g_entry_server, perf = g_perf_server;
  for (const char *name : {static_cast<const char *>(nullptr), "no-such.invalid"}) {
    g_entry_server = g_perf_server = name;
    c2ms_mgmt *const mgmt = make();
    EXPECT_STREQ(c2ms::entry_server(mgmt).text, name != nullptr ? name : "");
    EXPECT_EQ(mgmt->perf_server_ip, 0u) << "not the broadcast address";
    c2ms_mgmt_clean(mgmt);
  }
  g_entry_server = entry;
  g_perf_server = perf;
}

// As after a start without a network: one thread finds the identity while others ask for it.
TEST(Context, AnIdentityThatIsFoundLateIsWholeAndAPlayersIdStays) {
  const uint8_t own[20] = {0, 0, 0, 0, 0, 0, 7, 8, 9};
  for (const uint8_t *given : {static_cast<const uint8_t *>(nullptr), own}) {
    c2ms_mgmt *const mgmt = make(given);
    const std::string address = c2ms_localip(mgmt);
    mgmt->local_ip = 0;
    std::memset(mgmt->local_ip_text, 0, sizeof mgmt->local_ip_text);
    if (given == nullptr) {
      std::memset(mgmt->hid, 0, sizeof mgmt->hid);
      const adif::Guard lock(mgmt->identity_lock);
      mgmt->identity_asked_at_us = 0;
    }
    c2ms_sess *const sess = c2ms_sess_fetch(mgmt);
    Threads(4, [&](int i) {
      for (int n = 0; n < 200; ++n) {
        if (i == 0) c2ms::current_identity(mgmt);
        const std::string seen = c2ms_localip(mgmt), nat = c2ms_natip(mgmt);
        EXPECT_TRUE(seen.empty() || seen == address) << seen;
        EXPECT_TRUE(nat == "0.0.0.0" || nat == address) << nat;
        const uint8_t first = c2ms_hid(mgmt)[0], seventh = c2ms_hid(mgmt)[6];
        EXPECT_TRUE(given == nullptr ? seventh == 0 : first == 0 && seventh == 7);
        uint8_t digest[16];
        if (i == 1) c2ms_sess_random(sess, digest);
      }
    }).join();
    EXPECT_EQ(c2ms_localip(mgmt), given == nullptr ? address : "");
    c2ms_sess_close(sess);
    c2ms_mgmt_readhid(mgmt);
    EXPECT_TRUE(given == nullptr || std::memcmp(c2ms_hid(mgmt), own, sizeof own) == 0);
    c2ms_mgmt_clean(mgmt);
  }
}

}  // namespace
