#include "support/RefusedCall.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zmq.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace keltop {
namespace {

struct Refusal {
  std::string_view routine;
  int error = 0;
  int left = 0;
  int done = 0;
};

constinit thread_local Refusal refusal;

/// Whether this call is to fail; errno is set then.
bool refused(std::string_view routine) noexcept {
  if (refusal.left == 0 || refusal.routine != routine) {
    return false;
  }
  if (refusal.left > 0) {
    --refusal.left;
  }
  ++refusal.done;
  errno = refusal.error;
  return true;
}

/// The system's own routine of that name.
template <typename Routine>
Routine* original(const char* name) noexcept {
  return reinterpret_cast<Routine*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

RefusedCall::RefusedCall(std::string_view routine, int error, int times) noexcept {
  refusal = {routine, error, times, 0};
}

RefusedCall::~RefusedCall() {
  refusal = {};
}

int RefusedCall::count() const noexcept {
  return refusal.done;
}

}  // namespace keltop

using keltop::original;
using keltop::refused;

extern "C" {

int fstat(int file, struct stat* status) noexcept {
  return refused("fstat") ? -1 : original<int(int, struct stat*)>("fstat")(file, status);
}

int lstat(const char* path, struct stat* status) noexcept {
  return refused("lstat") ? -1 : original<int(const char*, struct stat*)>("lstat")(path, status);
}

int chmod(const char* path, mode_t mode) noexcept {
  return refused("chmod") ? -1 : original<int(const char*, mode_t)>("chmod")(path, mode);
}

int fchmod(int file, mode_t mode) noexcept {
  return refused("fchmod") ? -1 : original<int(int, mode_t)>("fchmod")(file, mode);
}

int linkat(int fromFolder, const char* from, int toFolder, const char* to, int flags) noexcept {
  return refused("linkat")
             ? -1
             : original<int(int, const char*, int, const char*, int)>("linkat")(fromFolder, from, toFolder, to, flags);
}

int pthread_setspecific(pthread_key_t key, const void* value) noexcept {
  return refused("pthread_setspecific") ? errno
                                        : original<int(pthread_key_t, const void*)>("pthread_setspecific")(key, value);
}

ssize_t sendfile(int to, int from, off_t* offset, std::size_t count) noexcept {
  return refused("sendfile") ? -1
                             : original<ssize_t(int, int, off_t*, std::size_t)>("sendfile")(to, from, offset, count);
}

int zmq_msg_init_size(zmq_msg_t* message, std::size_t size) {
  return refused("zmq_msg_init_size") ? -1 : original<int(zmq_msg_t*, std::size_t)>("zmq_msg_init_size")(message, size);
}
}

void* operator new(std::size_t size) {
  void* const room = refused("new") ? nullptr : std::malloc(size == 0 ? 1 : size);
  return room != nullptr ? room : throw std::bad_alloc();
}

void operator delete(void* room) noexcept {
  std::free(room);
}

void operator delete(void* room, std::size_t /*size*/) noexcept {
  std::free(room);
}
