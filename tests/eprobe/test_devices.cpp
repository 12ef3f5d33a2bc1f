// Devices: how connections end, stale handles, lost descriptors, exhausted pools.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "engine.h"
#include "eprobe/rac_connection.h"
#include "eprobe/rac_operate.h"

namespace {

rac_connection *connect_to(rac_core *core, uint16_t port, Recorder *recorder, uintptr_t para = 0) {
  int result = 1;
  rac_connection *device =
      ConnectRemote2(core, &loopback, port, para, &result, Recorder::on_event, recorder);
  EXPECT_EQ(result, device != nullptr ? 0 : -1);
  return device;
}

uintptr_t slot_of(rac_connection *handle) {
  return reinterpret_cast<uintptr_t>(handle) & 1023;
}

/// Closed by its worker, and no callback under way.
void remove_and_wait(rac_core *core, rac_connection *device) {
  EXPECT_EQ(RemoveDevice(device), 0);
  EXPECT_EQ(probe_barrier(core), 0);
}

/// The second connection that the listener got is made, watched and read.
void expect_alive(const Listener &listener, const Recorder &recorder) {
  EXPECT_TRUE(eventually([&] { return recorder.of(IOE_CONNECTED) == 1; }));
  close(accept(listener.fd, nullptr, nullptr));
  const int peer = accept(listener.fd, nullptr, nullptr);
  EXPECT_EQ(tcp_nb_send(peer, "x", 1), 1);
  EXPECT_TRUE(eventually([&] { return recorder.bytes == 1; }));
  close(peer);
}

std::vector<rac_connection *> hog_slots(rac_core *core) {
  std::vector<rac_connection *> hogged;
  while (rac_connection *c = rac_get_connection(core, -1)) hogged.push_back(c);
  return hogged;
}

TEST(Connect, MadeRefusedAndHanging) {
  Recorder made, refused, hanging;
  Engine engine;
  Listener listener;
  rac_connection *device = connect_to(engine.core, listener.port, &made, 42);
  ASSERT_NE(device, nullptr);
  EXPECT_TRUE(eventually([&] { return made.of(IOE_CONNECTED) == 1; }));
  EXPECT_EQ(made.latest.load(), device);
  EXPECT_EQ(GetDevicePara(device), 42u);
  EXPECT_EQ(GetDeviceRemoteIP(device), loopback);
  EXPECT_EQ(GetDeviceRemotePort(device), listener.port);
  EXPECT_EQ(GetDeviceLocalIP(device), loopback);
  const int peer = accept(listener.fd, nullptr, nullptr);
  EXPECT_EQ(tcp_send(peer, "hello", 5, 1000, nullptr), 5);
  EXPECT_TRUE(eventually([&] { return made.bytes == 5; }));
  close(peer);  // the recorder removes the device when it reads the end
  EXPECT_TRUE(eventually([&] { return GetDeviceFD(device) == -1; }));

  const uint16_t dead_port = Listener().port;
  rac_connection *failed = connect_to(engine.core, dead_port, &refused);
  EXPECT_TRUE(eventually([&] { return refused.of(IOE_CONNECT_FAILED) == 1; }));

  // Loopback drops the handshake of a listener whose queue is full.
  const int full = tcp_server_create("127.0.0.1", 0);
  listen(full, 0);
  const uint16_t port = port_of(full);
  std::vector<int> queue;
  do {
    queue.push_back(tcp_nb_connect2(loopback, port, nullptr));
    ASSERT_LT(queue.size(), 20u);
  } while (sock_write_ready(queue.back(), 200) == 1);
  rac_connection *stuck = connect_to(engine.core, port, &hanging);
  pause_ms(200);
  EXPECT_EQ(refused.of(IOE_CONNECT_FAILED), 1) << "a dead socket is not told twice";
  EXPECT_EQ(refused.of(IOE_CONNECTED), 0);
  EXPECT_TRUE(eventually([&] { return GetDeviceTCPNum(engine.core) == 2; }))
      << "the refused and the hanging one";
  remove_and_wait(engine.core, failed);
  remove_and_wait(engine.core, stuck);
  EXPECT_EQ(GetDeviceTCPNum(engine.core), 0);
  for (int event = 1; event <= 10; ++event)
    EXPECT_EQ(hanging.count[static_cast<size_t>(event)], 0) << event;
  for (int fd : queue) close(fd);
  close(full);
}

TEST(Connect, OnOneWorkerWhenAskedTo) {
  Recorder recorder;
  Engine engine;
  Listener listener;
  std::set<rac_base *> bases;
  std::vector<rac_connection *> devices;
  const auto connect_at = [&](uint32_t worker) {
    devices.push_back(ConnectRemoteAt(engine.core, worker, &loopback, listener.port, 0,
                                      Recorder::on_event, &recorder));
    EXPECT_TRUE(
        eventually([&] { return recorder.of(IOE_CONNECTED) == static_cast<int>(devices.size()); }));
    bases.insert(engine.core->connections[slot_of(devices.back())].base);
  };
  for (int i = 0; i < 6; ++i) connect_at(9);
  EXPECT_EQ(bases.size(), 1u);
  connect_at(10);
  EXPECT_EQ(bases.size(), 2u);
  for (rac_connection *device : devices) remove_and_wait(engine.core, device);
}

TEST(Remove, AnOldHandleDoesNotTouchTheNextOwner) {
  Recorder first, second;
  Engine engine;
  Listener listener;
  rac_connection *old = connect_to(engine.core, listener.port, &first);
  remove_and_wait(engine.core, old);
  rac_connection *next = connect_to(engine.core, listener.port, &second, 7);
  ASSERT_EQ(slot_of(old), slot_of(next)) << "the test wants the same slot";
  EXPECT_EQ(RemoveDevice(old), 0);
  EXPECT_EQ(SetNotify(old, PROBE_READ_OFF), -1);
  EXPECT_EQ(SetDevicePara(old, 99), 0);
  EXPECT_EQ(AcceptRemote2(engine.core, old, 0, nullptr, nullptr, nullptr), nullptr);
  EXPECT_EQ(GetDeviceFD(old), -1);
  EXPECT_EQ(GetDevicePara(old), 0u);
  EXPECT_EQ(GetDeviceLocalPort(old), 65535);
  probe_barrier(engine.core);
  EXPECT_EQ(GetDevicePara(next), 7u);
  expect_alive(listener, second);
}

TEST(Remove, RacingRemovalsCloseEachDeviceOnce) {
  Engine engine;
  Listener listener;
  const int before = open_descriptors();
  std::vector<std::thread> threads;
  for (int id = 0; id < 3; ++id) {
    threads.emplace_back([&] {
      Recorder ignored;
      std::vector<rac_connection *> old;
      for (int i = 0; i < 300; ++i) {
        rac_connection *device = connect_to(engine.core, listener.port, &ignored);
        const int peer = accept(listener.fd, nullptr, nullptr);
        std::thread other([device] { RemoveDevice(device); });
        RemoveDevice(device);
        for (rac_connection *handle : old) RemoveDevice(handle);
        other.join();
        old.push_back(device);
        if (old.size() > 8) old.erase(old.begin());
        close(peer);
      }
      probe_barrier(engine.core);  // `ignored` goes away
    });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(GetDeviceTCPNum(engine.core), 0);
  EXPECT_EQ(open_descriptors(), before);
}

/// Who gets the number of a descriptor that somebody else has closed.
enum NextOwner { FILE_AFTER_REPORT, ENGINE, SOCKET_UNNOTICED };

class Lost : public testing::TestWithParam<NextOwner> {};

TEST_P(Lost, IsReportedOnceAndItsNumberLeftToTheNextOwner) {
  Recorder recorder, next_recorder;
  Engine engine;
  Listener listener;
  recorder.removes = false;
  rac_connection *device = connect_to(engine.core, listener.port, &recorder);
  ASSERT_TRUE(eventually([&] { return recorder.of(IOE_CONNECTED) == 1; }));
  const auto reported = [&] {
    probe_barrier(engine.core);  // a wait under way does not notice, the next one does
    return recorder.of(IOE_INVALID_DEV) == 1;
  };
  const int fd = GetDeviceFD(device);
  close(fd);
  rac_connection *next = nullptr;
  int other = -1;
  if (GetParam() == ENGINE)
    next = connect_to(engine.core, listener.port, &next_recorder);
  else if (GetParam() == SOCKET_UNNOTICED)
    other = socket(AF_INET, SOCK_STREAM, 0);
  if (GetParam() != SOCKET_UNNOTICED) {
    EXPECT_TRUE(eventually(reported));
  }
  if (GetParam() == FILE_AFTER_REPORT) other = open("/dev/null", O_RDONLY);
  ASSERT_EQ(next != nullptr ? GetDeviceFD(next) : other, fd) << "the test wants the same number";
  if (GetParam() != SOCKET_UNNOTICED) {
    EXPECT_EQ(GetDeviceFD(device), -1);
    EXPECT_EQ(SetNotify(device, PROBE_READ_ON), -1);
  }
  remove_and_wait(engine.core, device);
  EXPECT_LE(recorder.of(IOE_INVALID_DEV), 1);
  EXPECT_NE(fcntl(fd, F_GETFD), -1) << "the number is its new owner's";
  if (next != nullptr) {
    expect_alive(listener, next_recorder);
  }
  if (other != -1) close(other);
}

INSTANTIATE_TEST_SUITE_P(Owners, Lost,
                         testing::Values(FILE_AFTER_REPORT, ENGINE, SOCKET_UNNOTICED));

TEST(Exhausted, NoSlotNoRequestAndNoLowDescriptorGiveEverythingBack) {
  Recorder recorder;
  Engine engine;
  Listener listener;
  rac_connection *device = connect_to(engine.core, listener.port, &recorder);
  ASSERT_TRUE(eventually([&] { return recorder.of(IOE_CONNECTED) == 1; }));
  int result = 0;
  const int descriptors = open_descriptors();
  const auto make_all = [&](const char *why) {
    const auto handler = Recorder::on_event;
    SCOPED_TRACE(why);
    EXPECT_EQ(connect_to(engine.core, listener.port, &recorder), nullptr);
    EXPECT_EQ(ListenRemote2(engine.core, 0, 0, &result, handler, &recorder), nullptr);
    EXPECT_EQ(ListenUDP2(engine.core, 0, 0, &result, handler, &recorder), nullptr);
    EXPECT_EQ(UDPClient(engine.core, &loopback, 9, 0, &result, handler, &recorder), nullptr);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(open_descriptors(), descriptors) << "all is closed again";
  };

  const auto hogged = hog_slots(engine.core);
  make_all("no slot");
  for (rac_connection *c : hogged) rac_free_connection(engine.core, c);

  std::vector<rac_operate *> requests;
  while (rac_operate *op = rac_operate_get(engine.core, &engine.core->connections[0]))
    requests.push_back(op);
  EXPECT_EQ(requests.size(), 512u);
  const uint32_t free_slots = engine.core->free_connection_n;
  make_all("no request");
  EXPECT_EQ(engine.core->free_connection_n, free_slots);
  EXPECT_EQ(SetNotify(device, PROBE_READ_OFF), -1);
  remove_and_wait(engine.core, device);
  EXPECT_EQ(GetDeviceFD(device), -1) << "a removal needs no request";
  const auto spare_requests = [&] {
    rac_guard guard(engine.core->operate_mutex);
    return engine.core->free_operate_n;
  };
  const uint32_t spare = spare_requests(), all = engine.core->operate_n;
  for (rac_operate *op : requests) rac_operate_free(engine.core, op);
  EXPECT_EQ(spare_requests(), spare) << "it only ever falls: meant";
  EXPECT_EQ(engine.core->operate_n, all + 512);

  rlimit limit{}, raised{};
  getrlimit(RLIMIT_NOFILE, &limit);
  raised = limit;
  raised.rlim_cur = std::min<rlim_t>(4096, limit.rlim_max);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);
  std::vector<int> fillers;
  while (fillers.empty() || fillers.back() < PROBE_MAX_FD - 1) {
    fillers.push_back(dup(0));
    ASSERT_GE(fillers.back(), 0);
  }
  EXPECT_EQ(connect_to(engine.core, listener.port, &recorder), nullptr);
  EXPECT_EQ(UDPClient(engine.core, &loopback, 9, 0, &result, Recorder::on_event, &recorder),
            nullptr);
  const int probe_fd = dup(0);
  EXPECT_EQ(probe_fd, PROBE_MAX_FD) << "nothing was left open";
  close(probe_fd);
  for (int fd : fillers) close(fd);
  setrlimit(RLIMIT_NOFILE, &limit);

  rac_connection *again = connect_to(engine.core, listener.port, &recorder);
  EXPECT_TRUE(eventually([&] { return recorder.of(IOE_CONNECTED) == 2; }));
  remove_and_wait(engine.core, again);
}

TEST(Listen, PausesWithoutASlotAndGoesOnWhenOneIsFree) {
  Recorder recorder;
  Engine engine;
  rac_connection *listener =
      ListenRemote2(engine.core, 0, 5, nullptr, Recorder::on_event, &recorder);
  ASSERT_NE(listener, nullptr);
  const uint16_t port = GetDeviceLocalPort(listener);
  auto hogged = hog_slots(engine.core);
  const int client = tcp_nb_connect2(loopback, port, nullptr);
  ASSERT_EQ(sock_write_ready(client, 5000), 1);

  EXPECT_TRUE(eventually([&] { return engine.core->paused == 1; }));
  EXPECT_LT(cpu_us_within(500), 200000) << "a listener that cannot accept does not spin its worker";
  EXPECT_EQ(recorder.of(IOE_ACCEPTED), 0);

  rac_free_connection(engine.core, hogged.back());
  hogged.pop_back();
  EXPECT_TRUE(eventually([&] { return recorder.of(IOE_ACCEPTED) == 1; }));
  for (rac_connection *c : hogged) rac_free_connection(engine.core, c);
  EXPECT_TRUE(eventually([&] { return engine.core->paused == 0; }));
  close(client);
}

TEST(Listen, AcceptedConnectionsAreAdoptedOnceAndReadWhenAsked) {
  Recorder recorder, adopted;
  Engine engine;
  rac_connection *listener =
      ListenRemote2(engine.core, 0, 5, nullptr, Recorder::on_event, &recorder);
  const int client = tcp_nb_connect2(loopback, GetDeviceLocalPort(listener), nullptr);
  ASSERT_TRUE(eventually([&] { return recorder.of(IOE_ACCEPTED) == 1; }));
  rac_connection *device = recorder.latest;
  EXPECT_EQ(GetDevicePara(device), 5u);
  EXPECT_EQ(GetDeviceTCPNum(engine.core), 1) << "the listener is none";
  EXPECT_EQ(AcceptRemote2(engine.core, device, 6, nullptr, Recorder::on_event, &adopted), device);
  EXPECT_EQ(AcceptRemote2(engine.core, device, 7, nullptr, Recorder::on_event, &adopted), nullptr);
  EXPECT_EQ(GetDevicePara(device), 6u);

  ASSERT_EQ(tcp_send(client, "abc", 3, 1000, nullptr), 3);
  probe_barrier(engine.core);
  EXPECT_EQ(adopted.bytes, 0) << "not watched yet";
  EXPECT_EQ(SetNotify(device, PROBE_READ_ON | PROBE_READ_OFF), -1);
  EXPECT_EQ(SetNotify(device, PROBE_WRITE_ON | PROBE_WRITE_OFF), -1);
  EXPECT_EQ(SetNotify(device, PROBE_READ_ON), 0);
  EXPECT_TRUE(eventually([&] { return adopted.bytes == 3; }));
  EXPECT_EQ(SetNotify(device, PROBE_READ_OFF | PROBE_WRITE_ON), 0);
  EXPECT_TRUE(eventually([&] { return adopted.of(IOE_WRITE) > 3; })) << "level-triggered";
  EXPECT_EQ(SetNotify(device, PROBE_WRITE_OFF), 0);
  probe_barrier(engine.core);
  const int writes = adopted.of(IOE_WRITE);
  ASSERT_EQ(tcp_send(client, "def", 3, 1000, nullptr), 3);
  pause_ms(50);
  EXPECT_EQ(adopted.of(IOE_WRITE), writes);
  EXPECT_EQ(adopted.bytes, 3);
  close(client);
}

TEST(Udp, AListenerIsWatchedByAllWorkersAndRemovedAsOne) {
  Recorder recorder, ignored;
  Engine engine;
  const int descriptors = open_descriptors();
  int result = 1;
  rac_connection *server =
      ListenUDP3(engine.core, &loopback, 0, 3, &result, Recorder::on_event, &recorder);
  ASSERT_NE(server, nullptr);
  EXPECT_EQ(result, 0);
  const uint16_t port = GetDeviceLocalPort(server);
  rac_connection *client =
      UDPClient(engine.core, &loopback, port, 0, nullptr, Recorder::on_event, &ignored);
  for (int sent = 1; sent <= 20; ++sent) {
    ASSERT_EQ(send(GetDeviceFD(client), "1234", 4, 0), 4);
    EXPECT_TRUE(eventually([&] { return recorder.bytes == 4 * sent; }));
  }
  EXPECT_EQ(GetDevicePara(recorder.latest), 3u);
  EXPECT_EQ(GetDeviceTCPNum(engine.core), 0);
  probe_barrier(engine.core);
  for (uint32_t i = 0; i < engine.core->nbases; ++i)
    EXPECT_GE(engine.core->bases[i].nevents, 2u) << "base " << i;

  remove_and_wait(engine.core, recorder.latest);  // any member, not only the one returned
  EXPECT_EQ(GetDeviceFD(server), -1);
  remove_and_wait(engine.core, client);
  EXPECT_EQ(open_descriptors(), descriptors);
}

TEST(Null, NeutralResults) {
  for (int result : {RemoveDevice(nullptr), SetNotify(nullptr, PROBE_READ_ON), StopProbe(nullptr),
                     GetDeviceTCPNum(nullptr), StartProbe(nullptr, 1), probe_barrier(nullptr),
                     DrivePump(nullptr), RemoveHook(nullptr), RemoveHookOf(nullptr, nullptr)})
    EXPECT_EQ(result, -1);
  EXPECT_EQ(GetDeviceFD(nullptr) + StopTimer(nullptr) + probe_cleanup(nullptr), 0);
  EXPECT_EQ(GetDevicePara(nullptr) + GetDeviceRemoteIP(nullptr) + GetTimeoutCmd(nullptr), 0u);
  EXPECT_EQ(GetDeviceLocalPort(nullptr), 65535);
  EXPECT_EQ(StartTimer2(nullptr, 1, 0, 0, nullptr, nullptr), nullptr);
}

}  // namespace
