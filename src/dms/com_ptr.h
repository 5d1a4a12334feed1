// Owner of one reference to a component interface: released when the owner goes, on every way
// out of a scope. Move-only; a further reference is taken explicitly with query().
#pragma once

#include <utility>

#include "dms/component.h"

namespace tarn {

template <class T>
class com_ptr {
 public:
  com_ptr() = default;
  ~com_ptr() { reset(); }
  com_ptr(com_ptr&& other) noexcept : p_(other.detach()) {}
  com_ptr& operator=(com_ptr&& other) noexcept {
    if (this != &other) attach(other.detach());
    return *this;
  }
  com_ptr(const com_ptr&) = delete;
  com_ptr& operator=(const com_ptr&) = delete;

  // Takes over a reference the caller already holds (an entry point's or QueryInterface's out
  // value).
  static com_ptr adopt(T* p) {
    com_ptr result;
    result.p_ = p;
    return result;
  }

  T* get() const { return p_; }
  T* operator->() const { return p_; }
  explicit operator bool() const { return p_ != nullptr; }

  void reset() { attach(nullptr); }
  T* detach() { return std::exchange(p_, nullptr); }

  // A second reference to the same object as interface `iid`; null when the object refuses.
  template <class U = T>
  com_ptr<U> query(const char* iid) const {
    void* object = nullptr;
    if (p_ == nullptr || FAILED(p_->QueryInterface(iid, &object)) || object == nullptr)
      return com_ptr<U>();
    return com_ptr<U>::adopt(static_cast<U*>(object));
  }

 private:
  void attach(T* p) {
    if (T* old = std::exchange(p_, p)) old->Release();
  }

  T* p_ = nullptr;
};

}  // namespace tarn
