// URLs of any bytes: every part lies inside the text, every copy is terminated.
#include <cstdint>
#include <cstring>

#include "c2ms.h"
#include "c2ms/core/records.h"
#include "c2ms/session/url.h"
#include "require.h"

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
  if (size >= sizeof(c2ms_sess::url)) return 0;
  c2ms_sess *const sess = session();
  std::memset(sess->url, 0, sizeof sess->url);
  std::memcpy(sess->url, data, size);
  sess->url_parsed = 0;
  if (c2ms_sess_url_parse(sess) != 0) return 0;
  require(c2ms_sess_para_parse(sess) == 0);
  require(inside(sess, sess->scheme, sess->scheme_len) &&
          inside(sess, sess->path, sess->path_len) && inside(sess, sess->query, sess->query_len));
  require(std::strlen(sess->host) <= 63 && sess->port > 0 && sess->port <= 65535);
  require(sess->fid[16] == 0 && sess->auth[16] == 0);
  return 0;
}
