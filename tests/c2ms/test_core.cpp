// The session core's parts by themselves: wire format, statistics, orders, lists, addresses.
#include <arpa/inet.h>

#include <limits>
#include <mutex>
#include <numeric>

#include "c2ms/core/diag.h"
#include "c2ms/core/identity.h"
#include "c2ms/core/records.h"
#include "c2ms/core/registry.h"
#include "c2ms/core/servers.h"
#include "c2ms/core/strand_hold.h"
#include "c2ms/fetch/dispatch.h"
#include "c2ms/fetch/node.h"
#include "c2ms/fetch/node_list.h"
#include "c2ms/fetch/node_record.h"
#include "c2ms/fetch/node_recv.h"
#include "c2ms/fetch/unit.h"
#include "c2ms/session/object.h"
#include "c2ms/session/pump.h"
#include "c2ms/wire/pdu.h"
#include "crypto/des.h"
#include "local.h"

namespace {

class Core : public Local {};

TEST_F(Core, RequestsByteByByte) {
  const std::string identity =
      "0000001e"                                  // client version 30
      "31302e312e312e323030000000000000"          // "10.1.1.200"
      "f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff00010203"  // hardware id
      "1122334455667788"
      "a0a0a0a0a0a0a0a0a0a0a0a0a0a0a0a0"
      "ffffffff80000001"
      "00000009";
  std::fill_n(sess->auth, 16, uint8_t{0xa0});
  uint8_t buf[256];
  c2ms_pdu pdu;
  ASSERT_EQ(c2ms_pdu_init(sess, &pdu, C2MS_GET_SRVLIST_REQ), 0);
  ASSERT_EQ(c2ms_pdu_encode(&pdu, buf, sizeof buf), 106);
  EXPECT_EQ(to_hex(buf, 106),
            "0000006a00000001000000010001" + identity + "0102030405060708090a0b0c0d0e0f10");
  // low(1 + 106), 10, 200, f0 + 01, f1 + 02, 88, fid bytes 7 and 8
  EXPECT_EQ(to_hex(c2ms_pdu_key(&pdu), 8), "6b0ac8f1f3880809");
  ASSERT_EQ(c2ms_pdu_init(sess, &pdu, C2MS_GET_MEDIA_REQ), 0);
  std::memset(pdu.fid, 0xee, sizeof pdu.fid);
  pdu.range_offset = 0x0123456789abcdef;
  pdu.range_length = 65536;
  pdu.range_flag = 5;
  ASSERT_EQ(c2ms_pdu_encode(&pdu, buf, sizeof buf), 119);
  EXPECT_EQ(to_hex(buf, 119), "0000007700000003000000020001" + identity +
                                  "eeeeeeeeeeeeeeeeeeeeeeeeeeeeeeee0123456789abcdef0001000005");
  EXPECT_EQ(c2ms_pdu_encode(&pdu, buf, 118), -100);
  const std::pair<const char *, int> keys[] = {
      {"1.2.3.4", 3}, {"10.1.1.200", 200}, {"1.1.", 0}, {"192.168.1.77", 77}, {"", 0}};
  for (const auto &[ip, byte2] : keys) {
    std::memset(pdu.local_ip, 0, sizeof pdu.local_ip);
    std::strcpy(pdu.local_ip, ip);
    c2ms_pdu_build_key(&pdu, sess->fid);
    EXPECT_EQ(pdu.key[2], byte2) << ip;
  }
}

TEST_F(Core, BodiesCutAtEveryByte) {
  const std::vector<uint8_t> list = {0, 6, 127, 0, 0, 1, 0, 80, 2, 0, 5,
                                     0, 0, 0,   0, 0, 0, 0, 3,  1, 0, 0};
  c2ms::list_entry entries[c2ms::max_list_entries];
  for (int length = 0; length <= static_cast<int>(list.size()); ++length) {
    // The sanitizer guards its end.
    const std::vector<uint8_t> cut(list.begin(), list.begin() + length);
    EXPECT_EQ(c2ms::parse_server_list(cut.data(), length, entries),
              length < 2 ? -1 : (length - 2) / 10);
  }
  EXPECT_EQ(entries[0].address, 0x7f000001u);
  EXPECT_EQ(entries[0].port, 80);
  EXPECT_EQ(entries[1].load, 256);
  c2ms::description media;
  std::vector<uint8_t> body(69);
  std::iota(body.begin(), body.end(), uint8_t{1});
  for (int length = 0; length <= 69; ++length) {
    const std::vector<uint8_t> cut(body.begin(), body.begin() + length);
    EXPECT_EQ(c2ms::parse_description(cut.data(), length, &media), length >= 67);
  }
  EXPECT_EQ(std::strlen(media.name), 36u);
  EXPECT_EQ(media.size, 0x25262728292a2b2cu);
  EXPECT_TRUE(media.name[0] == 1 && media.type == 0x2d && media.idx_len == 0x2e2f3031);
  EXPECT_TRUE(media.idx_fid[15] == 0x41 && media.load == 0x4243);
  body[36] = 0x80;  // no file is that long
  EXPECT_FALSE(c2ms::parse_description(body.data(), 69, &media));
}

TEST_F(Core, EncipheredBodies) {
  c2ms_pdu request;
  ASSERT_EQ(c2ms_pdu_init(sess, &request, C2MS_DESC_MEDIA_REQ), 0);
  const uint8_t clear[5] = {1, 2, 3, 4, 5};
  for (const bool weak : {false, true}) {
    if (weak) std::memset(request.key, 1, sizeof request.key);
    des_context cipher;
    DesSetKey(&cipher, request.key);
    uint8_t sealed[16], scratch[16];
    int length = 0;
    ASSERT_EQ(DesEncrypt(&cipher, clear, 5, sealed, &length), 0);
    const uint8_t *plain = nullptr;
    ASSERT_EQ(c2ms::plain_body(request, 1, sealed, length, scratch, &plain), 5);
    EXPECT_EQ(std::memcmp(plain, clear, 5), 0);
    EXPECT_EQ(c2ms::plain_body(request, 1, sealed, length - 1, scratch, &plain), -1);
    EXPECT_EQ(c2ms::plain_body(request, 1, sealed, 0, scratch, &plain), -1);
    EXPECT_EQ(c2ms::plain_body(request, 0, clear, 5, scratch, &plain), 5);
  }
}

TEST_F(Core, StatisticsOfTransfers) {
  const c2ms::StrandHold strand(sess);
  c2ms_node *const node = c2ms_node_fetch(sess);
  c2ms_unit *const unit = c2ms_unit_fetch(sess);
  unit->received = 1'000'000;
  uint8_t header[37] = {};
  putnLastBytes(&unit->frame, header, sizeof header);
  const auto transfer = [&](timeval sent, timeval first, timeval end) {
    unit->sent_time = sent, unit->first_time = first, unit->end_time = end;
    EXPECT_EQ(c2ms_node_perf_statistic(node, unit), 0);
    return node->perf.RTT;
  };
  EXPECT_EQ(transfer({1000, 800'000}, {1001, 0}, {1003, 300'000}), 2'500'000);
  EXPECT_EQ(node->perf.AvgRTT, 2'500'000);
  EXPECT_NEAR(node->perf.Speed, 400.0148, 1e-9);
  // A transfer with no positive total counts its first byte; the seconds wrap as servers know it.
  EXPECT_EQ(transfer({1000, 800'000}, {1001, 0}, {999, 0}), 200'000);
  EXPECT_EQ(transfer({1000, 0}, {1000, 0}, {5295, 0}), static_cast<int32_t>(4295u * 1'000'000u));
  EXPECT_EQ(node->perf.TN, 3);
  c2ms_unit_recycle(unit);

  // Fastest first; a NaN counts as nothing.
  c2ms_node *const other = c2ms_node_fetch(sess);
  other->perf.AvgSpeed = std::numeric_limits<double>::quiet_NaN();
  node->perf.AvgSpeed = 2;
  EXPECT_EQ(c2ms_node_cmp_node_by_perf(&node, &other), -1);
  EXPECT_EQ(c2ms_node_cmp_node_by_perf(&other, &node), 1);
  node->perf.AvgSpeed = 0;
  EXPECT_EQ(c2ms_node_cmp_node_by_perf(&other, &node), 0);
  const c2ms_iport_key key{5, 80};
  const auto order_of = [&](uint32_t ip, uint16_t port) {
    node->ip = ip, node->port = port;
    return c2ms_node_cmp_iport(node, &key);
  };
  EXPECT_EQ(order_of(5, 80), 0);
  EXPECT_EQ(order_of(5, 79), -1);
  EXPECT_EQ(order_of(0xff000000u, 79), 1) << "unsigned";

  node->type = other->type = c2ms::node_serves_media;
  c2ms_sess_node_add(sess, node);
  EXPECT_EQ(c2ms_sess_fasttime(nullptr), 1'000'000);
  node->perf = {};
  EXPECT_EQ(c2ms_sess_fasttime(sess), 20'000'000);
  node->perf.TN = 1, node->perf.AccTime = 50'000;
  EXPECT_EQ(c2ms_sess_fasttime(sess), 200'000);
  c2ms_node_recycle(node);
  c2ms_node_recycle(other);
  EXPECT_EQ(c2ms_sess_fasttime(sess), 1'000'000);
  EXPECT_EQ(c2ms_sess_average_recvspeed(sess), 0);
  EXPECT_EQ(c2ms_sess_average_recvspeed(nullptr), -1.0);
}

// The counters follow the states, whatever the order, and end where they began.
TEST_F(Core, CountersFollowStates) {
  const c2ms::StrandHold strand(sess);
  std::vector<c2ms_node *> nodes;
  for (int i = 0; i < 4; ++i) {
    nodes.push_back(c2ms_node_fetch(sess));
    nodes.back()->type = i == 3 ? c2ms::node_serves_list : c2ms::node_serves_media;
  }
  Random random;
  for (int step = 0; step < 10'000; ++step) {
    c2ms_node_state_to(nodes[static_cast<size_t>(random.below(4))],
                       static_cast<uint32_t>(random.below(8)));
    int ready = 0, usable = 0;
    for (int i = 0; i < 3; ++i) {
      ready += nodes[static_cast<size_t>(i)]->state == C2MS_NODE_READY;
      usable += nodes[static_cast<size_t>(i)]->state >= C2MS_NODE_READY;
    }
    ASSERT_EQ(sess->ready_num, ready);
    ASSERT_EQ(sess->usable_num, usable);
    ASSERT_EQ(sess->has_active, usable > 0 ? 1 : 0);
  }
  for (c2ms_node *node : nodes) c2ms_node_recycle(node);
  EXPECT_EQ(sess->ready_num + sess->usable_num + sess->has_active, 0);
}

TEST_F(Core, RegistriesAndServers) {
  c2ms_sess *const second = c2ms_sess_fetch(mgmt);
  c2ms_sess *const third = c2ms_sess_fetch(mgmt);
  EXPECT_EQ(sess->sess_id, 1u);
  EXPECT_EQ(third->sess_id, 3u);
  EXPECT_EQ(c2ms_sess_get(mgmt, 2), second);
  c2ms_sess_close(second);
  EXPECT_EQ(c2ms_sess_get(mgmt, 2), nullptr);
  EXPECT_EQ(c2ms_sess_del(mgmt, second), nullptr);
  c2ms_sess_close(third);
  third->sess_id = sess->sess_id.load();  // an old pointer to what somebody else is by now
  EXPECT_EQ(c2ms_sess_del(mgmt, third), nullptr);
  EXPECT_EQ(c2ms_sess_get(mgmt, sess->sess_id), sess);
  c2ms_sess_server_add(sess, "first", 7, 80, 2);
  c2ms_sess_server_add(sess, "", 7, 80, 2);
  c2ms_sess_server_add(sess, "last", 7, 80, 2);
  c2ms_sess_server_add(sess, "other", 7, 80, 1);
  const c2ms_server *const server = c2ms_sess_server_get(sess, 7, 80, 2);
  EXPECT_EQ(server->count, 3u);
  EXPECT_STREQ(server->name, "last");
  EXPECT_TRUE(c2ms_sess_server_lists(sess, 7, 80));
  EXPECT_FALSE(c2ms_sess_server_lists(sess, 7, 81));
}

// Lines of a session come in the order of what happened, whoever delivers them; a timer of a
// session that is gone and the end of a brake are told as what they are.
TEST_F(Core, LinesAreToldInOrder) {
  static std::mutex lock;
  static std::vector<std::string> lines;
  lines.clear();
  const auto keep = [](void *, const char *line) {
    const std::lock_guard guard(lock);
    lines.emplace_back(line);
  };
  c2ms_set_diag(keep, nullptr);
  int said = 0;
  Threads(4, [&](int) {
    for (int i = 0; i < 2000; ++i) {
      const c2ms::Turn strand(sess);
      sess->strand.spoke();
      c2ms::diag("%d", said++);
    }
  }).join();
  ASSERT_EQ(lines.size(), 8000u);
  for (size_t i = 0; i < lines.size(); ++i) ASSERT_EQ(lines[i], std::to_string(i));
  const struct {
    uint32_t command, session, state;
    const char *line;
  } rows[] = {{7563, 999, 0, "\nc2ms_pump: IOE_TIMEOUT recved, sessid=999 timercmd=7563"},
              {7564, 999, 0, ""},
              {7550, 0, C2MS_NODE_READY, ""},
              {7550, 0, C2MS_NODE_CONNECTING, "t_build_node_conn timeout, now node"}};
  for (const auto &row : rows) {
    lines.clear();
    {
      const c2ms::Turn strand(sess);
      c2ms_node *const node = c2ms_node_fetch(sess);
      node->type = c2ms::node_serves_media;
      c2ms_node_state_to(node, row.state);
      const uint32_t id = row.session != 0 ? row.session : node->node_id;
      rac_timer *const timer =
          StartTimer2(mgmt->probe, 1'000'000, row.command, id, c2ms_pump, mgmt);
      node->connect_timer = timer;
      c2ms_pump(mgmt, timer, 9, 64);
      StopTimer(timer);
      c2ms_node_recycle(node);
    }
    EXPECT_EQ(lines.empty() ? "" : lines[0].substr(0, std::strlen(row.line)), row.line);
    EXPECT_EQ(lines.empty(), *row.line == 0) << row.command;
  }
}

// Devices and timers that a node or session has had before change nothing of it.
TEST_F(Core, FormerHandlesAreIgnored) {
  const c2ms::Turn strand(sess);
  const uint32_t loopback = htonl(INADDR_LOOPBACK);
  c2ms_node *const node = c2ms_node_fetch(sess);
  node->type = c2ms::node_serves_media;
  c2ms_node_state_to(node, C2MS_NODE_READY);
  const std::pair<int, int> events[] = {{1, -130}, {2, 0}, {4, -120}, {10, -141}};
  for (const auto &[event, result] : events) {
    rac_connection *const former =
        UDPClient(mgmt->probe, &loopback, 9, node->node_id, nullptr, c2ms_pump, mgmt);
    ASSERT_NE(former, nullptr);
    EXPECT_EQ(c2ms_pump(mgmt, former, event, 2), result) << event;
    EXPECT_EQ(node->state, C2MS_NODE_READY) << event;
    probe_barrier(mgmt->probe);
    EXPECT_EQ(GetDeviceFD(former), -1) << "nobody listens to it any more";
  }
  const auto expire_former = [&](uint32_t command, uint32_t id) {
    rac_timer *const former = StartTimer2(mgmt->probe, 1'000'000, command, id, c2ms_pump, mgmt);
    EXPECT_EQ(c2ms_pump(mgmt, former, 9, 64), 0) << command;
    StopTimer(former);
  };
  rac_timer *const of_nobody = StartTimer2(mgmt->probe, 1'000'000, 7563, 999, c2ms_pump, mgmt);
  EXPECT_EQ(c2ms_pump(mgmt, of_nobody, 9, 64), -140);
  StopTimer(of_nobody);
  expire_former(c2ms::timer_node_life, node->node_id);
  EXPECT_EQ(node->state, C2MS_NODE_READY);
  c2ms_node_state_to(node, C2MS_NODE_DISCONNECTED);
  expire_former(c2ms::timer_node_connect, node->node_id);
  EXPECT_EQ(node->state, C2MS_NODE_DISCONNECTED);
  expire_former(c2ms::timer_sess_check, sess->sess_id);
  expire_former(c2ms::timer_speed_count, sess->sess_id);
  EXPECT_EQ(sess->check_timer, nullptr);
  EXPECT_EQ(sess->speed_timer, nullptr);
}

// No timer was free when one was due: whichever is left brings all others back when it expires, and
// so does a reopen.
TEST_F(Core, TimersThatAreMissingComeBack) {
  const c2ms::Turn strand(sess);
  const auto add = [&](uint8_t type, uint32_t state) {
    c2ms_node *const node = c2ms_node_fetch(sess);
    node->type = type, node->ip = htonl(INADDR_LOOPBACK), node->port = 9 + state;
    c2ms_sess_node_add(sess, node);
    c2ms_node_state_to(node, state);
    return node;
  };
  sess->hook_registered = 1;
  c2ms_node *const entry = sess->entry_node = add(1, C2MS_NODE_DISCONNECTED);
  c2ms_node *const hangs = add(2, C2MS_NODE_CONNECTING);
  c2ms_node *const media = add(2, C2MS_NODE_READY);
  const std::pair<const char *, rac_timer **> all[] = {{"check", &sess->check_timer},
                                                       {"speed", &sess->speed_timer},
                                                       {"entry", &entry->connect_timer},
                                                       {"hangs", &hangs->connect_timer},
                                                       {"life", &media->life_timer}};
  for (const auto &[left, survivor] : all) {
    SCOPED_TRACE(left);
    c2ms_node_state_to(media, C2MS_NODE_READY);
    entry->failures = 0;
    media->device = UDPClient(mgmt->probe, &media->ip, 9, 0, nullptr, c2ms_pump, mgmt);
    EXPECT_EQ(c2ms_sess_reopen(sess), 0);
    for (const auto &[name, timer] : all) {
      EXPECT_NE(*timer, nullptr) << name << " is missing after a reopen";
      if (timer != survivor) StopTimer(std::exchange(*timer, nullptr));
    }
    EXPECT_EQ(c2ms_pump(mgmt, *survivor, 9, 64), 0);
    for (const auto &[name, timer] : all) EXPECT_NE(*timer, nullptr) << name << " stays lost";
  }
}

// An entry of a list becomes a node, unless it serves lists alone and has been asked for its own.
TEST_F(Core, ListEntriesOfEveryType) {
  const c2ms::Turn strand(sess);
  c2ms_node *const sender = c2ms_node_fetch(sess);
  sender->level = 1;
  const std::pair<uint8_t, int> rows[] = {{0, 1}, {4, 1}, {0x80, 1}, {2, 1}, {3, 1}, {1, 0}};
  uint8_t port = 9;
  for (const auto &[type, nodes] : rows) {
    const uint8_t body[] = {0, 0, 0, 30, 0x80, 0,   0, 1, 0, 0, 0,      1,    0, 1, 0,
                            0, 0, 0, 0,  1,    127, 0, 0, 1, 0, ++port, type, 0, 0, 0};
    c2ms_sess_server_add(sess, "", htonl(INADDR_LOOPBACK), port, c2ms::node_serves_list);
    c2ms_unit *const unit = &sender->srvlist_unit;
    c2ms_unit_init_srvlist(sender, unit);
    putnLastBytes(&unit->frame, body, sizeof body);
    unit->response.total_length = sizeof body;
    unit->state = UNIT_END;
    EXPECT_EQ(c2ms_node_recv_srvlist(sess, sender, unit, nullptr), 0);
    const bool opened = c2ms_sess_node_find(sess, htonl(INADDR_LOOPBACK), port) != nullptr;
    EXPECT_EQ(opened, nodes == 1) << int{type};
  }
  c2ms_node_recycle(sender);
}

TEST_F(Core, NodesOfASessionAreLimited) {
  const c2ms::Turn strand(sess);
  for (uint32_t i = 0; i < 20; ++i) {
    const bool opened = c2ms_node_open(sess, nullptr, htonl(INADDR_LOOPBACK), 9 + i,
                                       c2ms::node_serves_media, 0, 1) != nullptr;
    EXPECT_EQ(opened, i < 8) << i;
  }
  EXPECT_EQ(c2ms_sess_node_num(sess), 8);
}

TEST(Identity, HardwareAddresses) {
  const std::pair<std::string, const char *> cases[] = {{"00:1a:2B:03:04:05", "001a2b030405"},
                                                        {"1::2", "010002000000"},
                                                        {"abc", "bc0000000000"},
                                                        {"", "000000000000"},
                                                        {"1:2:3:4:5:6:7", "010203040506"}};
  for (const auto &[text, bytes] : cases) {
    uint8_t out[6];
    parse_hwaddr(out, sizeof out, text.c_str(), static_cast<int>(text.size()));
    EXPECT_EQ(to_hex(out, 6), bytes) << text;
  }
}

}  // namespace
