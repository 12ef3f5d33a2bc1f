// Ends of the process that are documented, each in a child whose end is looked at.
#include <cstdlib>

#include "adif/confile.h"
#include "adif/kalloc.h"
#include "adif/lock.h"
#include "c2ms.h"
#include "cases.h"
#include "eprobe/probe.h"
#include "eprobe/rac_thread.h"
#include "play.h"

namespace sweep {

namespace {

/// A configuration of which the n-th record (of 3 allocations each) finds no memory.
void read_configuration(int nth) {
  adif::fail_allocations(nth, 1);
  conf_mgmt_cleanup(conf_mgmt_init(configuration()));
}

void start_probe(call what, uint32_t nth) {
  const plan::Exempt counted(false);
  plan::arm(what, nth, false);
  StartProbe(probe_init(5, 8), 1);
}

void break_mutex(Report &report) {
  rac_mutex *const mutex = rac_mutex_init();
  plan::broken_mutex = true;
  rac_mutex_lock(mutex);
  plan::broken_mutex = false;
  rac_mutex_unlock(mutex);
  report.find("a broken mutex was taken");
}

#ifdef C2MS_CHECKS
void take_out_of_order(Report &report) {
  adif::Mutex outer(3), inner(7);
  const adif::Guard first(inner);
  const adif::Guard second(outer);
  report.find("locks were taken out of order");
}
#endif

}  // namespace

void add_fatal(std::vector<Case> *cases) {
  // The handle, its path and the file's content come first: without those there are the defaults.
  for (int nth = 4; nth <= 14; ++nth) {
    cases->push_back({"fatal/configuration/" + std::to_string(nth),
                      [nth](Report &) { read_configuration(nth); }, ending::exits_1,
                      "memory NULL! exit(1)"});
  }
  for (uint32_t nth = 1; nth <= 8; ++nth) {
    for (const call what : {call::socketpair, call::thread}) {
      cases->push_back({std::string("fatal/") + name_of(what) + "/" + std::to_string(nth),
                        [=](Report &) { start_probe(what, nth); }, ending::exits_2});
    }
  }
  cases->push_back({"fatal/mutex", break_mutex, ending::aborts});
#ifdef C2MS_CHECKS
  cases->push_back({"fatal/lock-order", take_out_of_order, ending::aborts,
                    "locks are taken in the order of their ranks"});
#endif
}

}  // namespace sweep
