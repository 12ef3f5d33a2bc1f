// A network namespace with one device in it: what a program in the namespace sends comes out here
// as IP packets, and what is written here arrives there. Namespace and device live as long as this
// object or a program inside, and have no name that could be left behind.
#pragma once

#include <string>

namespace lab {

class tunnel {
 public:
  /// Makes both; the calling thread is in the new namespace afterwards. problem() tells why not.
  explicit tunnel(const char *device);
  ~tunnel();
  tunnel(const tunnel &) = delete;
  tunnel &operator=(const tunnel &) = delete;

  const std::string &problem() const { return problem_; }
  int device() const { return device_; }            ///< never blocks
  int network_namespace() const { return space_; }  ///< for setns(2)

 private:
  const char *make(const char *device);  ///< what failed, or NULL

  int device_ = -1, space_ = -1;
  std::string problem_;
};

}  // namespace lab
