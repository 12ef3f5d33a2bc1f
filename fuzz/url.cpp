// URLs of any bytes: every part lies inside the text, every copy is terminated.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "c2ms.h"
#include "c2ms/core/records.h"
#include "c2ms/session/url.h"

namespace {

c2ms_sess *session() {
  static c2ms_mgmt mgmt;
  static c2ms_sess sess;
  sess.mgmt = &mgmt;
  return &sess;
}

bool inside(const c2ms_sess *sess, const char *from, int32_t length) {
  if (from == nullptr) return length == 0;
  const char *const end = sess->url + std::strlen(sess->url);
  return from >= sess->url && length >= 0 && length <= end - from;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static c2ms_sess alone;  // without a context
  if (c2ms_sess_url_parse(nullptr) != -1 || c2ms_sess_para_parse(nullptr) != -1) std::abort();
  if (c2ms_sess_para_parse(&alone) != -2) std::abort();
  if (size >= sizeof(c2ms_sess::url)) return 0;
  c2ms_sess *const sess = session();
  std::memset(sess->url, 0, sizeof sess->url);
  std::memcpy(sess->url, data, size);
  sess->url_parsed = 0;
  if (c2ms_sess_url_parse(sess) != 0) return 0;
  if (c2ms_sess_para_parse(sess) != 0) std::abort();
  if (!inside(sess, sess->scheme, sess->scheme_len) || !inside(sess, sess->path, sess->path_len) ||
      !inside(sess, sess->query, sess->query_len)) {
    std::abort();
  }
  if (std::strlen(sess->host) > 63 || sess->port == 0 || sess->port > 65535) std::abort();
  if (sess->fid[16] != 0 || sess->auth[16] != 0) std::abort();
  return 0;
}
