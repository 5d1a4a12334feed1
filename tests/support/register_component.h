// Registers a component library for a class id, as `tarnctl setup` does for the shipped ones.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "platform/registry_store.h"

namespace tarn::test {

inline void register_component(reg_root root, const std::string& clsid,
                               const std::string& library) {
  std::string err;
  auto store = registry_store::open(root, registry_store::access::write, &err);
  ASSERT_TRUE(store) << err;
  ASSERT_TRUE(store->set("Software\\Classes\\CLSID\\" + clsid + "\\InprocServer32", "", kRegSz,
                         reg_sz_bytes(library), &err))
      << err;
}

}  // namespace tarn::test
