// A library and a session of it that talk to nobody, for tests of the session core's parts.
#pragma once

#include <cstring>
#include <vector>

#include "c2ms.h"
#include "c2ms/core/records.h"
#include "c2ms/session/object.h"
#include "support/support.h"

class Local : public ::testing::Test {
 protected:
  Local() {
    c2ms_set_diag(nullptr, nullptr);
    uint8_t hid[20];
    for (uint8_t i = 0; i < 20; ++i) hid[i] = static_cast<uint8_t>(0xf0 + i);
    mgmt = c2ms_mgmt_init(nullptr, 0x55667788, 0x11223344, hid, 0);
    std::strcpy(mgmt->local_ip_text, "10.1.1.200");
    sess = c2ms_sess_fetch(mgmt);
    for (uint8_t i = 0; i < 16; ++i) sess->fid[i] = static_cast<uint8_t>(i + 1);
    sess->stamp = 0x80000001;  // negative on the wire
    sess->keyid = 9;
  }
  ~Local() override {
    c2ms_sess_close(sess);
    c2ms_mgmt_clean(mgmt);
    c2ms_set_diag(nullptr, nullptr);
  }
  c2ms_mgmt *mgmt;
  c2ms_sess *sess;
};
