#include "dms/component_loader.h"

#include <dlfcn.h>
#include <gmock/gmock.h>

#include "dms/IDMSHelper.h"
#include "dms/IPdfAttach.h"
#include "support/register_component.h"
#include "support/test_env.h"

namespace tarn {
namespace {

using test::register_component;

class component_loader_test : public test::sandboxed_test {};

// True while some handle keeps the library loaded.
bool is_loaded(const char* path) {
  void* handle = dlopen(path, RTLD_NOW | RTLD_NOLOAD);
  if (handle != nullptr) dlclose(handle);
  return handle != nullptr;
}

TEST_F(component_loader_test, EveryFailedCreationSaysWhyAndLeavesNothing) {
  // A real component, but in a folder where anyone could have put it.
  const std::filesystem::path open_dir = env_.root() / "open";
  const std::string planted = (open_dir / "connector.so").string();
  std::filesystem::create_directory(open_dir);
  std::filesystem::copy_file(FAULT_CONNECTOR, planted);
  std::filesystem::permissions(open_dir, std::filesystem::perms::all);
  const struct {
    const char* name;
    const char* clsid;
    std::string library;  // "" registers nothing
    HRESULT hr;
    std::string reason;  // all of it or its part after the class
  } cases[] = {
      {"unregistered", kClsidDmsConnector, "", REGDB_E_CLASSNOTREG,
       "class {3D91BB51-50A8-4DE6-A8AD-FE23DA9E7C97} is not registered"},
      {"missing file", kClsidDmsConnector, "/no/such/dir/connector.so", kErrorModNotFound,
       ": can't load /no/such/dir/connector.so: /no/such/dir/connector.so: cannot open"},
      {"relative path", kClsidDmsConnector, "fault_connector.so", kErrorModNotFound,
       ": registered library \"fault_connector.so\" is not an absolute path"},
      {"folder anyone may write", kClsidDmsConnector, planted, E_ACCESSDENIED,
       ": refusing to load " + planted + ": " + open_dir.string() + " can be written by others"},
      {"no entry point", kClsidDmsConnector, NO_ENTRY_POINT, kErrorProcNotFound,
       " has no entry point tarn_create_instance: "},
      {"other interface version", kClsidDmsConnector, FAULT_CONNECTOR_NEXT_ABI, kErrorAbiMismatch,
       " is built for another interface version than 1"},
      {"class the library doesn't make", kClsidPdfAttach, FAULT_CONNECTOR,
       CLASS_E_CLASSNOTAVAILABLE,
       "class {F3D21E10-ACE3-4CD1-AA63-7226F6416B06}: " + std::string(FAULT_CONNECTOR) +
           " refused interface {4DA6D6FD-203B-4E40-9419-0D58935D4C62}: 0x80040111"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    test::scoped_test_env env;
    // A working library registered for the user never stands in for the machine's.
    if (!c.library.empty()) {
      register_component(reg_root::current_user, c.clsid, FAULT_CONNECTOR);
      register_component(reg_root::local_machine, c.clsid, c.library);
    }
    component<IDMSHelper> made;
    std::string err;
    EXPECT_EQ(made.create(c.clsid, kIidDmsHelper, &err), c.hr);
    EXPECT_THAT(err, ::testing::HasSubstr(c.reason));
    if (!c.library.empty()) {
      EXPECT_FALSE(is_loaded(c.library.c_str()));
    }
  }
}

TEST_F(component_loader_test, LibraryStaysLoadedAsLongAsItsObject) {
  register_component(reg_root::current_user, kClsidDmsConnector, FAULT_CONNECTOR);
  ASSERT_FALSE(is_loaded(FAULT_CONNECTOR));
  {
    component<IDMSHelper> made;
    ASSERT_EQ(made.create(kClsidDmsConnector, kIidDmsHelper), S_OK);
    auto second = made.query(kIidDmsHelper);
    ASSERT_TRUE(second);
    EXPECT_TRUE(is_loaded(FAULT_CONNECTOR));

    // Moving the component moves the library with it; the object is released first.
    component<IDMSHelper> moved = std::move(made);
    EXPECT_FALSE(made);
    EXPECT_FALSE(made.query(kIidDmsHelper));
    second.reset();
    EXPECT_EQ(moved->InitMgr(), S_OK);
    EXPECT_TRUE(is_loaded(FAULT_CONNECTOR));
  }
  EXPECT_FALSE(is_loaded(FAULT_CONNECTOR));
}

}  // namespace
}  // namespace tarn
