// Random texts and the entropy pool. See random.h.
#include "crypto/random.h"

#include <gcrypt.h>
#include <sys/random.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "crypto/gcrypt_ready.h"

namespace {

using namespace std::string_view_literals;

constexpr auto kLetters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"sv;
constexpr auto kLettersDigits = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"sv;
constexpr auto kPassword =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789!@#$^*()-=_+{}[];:'<>,?/"sv;
constexpr auto kSigns =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789!@#$^*()-=_+{}[]|;:'<>,?/"sv;
constexpr auto kDigits = "0123456789"sv;
static_assert(kPassword.size() == 86 && kSigns.size() == 87);

// What the first and what every later character is drawn from, by kind. The last of the signs is
// never drawn.
struct alphabet {
  std::string_view first;
  std::string_view later;
};
constexpr auto kDrawnSigns = kSigns.substr(0, 86);
constexpr alphabet kAlphabets[] = {
    {kLetters, kLetters},       {kLettersDigits, kLettersDigits}, {kLetters, kPassword},
    {kDrawnSigns, kDrawnSigns}, {kDrawnSigns, kDrawnSigns},       {kDigits, kDigits},
};

time_t seed_time = 0;

void seed() {
  const time_t now = time(nullptr);
  // Seeded again with the first time in each later second (meant, see the header).
  if (seed_time == now) return;
  if (seed_time == 0) seed_time = now;
  srand(static_cast<unsigned>(seed_time));
}

char draw(std::string_view characters) {
  return characters[static_cast<size_t>(rand()) % characters.size()];
}

constexpr uint32_t kBytesToFeed = 256;
constexpr size_t kHashBytes = sizeof(rand_state::pool);

// out = SHA-256(what | number | pool | data): `what` keeps mixing and drawing apart, so that bytes
// drawn tell nothing of the pool.
bool hash(char what, const rand_state &state, const void *data, size_t length, uint8_t *out) {
  gcry_md_hd_t md = nullptr;
  if (!crypto::gcrypt_ready() || gcry_md_open(&md, GCRY_MD_SHA256, 0) != 0) return false;
  gcry_md_putc(md, what);
  gcry_md_write(md, &state.drawn, sizeof state.drawn);
  gcry_md_write(md, state.pool, sizeof state.pool);
  gcry_md_write(md, data, length);
  std::memcpy(out, gcry_md_read(md, GCRY_MD_SHA256), kHashBytes);
  gcry_md_close(md);
  return true;
}

bool mix(rand_state *state, const void *data, size_t length) {
  uint8_t next[kHashBytes];
  if (!hash('m', *state, data, length, next)) return false;
  std::copy_n(next, kHashBytes, state->pool);
  // A new pool: its blocks are numbered afresh.
  state->drawn = 0;
  return true;
}

}  // namespace

int GetRandomString(char *out, int length, int kind) {
  if (out == nullptr || kind < kRandomLetters || kind > kRandomDigits) return -1;
  seed();
  for (int i = 0; i < length; ++i) {
    out[i] = draw(i == 0 ? kAlphabets[kind].first : kAlphabets[kind].later);
  }
  return 0;
}

void RandInit(rand_state *state) {
  if (state != nullptr) *state = {{}, 0, kBytesToFeed};
}

int RandUpdate(rand_state *state, const void *data, int length) {
  if (state == nullptr || data == nullptr || length < 1) return -1;
  if (!mix(state, data, static_cast<size_t>(length))) return -1;
  state->missing -= std::min(state->missing, static_cast<uint32_t>(length));
  return 0;
}

int RandBytesNeeded(uint32_t *bytes_needed, const rand_state *state) {
  if (bytes_needed == nullptr || state == nullptr) return -1;
  *bytes_needed = state->missing;
  return 0;
}

int GenerateBytes(void *out, int length, rand_state *state) {
  if (out == nullptr || length < 1 || state == nullptr || state->missing > 0) return -1;
  auto *at = static_cast<uint8_t *>(out);
  for (auto left = static_cast<size_t>(length); left > 0;) {
    uint8_t block[kHashBytes];
    if (!hash('d', *state, "", 0, block)) return -1;
    ++state->drawn;
    const size_t n = std::min(left, kHashBytes);
    at = std::copy_n(block, n, at);
    left -= n;
  }
  // What was drawn can't be found again from the pool that is left.
  return mix(state, "", 0) ? 0 : -1;
}

void RandFinal(rand_state *state) {
  if (state == nullptr) return;
  explicit_bzero(state, sizeof *state);
  state->missing = kBytesToFeed;
}

int RandCreate(rand_state *state) {
  if (state == nullptr) return -1;
  RandInit(state);
  uint8_t entropy[kBytesToFeed];  // getrandom() gives up to 256 bytes at once
  if (getrandom(entropy, sizeof entropy, 0) != static_cast<ssize_t>(sizeof entropy)) return -1;
  const int result = RandUpdate(state, entropy, sizeof entropy);
  // Not left on the stack for whoever reads it next.
  explicit_bzero(entropy, sizeof entropy);
  return result;
}

void RandMix(rand_state *state) {
  if (state == nullptr) return;
  struct {
    timespec real, monotonic, processor;
  } now{};
  clock_gettime(CLOCK_REALTIME, &now.real);
  clock_gettime(CLOCK_MONOTONIC, &now.monotonic);
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now.processor);
  mix(state, &now, sizeof now);
}
