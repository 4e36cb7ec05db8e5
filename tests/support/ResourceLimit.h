#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>

namespace keltop {

/// RLIMIT_NOFILE for a process that can open nothing beside its standard streams.
inline constexpr rlim_t kStandardStreamsOnly = 3;

/// A limit of this process's own (RLIMIT_FSIZE, RLIMIT_NOFILE) for the life of this object.
class ResourceLimit {
 public:
  ResourceLimit(int resource, rlim_t limit) : resource_(resource), signal_(std::signal(SIGXFSZ, SIG_IGN)) {
    EXPECT_EQ(::getrlimit(static_cast<__rlimit_resource_t>(resource_), &before_), 0);
    rlimit lower = before_;
    lower.rlim_cur = limit;
    EXPECT_EQ(::setrlimit(static_cast<__rlimit_resource_t>(resource_), &lower), 0);
  }
  ~ResourceLimit() {
    EXPECT_EQ(::setrlimit(static_cast<__rlimit_resource_t>(resource_), &before_), 0);
    (void)std::signal(SIGXFSZ, signal_);
  }
  ResourceLimit(const ResourceLimit&) = delete;
  ResourceLimit& operator=(const ResourceLimit&) = delete;

 private:
  int resource_;
  void (*signal_)(int);
  rlimit before_ = {};
};

}  // namespace keltop
