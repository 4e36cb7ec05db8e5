#include "platform/linux/HolderSocket.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <numeric>
#include <string_view>
#include <thread>
#include <utility>

#include "platform/NoDestructor.h"

namespace keltop::platform {

namespace {

using std::chrono::milliseconds;

constexpr std::string_view kPrefix = "keltop.object.";

/// How many holders of one object can have a socket; the others are found by way of these.
constexpr unsigned kMostHolders = 32;

constexpr int kMostWaiting = 64;
constexpr milliseconds kPatience(2000);

/// How long the answering thread rests when the system has no descriptor left for an answer.
constexpr milliseconds kRest(20);

/// FNV-1a, 64 bits: addresses are too short for a path. Two places of one hash do no harm, an answer tells its own.
std::uint64_t hashOf(std::string_view text) noexcept {
  constexpr std::uint64_t kOffset = 0xCBF29CE484222325U;
  constexpr std::uint64_t kPrime = 0x100000001B3U;
  return std::accumulate(text.begin(), text.end(), kOffset, [](std::uint64_t hash, char character) {
    return (hash ^ static_cast<unsigned char>(character)) * kPrime;
  });
}

struct Address {
  sockaddr_un socket = {};
  socklen_t length = 0;
};

/// The abstract address (a name that begins with a zero byte) of an object's holder of that number.
Address addressOf(const std::string& key, unsigned number) noexcept {
  static constexpr std::string_view kDigits = "0123456789abcdef";
  Address address;
  address.socket.sun_family = AF_UNIX;
  std::size_t length = 1;
  const auto add = [&](char character) { address.socket.sun_path[length++] = character; };
  std::for_each(kPrefix.begin(), kPrefix.end(), add);
  const std::uint64_t hash = hashOf(key);
  for (unsigned shift = 64; shift > 0; shift -= 4) {
    add(kDigits[(hash >> (shift - 4)) & 0xFU]);
  }
  add('.');
  add(kDigits[number >> 4U]);
  add(kDigits[number & 0xFU]);
  address.length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
  return address;
}

const sockaddr* generic(const Address& address) noexcept {
  return reinterpret_cast<const sockaddr*>(&address.socket);
}

FileDescriptor newSocket() noexcept {
  return FileDescriptor(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

/// Opens what an open descriptor is of once more, with an open file of its own: locks belong to open files.
FileDescriptor openedAnew(int file, int flags) noexcept {
  std::array<char, 32> path = {};
  (void)std::snprintf(path.data(), path.size(), "/proc/self/fd/%d", file);
  return FileDescriptor(::open(path.data(), flags | O_CLOEXEC));
}

/// A message of the place's key and, when it is sent, one descriptor.
class Message {
 public:
  explicit Message(std::size_t length) : text_(length, '\0') { prepare(); }
  Message(std::string text, int file) : text_(std::move(text)) {
    prepare();
    cmsghdr* const header = CMSG_FIRSTHDR(&message_);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof file);
    std::memcpy(CMSG_DATA(header), &file, sizeof file);
  }
  Message(const Message&) = delete;
  Message& operator=(const Message&) = delete;
  ~Message() = default;

  [[nodiscard]] bool send(int to) const noexcept {
    return ::sendmsg(to, &message_, MSG_NOSIGNAL) == static_cast<ssize_t>(text_.size());
  }

  /// The descriptor that came with exactly that text; none otherwise.
  [[nodiscard]] FileDescriptor receive(int from, const std::string& expected) noexcept {
    const ssize_t count = ::recvmsg(from, &message_, MSG_CMSG_CLOEXEC);
    const cmsghdr* const header = count < 0 ? nullptr : CMSG_FIRSTHDR(&message_);
    if (header == nullptr || header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS ||
        header->cmsg_len != CMSG_LEN(sizeof(int))) {
      return {};
    }
    int received = -1;
    std::memcpy(&received, CMSG_DATA(header), sizeof received);
    FileDescriptor file(received);
    const bool ours = static_cast<std::size_t>(count) == expected.size() && text_.starts_with(expected);
    return ours ? std::move(file) : FileDescriptor();
  }

 private:
  void prepare() noexcept {
    part_ = {text_.data(), text_.size()};
    message_.msg_iov = &part_;
    message_.msg_iovlen = 1;
    message_.msg_control = control_.data();
    message_.msg_controllen = control_.size();
  }

  std::string text_;
  iovec part_ = {};
  msghdr message_ = {};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control_ = {};
};

/// The sockets of this process, and the thread that answers on them.
class HolderService {
 public:
  /// Begins to answer for the file; the socket's number, or -1.
  int add(const ObjectPlace& place, int file) {
    const std::lock_guard<std::mutex> guard(guard_);
    if (!running_) {
      start();
    }
    FileDescriptor listening = boundSocket(place.key);
    if (!listening.valid() || ::listen(listening.get(), kMostWaiting) != 0) {
      return -1;
    }
    const int number = listening.get();
    offers_.emplace(number, Offer{std::move(listening), place.key, file});
    epoll_event wanted = {};
    wanted.events = EPOLLIN;
    wanted.data.fd = number;
    if (::epoll_ctl(ready_.get(), EPOLL_CTL_ADD, number, &wanted) != 0) {
      offers_.erase(number);
      return -1;
    }
    return number;
  }

  void remove(int number) noexcept {
    const std::lock_guard<std::mutex> guard(guard_);
    offers_.erase(number);
  }

 private:
  struct Offer {
    FileDescriptor listening;
    std::string key;
    int file = -1;
  };

  static FileDescriptor boundSocket(const std::string& key) noexcept {
    FileDescriptor made = newSocket();
    for (unsigned number = 0; made.valid() && number < kMostHolders; ++number) {
      const Address address = addressOf(key, number);
      if (::bind(made.get(), generic(address), address.length) == 0) {
        return made;
      }
    }
    return {};
  }

  void start() {
    FileDescriptor ready(::epoll_create1(EPOLL_CLOEXEC));
    if (!ready.valid()) {
      return;
    }
    ready_ = std::move(ready);
    // The thread inherits the mask: no signal of the program is its business.
    sigset_t all;
    sigset_t before;
    (void)::sigfillset(&all);
    (void)::pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
      std::thread([this] { run(); }).detach();
      running_ = true;
    } catch (...) {  // none to be had: the next object asks again
    }
    (void)::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  }

  void run() noexcept {
    std::array<epoll_event, 16> events;
    for (;;) {
      const int count = ::epoll_wait(ready_.get(), events.data(), static_cast<int>(events.size()), -1);
      for (int i = 0; i < count; ++i) {
        if (!answer(events[static_cast<std::size_t>(i)].data.fd)) {
          std::this_thread::sleep_for(kRest);
        }
      }
    }
  }

  /// Answers one who asks. False when the system lacks what it takes.
  bool answer(int number) noexcept {
    const std::lock_guard<std::mutex> guard(guard_);
    const auto offer = offers_.find(number);
    if (offer == offers_.end()) {
      return true;
    }
    const FileDescriptor asking(::accept4(number, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!asking.valid()) {
      return errno == EAGAIN || errno == ECONNABORTED || errno == EINTR;
    }
    // A path to the file, not the open file: that would carry this process's locks along.
    const FileDescriptor handed = openedAnew(offer->second.file, O_PATH);
    try {
      if (handed.valid()) {
        (void)Message(offer->second.key, handed.get()).send(asking.get());
      }
    } catch (...) {  // no memory: who asks sees the connection end
    }
    return true;
  }

  std::mutex guard_;
  std::map<int, Offer> offers_;
  FileDescriptor ready_;
  bool running_ = false;
};

HolderService& service() {
  static NoDestructor<HolderService> instance;
  return instance.get();
}

/// Whether an answer comes in time.
bool answers(int asked, std::chrono::steady_clock::time_point deadline) noexcept {
  pollfd answered = {asked, POLLIN, 0};
  int ready = -1;
  do {
    const auto left = std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now());
    ready = ::poll(&answered, 1, static_cast<int>(std::max(left, milliseconds(0)).count()));
  } while (ready < 0 && errno == EINTR);
  return ready > 0;
}

/// The object's file from a holder's answer; nothing where it is not one that could be the object's.
std::optional<StateFile> receivedFile(int from, const ObjectPlace& place) {
  Message answer(place.key.size() + 1);
  const FileDescriptor handed = answer.receive(from, place.key);
  struct stat status = {};
  // Looked at before it is opened: opening something else than a file of that folder may hang or do anything.
  if (!handed.valid() || ::fstat(handed.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
      status.st_dev != place.device) {
    return std::nullopt;
  }
  FileDescriptor opened = openedAnew(handed.get(), O_RDWR | O_NONBLOCK);
  return opened.valid() ? std::optional<StateFile>(StateFile(std::move(opened))) : std::nullopt;
}

}  // namespace

HolderSocket::HolderSocket(const ObjectPlace& place, int file) noexcept {
  try {
    listening_ = place.key.empty() ? -1 : service().add(place, file);
  } catch (...) {  // no memory: found by its name only
  }
}

HolderSocket::~HolderSocket() {
  if (listening_ >= 0) {
    service().remove(listening_);
  }
}

HolderAnswer HolderSocket::ask(const ObjectPlace& place) noexcept {
  HolderAnswer answer;
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  FileDescriptor asking;
  for (unsigned number = 0; !place.key.empty() && number < kMostHolders && !answer.file; ++number) {
    if (!asking.valid()) {
      asking = newSocket();
    }
    const Address address = addressOf(place.key, number);
    if (::connect(asking.get(), generic(address), address.length) != 0) {
      answer.silent = answer.silent || errno == EAGAIN;  // more ask than are answered
      continue;
    }
    if (answers(asking.get(), deadline)) {
      try {
        answer.file = receivedFile(asking.get(), place);
      } catch (...) {  // no memory: as if nobody had answered
        answer.silent = true;
      }
    } else {
      answer.silent = true;
    }
    asking = FileDescriptor();
  }
  return answer;
}

}  // namespace keltop::platform
