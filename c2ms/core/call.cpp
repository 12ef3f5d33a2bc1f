// See call.h.
#include "c2ms/core/call.h"

#include "c2ms.h"
#include "c2ms/core/diag.h"
#include "c2ms/core/records.h"

namespace c2ms {

bool is_live(const c2ms_sess *sess) {
  return sess->life.load() == c2ms_life::live && !sess->mgmt->closing.load();
}

CallCount::CallCount(c2ms_sess *sess) : sess_(sess) {
  sess_->calls.fetch_add(1);
}

CallCount::~CallCount() {
  sess_->calls.fetch_sub(1);
}

ContextCall::ContextCall(c2ms_mgmt *mgmt) : mgmt_(mgmt) {
  if (mgmt_ != nullptr) mgmt_->calls.fetch_add(1);
}

ContextCall::~ContextCall() {
  diag_deliver();
  if (mgmt_ != nullptr) mgmt_->calls.fetch_sub(1);
}

CallGuard::CallGuard(c2ms_sess *sess)
    : count_(sess), refusal_(is_live(sess) ? sess->opened.load() : C2MS_CLOSED) {}

CallGuard::~CallGuard() {
  diag_deliver();
}

bool cancelled_since(const c2ms_sess *sess, uint32_t seen) {
  const uint32_t now = sess->cancel.load();
  return (now & 1) != 0 || now != seen;
}

bool cancelled(const c2ms_sess *sess) {
  return cancelled_since(sess, sess->cancel_seen);
}

}  // namespace c2ms
