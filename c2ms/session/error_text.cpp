// The texts of the results that a player may see.
#include <span>

#include "c2ms.h"

namespace {

struct code_text {
  int32_t code;
  const char *text;
};

constexpr code_text session_texts[] = {
    {C2MS_OK, "OK"},
    {C2MS_INVALID_PARAMETER, "Invalid Parameter"},
    {C2MS_INVALID_URL, "Invalid URL"},
    {C2MS_UNSUPPORTED_SCHEME, "Unsupported URL Scheme"},
    {C2MS_NO_MEMORY, "Memory allocation error"},
    {C2MS_ENTRY_UNAVAILABLE, "Entry Server unavailable"},
    {C2MS_CLOSED, "Session closed"},
    {C2MS_OPEN_TIMEOUT, "Session open timeout"},
    {C2MS_MEDIA_NOT_EXIST, "Media not exist"},
    {C2MS_UNAUTHORIZED, "User unauthorized"},
    {C2MS_AUTH_FAILED, "Authenticate failed"},
    {C2MS_IN_DEBT, "User in debt"},
    {C2MS_CACHING, "Net data caching"},
    {C2MS_CANCELLED, "Open cancelled"},
    {C2MS_TIMED_OUT, "Timed out"},
    {C2MS_OPENING, "Session opening"},
    {C2MS_NO_CACHE_MEMORY, "No cache memory left"},
    {C2MS_NO_ENGINE, "No threads or descriptors"},
    {C2MS_NO_CIPHERS, "No DES or MD5"},
};

constexpr code_text read_texts[] = {
    {C2MS_NO_SESSION, "No session"},
    {C2MS_NO_CACHE, "Session without cache"},
    {C2MS_END, "End of file"},
    {C2MS_NO_PACKS, "Cache without packs"},
};

constexpr code_text index_texts[] = {
    {C2MS_NO_SESSION, "No session"},
    {C2MS_NO_CACHE, "Session without cache"},
    {C2MS_IDX_NOT_RECEIVED, "Index not received"},
    {C2MS_IDX_TIMEOUT, "Index not complete in time"},
    {C2MS_IDX_NO_INDEX, "Not an index file"},
    {C2MS_IDX_EMPTY, "Index empty"},
    {C2MS_IDX_TOO_BIG, "Index too big, or no memory for it"},
    {C2MS_IDX_DAMAGED, "Index damaged, or no memory to unpack it"},
    {C2MS_IDX_NO_MOOV, "No moov in the index"},
};

const char *find(std::span<const code_text> texts, int32_t code) {
  for (const code_text &entry : texts) {
    if (entry.code == code) return entry.text;
  }
  return nullptr;
}

// The text of a call's own result, or of a session code, or of any other number.
const char *text_of(std::span<const code_text> own, int32_t result) {
  if (result > 0) return "OK";
  if (const char *const text = find(own, result)) return text;
  const char *const text = find(session_texts, result);
  return text != nullptr ? text : "Unknown result";
}

}  // namespace

const char *c2ms_sess_error(int32_t code) {
  const char *const text = find(session_texts, code);
  return text != nullptr ? text : "";
}

const char *c2ms_read_text(int32_t result) {
  return text_of(read_texts, result);
}

const char *c2ms_idx_text(int32_t result) {
  return text_of(index_texts, result);
}
