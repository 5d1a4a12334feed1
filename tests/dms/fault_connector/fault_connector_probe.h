// The fault connector's counters, read through a dlopen of the test's own: the same instance
// the loader gets, kept loaded so that the counts outlive a handler.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>

namespace tarn::test {

class fault_connector_probe {
 public:
  fault_connector_probe() : library_(dlopen(FAULT_CONNECTOR, RTLD_NOW | RTLD_LOCAL)) {
    EXPECT_NE(library_, nullptr) << dlerror();
    reset();
  }
  ~fault_connector_probe() {
    if (library_ != nullptr) dlclose(library_);
  }
  fault_connector_probe(const fault_connector_probe&) = delete;
  fault_connector_probe& operator=(const fault_connector_probe&) = delete;

  void reset() { call<void>("reset"); }
  std::string calls() { return call<const char*>("calls"); }
  int open_items() { return call<int>("open_items"); }
  int created() { return call<int>("created"); }
  int term_calls() { return call<int>("term_calls"); }

 private:
  template <class R>
  R call(const std::string& name) {
    void* fn = library_ ? dlsym(library_, ("fault_connector_" + name).c_str()) : nullptr;
    if (fn == nullptr) {
      ADD_FAILURE() << "no fault_connector_" << name;
      return R();
    }
    return reinterpret_cast<R (*)()>(fn)();
  }

  void* library_;
};

}  // namespace tarn::test
