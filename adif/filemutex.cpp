// Whole-file locks between processes. See filemutex.h.
#include "adif/filemutex.h"

#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include "adif/kalloc.h"
#include "adif/sync.h"

using adif::section_guard;

namespace {

// POSIX drops all of a process's locks on a file when any of its descriptors for it is closed. So
// the living mutexes are known here, and file_mutex_locked() asks through theirs.
CRITICAL_SECTION living_lock = PTHREAD_MUTEX_INITIALIZER;
file_mutex *living_first = nullptr;

struct flock whole_file(short type) {
  struct flock desc {};
  desc.l_type = type;
  desc.l_whence = SEEK_SET;
  desc.l_pid = -1;
  return desc;
}

int apply(file_mutex *fm, short type) {
  if (fm == nullptr) return -1;
  fm->lock_desc = whole_file(type);
  return fcntl(fm->fd, F_SETLK, &fm->lock_desc) == 0 ? 0 : -1;
}

// The descriptor of a living mutex on `path`, or -1.
int living_descriptor(const char *path) {
  struct stat wanted {};
  if (stat(path, &wanted) != 0) return -1;
  for (const file_mutex *fm = living_first; fm != nullptr; fm = fm->next) {
    struct stat info {};
    if (fstat(fm->fd, &info) == 0 && info.st_dev == wanted.st_dev && info.st_ino == wanted.st_ino)
      return fm->fd;
  }
  return -1;
}

int ask(int fd) {
  struct flock desc = whole_file(F_WRLCK);
  if (fcntl(fd, F_GETLK, &desc) != 0) return -1;
  return desc.l_type == F_UNLCK ? 0 : 1;
}

}  // namespace

file_mutex *file_mutex_init(const char *path) {
  struct stat info {};
  if (path == nullptr || stat(path, &info) != 0) return nullptr;
  adif::kptr<file_mutex> fm(static_cast<file_mutex *>(kzalloc_dbg(sizeof(file_mutex))));
  if (fm == nullptr) return nullptr;
  fm->lock_desc.l_pid = -1;
  const section_guard guard(&living_lock);
  fm->fd = open(path, O_RDWR | O_CLOEXEC);
  if (fm->fd < 0) return nullptr;
  fm->next = living_first;
  return living_first = fm.release();
}

int file_mutex_lock(file_mutex *fm) {
  return apply(fm, F_WRLCK);
}

int file_mutex_unlock(file_mutex *fm) {
  return apply(fm, F_UNLCK);
}

int file_mutex_locked(const char *path) {
  if (path == nullptr) return -1;
  // Held over opening and closing, so that no mutex on this file comes to life in between.
  const section_guard guard(&living_lock);
  const int known = living_descriptor(path);
  if (known >= 0) return ask(known);
  const int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0);
  if (fd < 0) return -1;
  const int answer = ask(fd);
  close(fd);
  return answer;
}

int file_mutex_destroy(file_mutex *fm) {
  if (fm == nullptr) return 0;
  const section_guard guard(&living_lock);
  file_mutex **link = &living_first;
  while (*link != nullptr && *link != fm) link = &(*link)->next;
  if (*link != nullptr) *link = fm->next;
  // Descriptor 0 stays open (meant, see the header).
  if (fm->fd > 0) close(fm->fd);
  kfree_dbg(fm);
  return 0;
}
