// Scoped ownership of one Windows handle inside a function, so that early returns do not
// leak it. Records hold raw handles and their owner closes them; a scoped handle never
// crosses a module boundary. Move-only; an empty handle (null, and INVALID_HANDLE_VALUE
// for kernel handles) is never closed. Windows build only.
#pragma once
#include <windows.h>
#include <winsvc.h>

template <typename Traits>
class kiv_scoped {
 public:
  using type = typename Traits::type;
  explicit kiv_scoped(type h = Traits::EMPTY) : h_(h) {}
  ~kiv_scoped() { reset(); }
  kiv_scoped(kiv_scoped &&other) noexcept : h_(other.release()) {}
  kiv_scoped &operator=(kiv_scoped &&other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  kiv_scoped(const kiv_scoped &) = delete;
  kiv_scoped &operator=(const kiv_scoped &) = delete;

  type get() const { return h_; }
  bool valid() const { return Traits::valid(h_); }
  // Closes what is held and gives the slot to a function that returns a handle through
  // a pointer (CreatePipe, RegOpenKeyEx).
  type *put() {
    reset();
    return &h_;
  }
  type release() {
    type h = h_;
    h_ = Traits::EMPTY;
    return h;
  }
  void reset(type h = Traits::EMPTY) {
    if (Traits::valid(h_)) Traits::close(h_);
    h_ = h;
  }

 private:
  type h_;
};

struct kiv_handle_traits {
  using type = HANDLE;
  static constexpr HANDLE EMPTY = nullptr;
  static bool valid(HANDLE h) { return h && h != INVALID_HANDLE_VALUE; }
  static void close(HANDLE h) { CloseHandle(h); }
};

struct kiv_key_traits {
  using type = HKEY;
  static constexpr HKEY EMPTY = nullptr;
  static bool valid(HKEY h) { return h != nullptr; }
  static void close(HKEY h) { RegCloseKey(h); }
};

struct kiv_service_traits {
  using type = SC_HANDLE;
  static constexpr SC_HANDLE EMPTY = nullptr;
  static bool valid(SC_HANDLE h) { return h != nullptr; }
  static void close(SC_HANDLE h) { CloseServiceHandle(h); }
};

struct kiv_local_traits {
  using type = HLOCAL;
  static constexpr HLOCAL EMPTY = nullptr;
  static bool valid(HLOCAL h) { return h != nullptr; }
  static void close(HLOCAL h) { LocalFree(h); }
};

using scoped_handle = kiv_scoped<kiv_handle_traits>;    // processes, pipes, events, files
using scoped_key = kiv_scoped<kiv_key_traits>;          // registry keys
using scoped_service = kiv_scoped<kiv_service_traits>;  // service manager handles
using scoped_local = kiv_scoped<kiv_local_traits>;      // what the system allocated for us
