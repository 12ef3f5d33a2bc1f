// Devices: how connections end, stale handles, lost descriptors, exhausted pools.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <set>

#include "engine.h"
#include "eprobe/rac_connection.h"
#include "eprobe/rac_operate.h"

namespace {

uintptr_t slot_of(rac_connection *handle) {
  return reinterpret_cast<uintptr_t>(handle) & 1023;
}

std::vector<rac_connection *> hog_slots(rac_core *core) {
  std::vector<rac_connection *> hogged;
  while (rac_connection *c = rac_get_connection(core, -1)) hogged.push_back(c);
  return hogged;
}

class Devices : public testing::Test {
 protected:
  rac_connection *connect_to(uint16_t port, Recorder *to, uintptr_t para = 0) {
    int result = 1;
    rac_connection *device =
        ConnectRemote2(core, &loopback, port, para, &result, Recorder::on_event, to);
    EXPECT_EQ(result, device != nullptr ? 0 : -1);
    return device;
  }
  rac_connection *connect(Recorder *to, uintptr_t para = 0) {
    return connect_to(listener.port, to, para);
  }
  rac_connection *listen_for(Recorder *to) {
    return ListenRemote2(core, 0, 5, nullptr, Recorder::on_event, to);
  }

  /// Closed by its worker, and no callback under way.
  void remove_and_wait(rac_connection *device) {
    EXPECT_EQ(RemoveDevice(device), 0);
    EXPECT_EQ(probe_barrier(core), 0);
  }

  /// The second connection that the listener got is made, watched and read.
  void expect_alive(const Recorder &second) {
    EXPECT_TRUE(second.gets(IOE_CONNECTED, 1));
    close(accept(listener.fd, nullptr, nullptr));
    const int peer = accept(listener.fd, nullptr, nullptr);
    EXPECT_EQ(tcp_nb_send(peer, "x", 1), 1);
    EXPECT_TRUE(second.reads(1));
    close(peer);
  }

