// A program that embeds foundation and engine: a timer's callback writes to a frame.
#include <adif/frame.h>
#include <adif/sync.h>
#include <eprobe/probe.h>

#include <atomic>
#include <cstring>

static frame_t *text = nullptr;
static std::atomic<bool> written{false};

static int on_timer(void *changed, void *timer, int event_type, int) {
  if (event_type != IOE_TIMEOUT || GetTimeoutCmd(static_cast<rac_timer *>(timer)) != 7) return 0;
  putnLastBytes(&text, "hello", 5);
  written = true;
  SetEvent(static_cast<event *>(changed), 1);
  return 0;
}

int main() {
  event *const changed = CreateEvent();
  rac_core *const core = probe_create(2);
  StartProbe(core, 1);
  StartTimer2(core, 10, 7, 0, on_timer, changed);
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  WaitEventUntil(changed, end, [] { return written.load(); });
  probe_cleanup(core);
  const bool right = frameLength(text) == 5 && std::memcmp(bytePointer(text), "hello", 5) == 0;
  deleteFrame(&text);
  DestroyEvent(changed);
  return right ? 0 : 1;
}
