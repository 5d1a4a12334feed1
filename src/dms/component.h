// The contract between the gateway and a component library: reference-counted interfaces
// and the one C function each library exports. Strings are UTF-8 std::string at every border
// (gateway and components are built with the same compiler and library). No exception may
// cross this border: every method and the entry point catch everything and return an HRESULT.
#pragma once

#include <cstdint>

#include "dms/hresult.h"

namespace tarn {

// Class and interface ids are their registry spellings, compared case-blind.
using guid_text_t = const char*;

// The interface every object answers to.
constexpr const char* kIidUnknown = "{00000000-0000-0000-C000-000000000046}";

// Raised whenever an interface below changes shape; a library built for another version is
// refused at creation.
constexpr uint32_t kComponentAbiVersion = 1;

// Every component library exports
//   extern "C" HRESULT tarn_create_instance(const char* clsid, const char* iid,
//                                           uint32_t abi_version, void** object);
// It returns S_OK and *object (one reference, of the interface `iid`) or a failure and null:
// CLASS_E_CLASSNOTAVAILABLE for a class it doesn't make, E_NOINTERFACE for an interface the
// class lacks, and kErrorAbiMismatch when abi_version is not its own.
constexpr const char* kComponentEntryPoint = "tarn_create_instance";
using component_entry_fn = HRESULT (*)(const char* clsid, const char* iid, uint32_t abi_version,
                                       void** object);
constexpr HRESULT CLASS_E_CLASSNOTAVAILABLE = static_cast<HRESULT>(0x80040111u);
constexpr HRESULT kErrorAbiMismatch = static_cast<HRESULT>(0x8004000Fu);

class IUnknown {
 public:
  // Adds a reference and gives the object as interface `iid`, or E_NOINTERFACE and null.
  virtual HRESULT QueryInterface(const char* iid, void** object) = 0;
  virtual uint32_t AddRef() = 0;
  // The object deletes itself when the count reaches 0.
  virtual uint32_t Release() = 0;

 protected:
  virtual ~IUnknown() = default;
};

}  // namespace tarn