  Recorder recorder, other, third;
  Engine engine;
  rac_core *const core = engine.core;
  Listener listener;
};
using Connect = Devices;
using Remove = Devices;
using Exhausted = Devices;
using Listen = Devices;

TEST_F(Connect, MadeRefusedAndHanging) {
  rac_connection *device = connect(&recorder, 42);
  ASSERT_NE(device, nullptr);
  EXPECT_TRUE(recorder.gets(IOE_CONNECTED, 1));
  EXPECT_EQ(recorder.latest.load(), device);
  EXPECT_EQ(GetDevicePara(device), 42u);
  EXPECT_EQ(GetDeviceRemoteIP(device), loopback);
  EXPECT_EQ(GetDeviceRemotePort(device), listener.port);
  EXPECT_EQ(GetDeviceLocalIP(device), loopback);
  const int peer = accept(listener.fd, nullptr, nullptr);
  EXPECT_EQ(tcp_send(peer, "hello", 5, 1000, nullptr), 5);
  EXPECT_TRUE(recorder.reads(5));
  close(peer);  // the recorder removes the device when it reads the end
  EXPECT_TRUE(eventually([&] { return GetDeviceFD(device) == -1; }));

  const uint16_t dead_port = Listener().port;
  rac_connection *failed = connect_to(dead_port, &other);
  EXPECT_TRUE(other.gets(IOE_CONNECT_FAILED, 1));

  // Loopback drops the handshake of a listener whose queue is full.
  const int full = tcp_server_create("127.0.0.1", 0);
  listen(full, 0);
  const uint16_t port = port_of(full);
  std::vector<int> queue;
  do {
    queue.push_back(tcp_nb_connect2(loopback, port, nullptr));
    ASSERT_LT(queue.size(), 20u);
  } while (sock_write_ready(queue.back(), 200) == 1);
  rac_connection *stuck = connect_to(port, &third);
  pause_ms(200);
  EXPECT_EQ(other.of(IOE_CONNECT_FAILED), 1) << "a dead socket is not told twice";
  EXPECT_EQ(other.of(IOE_CONNECTED), 0);
  EXPECT_TRUE(eventually([&] { return GetDeviceTCPNum(core) == 2; })) << "refused and hanging";
  remove_and_wait(failed);
  remove_and_wait(stuck);
  EXPECT_EQ(GetDeviceTCPNum(core), 0);
  for (const auto &events : third.count) EXPECT_EQ(events, 0);
  for (int fd : queue) close(fd);
  close(full);
}

TEST_F(Connect, OnOneWorkerWhenAskedTo) {
  std::set<rac_base *> bases;
  int made = 0;
  for (const uint32_t worker : {9, 9, 9, 9, 9, 10}) {
    rac_connection *const device =
        ConnectRemoteAt(core, worker, &loopback, listener.port, 0, Recorder::on_event, &recorder);
    EXPECT_TRUE(recorder.gets(IOE_CONNECTED, ++made));
    bases.insert(core->connections[slot_of(device)].base);
    EXPECT_EQ(bases.size(), worker == 9 ? 1u : 2u);
  }
}

TEST_F(Remove, AnOldHandleDoesNotTouchTheNextOwner) {
  rac_connection *old = connect(&recorder);
  remove_and_wait(old);
  rac_connection *next = connect(&other, 7);
  ASSERT_EQ(slot_of(old), slot_of(next)) << "the test wants the same slot";
  EXPECT_EQ(RemoveDevice(old), 0);
  EXPECT_EQ(SetNotify(old, PROBE_READ_OFF), -1);
  EXPECT_EQ(SetDevicePara(old, 99), 0);
  EXPECT_EQ(AcceptRemote2(core, old, 0, nullptr, nullptr, nullptr), nullptr);
  EXPECT_EQ(GetDeviceFD(old), -1);
  EXPECT_EQ(GetDevicePara(old), 0u);
  EXPECT_EQ(GetDeviceLocalPort(old), 65535);
  probe_barrier(core);
  EXPECT_EQ(GetDevicePara(next), 7u);
  expect_alive(other);
}

TEST_F(Remove, RacingRemovalsCloseEachDeviceOnce) {
  const int before = open_descriptors();
  Threads(3, [&](int) {
    Recorder ignored;
    std::array<rac_connection *, 9> old{};
    for (size_t i = 0; i < 300; ++i) {
      rac_connection *device = connect(&ignored);
      const int peer = accept(listener.fd, nullptr, nullptr);
      std::thread rival([device] { RemoveDevice(device); });
      RemoveDevice(device);
      for (rac_connection *handle : old) RemoveDevice(handle);
      rival.join();
      old[i % old.size()] = device;
      close(peer);
    }
    probe_barrier(core);  // `ignored` goes away
  }).join();
  EXPECT_EQ(GetDeviceTCPNum(core), 0);
  EXPECT_EQ(open_descriptors(), before);
  for (uint32_t i = 0; i < core->nbases; ++i) EXPECT_EQ(core->bases[i].nconnections, 0u);
}

/// Who gets the number of a descriptor that somebody else has closed.
enum NextOwner { FILE_AFTER_REPORT, ENGINE, SOCKET_UNNOTICED };

class Lost : public Devices, public testing::WithParamInterface<NextOwner> {};

TEST_P(Lost, IsReportedOnceAndItsNumberLeftToTheNextOwner) {
  recorder.removes = false;
  rac_connection *device = connect(&recorder);
  ASSERT_TRUE(recorder.gets(IOE_CONNECTED, 1));
  const int fd = GetDeviceFD(device);
  close(fd);
  rac_connection *const next = GetParam() == ENGINE ? connect(&other) : nullptr;
  int file = GetParam() == SOCKET_UNNOTICED ? socket(AF_INET, SOCK_STREAM, 0) : -1;
  if (GetParam() != SOCKET_UNNOTICED) {
    EXPECT_TRUE(eventually([&] {
      probe_barrier(core);  // a wait under way does not notice, the next one does
      return recorder.of(IOE_INVALID_DEV) == 1;
    }));
    EXPECT_EQ(GetDeviceFD(device), -1);
    EXPECT_EQ(SetNotify(device, PROBE_READ_ON), -1);
  }
  if (GetParam() == FILE_AFTER_REPORT) file = open("/dev/null", O_RDONLY);
  ASSERT_EQ(next != nullptr ? GetDeviceFD(next) : file, fd) << "the test wants the same number";
  remove_and_wait(device);
  EXPECT_LE(recorder.of(IOE_INVALID_DEV), 1);
  EXPECT_NE(fcntl(fd, F_GETFD), -1) << "the number is its new owner's";
  if (next != nullptr) return expect_alive(other);
  close(file);
}

INSTANTIATE_TEST_SUITE_P(Owners, Lost,
                         testing::Values(FILE_AFTER_REPORT, ENGINE, SOCKET_UNNOTICED));

TEST_F(Exhausted, NoSlotNoRequestAndNoLowDescriptorGiveEverythingBack) {
  rac_connection *device = connect(&recorder);
  ASSERT_TRUE(recorder.gets(IOE_CONNECTED, 1));
  int result = 0;
  const int descriptors = open_descriptors();
  const auto handler = Recorder::on_event;
  const auto make_all = [&](const char *why) {
    SCOPED_TRACE(why);
    for (const rac_connection *made :
         {connect(&recorder), ListenRemote2(core, 0, 0, &result, handler, &recorder),
          ListenUDP2(core, 0, 0, &result, handler, &recorder),
          UDPClient(core, &loopback, 9, 0, &result, handler, &recorder)})
      EXPECT_EQ(made, nullptr);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(open_descriptors(), descriptors) << "all is closed again";
  };

  const auto hogged = hog_slots(core);
  make_all("no slot");
  for (rac_connection *c : hogged) rac_free_connection(core, c);

  std::vector<rac_operate *> requests;
  while (rac_operate *op = rac_operate_get(core, &core->connections[0])) requests.push_back(op);
  EXPECT_EQ(requests.size(), 512u);
  const uint32_t free_slots = core->free_connection_n;
  make_all("no request");
  EXPECT_EQ(core->free_connection_n, free_slots);
  EXPECT_EQ(SetNotify(device, PROBE_READ_OFF), -1);
  remove_and_wait(device);
  EXPECT_EQ(GetDeviceFD(device), -1) << "a removal needs no request";
  const auto spare_requests = [&] {
    rac_guard guard(core->operate_mutex);
    return core->free_operate_n;
  };
  const uint32_t spare = spare_requests(), all = core->operate_n;
  for (rac_operate *op : requests) rac_operate_free(core, op);
  EXPECT_EQ(spare_requests(), spare) << "it only ever falls: meant";
  EXPECT_EQ(core->operate_n, all + 512);

  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit raised{std::min<rlim_t>(4096, limit.rlim_max), limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);
  const int high = fcntl(0, F_DUPFD, PROBE_MAX_FD);  // the workers' wake-ups may lie below it
  close(high);
  std::vector<int> fillers;
  while (fillers.empty() || fillers.back() < PROBE_MAX_FD - 1) {
    fillers.push_back(dup(0));
    ASSERT_GE(fillers.back(), 0);
  }
  EXPECT_EQ(connect(&recorder), nullptr);
  EXPECT_EQ(UDPClient(core, &loopback, 9, 0, &result, handler, &recorder), nullptr);
  fillers.push_back(dup(0));
  EXPECT_EQ(fillers.back(), high) << "nothing was left open";
  for (int fd : fillers) close(fd);
  setrlimit(RLIMIT_NOFILE, &limit);

  connect(&recorder);
  EXPECT_TRUE(recorder.gets(IOE_CONNECTED, 2));
}

TEST_F(Listen, PausesWithoutASlotAndGoesOnWhenOneIsFree) {
  rac_connection *const server = listen_for(&recorder);
  auto hogged = hog_slots(core);
  const int client = tcp_nb_connect2(loopback, GetDeviceLocalPort(server), nullptr);
  ASSERT_EQ(sock_write_ready(client, 5000), 1);

  EXPECT_TRUE(eventually([&] { return core->paused == 1; }));
  EXPECT_LT(cpu_us_within(500), 200000) << "a listener that cannot accept does not spin its worker";
  EXPECT_EQ(recorder.of(IOE_ACCEPTED), 0);

  rac_free_connection(core, hogged.back());
  hogged.pop_back();
  EXPECT_TRUE(recorder.gets(IOE_ACCEPTED, 1));
  for (rac_connection *c : hogged) rac_free_connection(core, c);
  EXPECT_TRUE(eventually([&] { return core->paused == 0; }));
  close(client);
}

TEST_F(Listen, LosesNoClientWithoutARequest) {
  rac_connection *const server = listen_for(&recorder);
  probe_barrier(core);
  std::vector<rac_operate *> hogged;
  while (rac_operate *op = rac_operate_get(core, &core->connections[0])) hogged.push_back(op);
  const int client = tcp_nb_connect2(loopback, GetDeviceLocalPort(server), nullptr);
  EXPECT_EQ(sock_read_ready(client, 300), 0) << "the connection was closed";
  EXPECT_EQ(recorder.of(IOE_ACCEPTED), 0);
  for (rac_operate *op : hogged) rac_operate_free(core, op);
  EXPECT_TRUE(recorder.gets(IOE_ACCEPTED, 1));
  close(client);
}

TEST_F(Listen, SwitchedDuringItsPauseItDoesWhatItWasTold) {
  for (const auto &[mask, accepted] : {std::pair{PROBE_READ_OFF, 0}, {PROBE_READ_ON, 1}}) {
    SCOPED_TRACE(mask);
    Recorder *const to = accepted == 0 ? &recorder : &other;
    rac_connection *const server = listen_for(to);
    const uint16_t port = GetDeviceLocalPort(server);
    const auto hogged = hog_slots(core);
    const int client = tcp_nb_connect2(loopback, port, nullptr);
    ASSERT_TRUE(eventually([&] { return core->paused == 1; }));
    EXPECT_EQ(SetNotify(server, mask), 0);
    probe_barrier(core);
    for (rac_connection *c : hogged) rac_free_connection(core, c);
    EXPECT_TRUE(eventually([&] { return core->paused == 0; }));
    pause_ms(250);  // the pause's own timer would have ended by now
    EXPECT_EQ(to->of(IOE_ACCEPTED), accepted);
    EXPECT_EQ(to->of(IOE_READ), 0) << "its owner is not asked to accept by himself";
    remove_and_wait(server);
    close(client);
  }
}

TEST_F(Listen, AcceptedConnectionsAreAdoptedOnceAndReadWhenAsked) {
  rac_connection *const server = listen_for(&recorder);
  const int client = tcp_nb_connect2(loopback, GetDeviceLocalPort(server), nullptr);
  ASSERT_TRUE(recorder.gets(IOE_ACCEPTED, 1));
  rac_connection *device = recorder.latest;
  EXPECT_EQ(GetDevicePara(device), 5u);
  EXPECT_EQ(GetDeviceTCPNum(core), 1) << "the listener is none";
  EXPECT_EQ(AcceptRemote2(core, device, 6, nullptr, Recorder::on_event, &other), device);
  EXPECT_EQ(AcceptRemote2(core, device, 7, nullptr, Recorder::on_event, &other), nullptr);
  EXPECT_EQ(GetDevicePara(device), 6u);

  ASSERT_EQ(tcp_send(client, "abc", 3, 1000, nullptr), 3);
  probe_barrier(core);
  EXPECT_EQ(other.bytes, 0) << "not watched yet";
  EXPECT_EQ(SetNotify(device, PROBE_READ_ON | PROBE_READ_OFF), -1);
  EXPECT_EQ(SetNotify(device, PROBE_WRITE_ON | PROBE_WRITE_OFF), -1);
  EXPECT_EQ(SetNotify(device, PROBE_READ_ON), 0);
  EXPECT_TRUE(other.reads(3));
  EXPECT_EQ(SetNotify(device, PROBE_READ_OFF | PROBE_WRITE_ON), 0);
  EXPECT_TRUE(eventually([&] { return other.of(IOE_WRITE) > 3; })) << "level-triggered";
  EXPECT_EQ(SetNotify(device, PROBE_WRITE_OFF), 0);
  probe_barrier(core);
  const int writes = other.of(IOE_WRITE);
  ASSERT_EQ(tcp_send(client, "def", 3, 1000, nullptr), 3);
  pause_ms(50);
  EXPECT_EQ(other.of(IOE_WRITE), writes);
  EXPECT_EQ(other.bytes, 3);
  close(client);
}

TEST_F(Listen, UdpIsWatchedByAllWorkersAndRemovedAsOne) {
  const int descriptors = open_descriptors();
  int result = 1;
  rac_connection *server =
      ListenUDP3(core, &loopback, 0, 3, &result, Recorder::on_event, &recorder);
  EXPECT_EQ(result, 0);
  rac_connection *client = UDPClient(core, &loopback, GetDeviceLocalPort(server), 0, nullptr,
                                     Recorder::on_event, &other);
  for (int sent = 1; sent <= 20; ++sent) {
    ASSERT_EQ(send(GetDeviceFD(client), "1234", 4, 0), 4);
    EXPECT_TRUE(recorder.reads(4 * sent));
  }
  EXPECT_EQ(GetDevicePara(recorder.latest), 3u);
  EXPECT_EQ(GetDeviceTCPNum(core), 0);
  probe_barrier(core);
  for (uint32_t i = 0; i < core->nbases; ++i) EXPECT_GE(core->bases[i].nevents, 2u) << "base " << i;

  remove_and_wait(recorder.latest);  // any member, not only the one returned
  EXPECT_EQ(GetDeviceFD(server), -1);
  remove_and_wait(client);
  EXPECT_EQ(open_descriptors(), descriptors);
}

}  // namespace
