// Owns one file descriptor and closes it when it goes. Move-only.
#pragma once

namespace Kiv {

class FileDesc {
 public:
  FileDesc() = default;
  explicit FileDesc(int fd) : fd_(fd) {}
  FileDesc(FileDesc&& o) noexcept : fd_(o.release()) {}
  FileDesc& operator=(FileDesc&& o) noexcept;
  FileDesc(FileDesc const&) = delete;
  FileDesc& operator=(FileDesc const&) = delete;
  ~FileDesc() { close(); }

  int fd() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  explicit operator bool() const { return valid(); }

  // Switches O_NONBLOCK; raises Kiv::ErrnoException ("fcntl") on failure.
  void nonBlockingIs(bool on);
  bool nonBlocking() const;
  void close();
  int release() {
    int f = fd_;
    fd_ = -1;
    return f;
  }

 private:
  int fd_ = -1;
};

}  // namespace Kiv
