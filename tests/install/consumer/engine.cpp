// A program that embeds foundation and engine: a timer's callback writes to a frame.
#include <adif/frame.h>
#include <adif/sync.h>
#include <eprobe/probe.h>

#include <atomic>
#include <cstring>

struct Greeting {
  frame_t *text = nullptr;
  std::atomic<bool> written{false};
  event *const changed = CreateEvent();
};

static int on_timer(void *arg, void *timer, int event, int) {
  auto *const self = static_cast<Greeting *>(arg);
  if (event != IOE_TIMEOUT || GetTimeoutCmd(static_cast<rac_timer *>(timer)) != 7) return 0;
  putnLastBytes(&self->text, "hello", 5);
  self->written = true;
  SetEvent(self->changed, 1);
  return 0;
}

int main() {
  Greeting greeting;
  rac_core *const core = probe_create(2);
  StartProbe(core, 1);
  StartTimer2(core, 10, 7, 0, on_timer, &greeting);
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  WaitEventUntil(greeting.changed, end, [&] { return greeting.written.load(); });
  probe_cleanup(core);
  const bool right =
      frameLength(greeting.text) == 5 && std::memcmp(bytePointer(greeting.text), "hello", 5) == 0;
  deleteFrame(&greeting.text);
  DestroyEvent(greeting.changed);
  return right ? 0 : 1;
}
