// The 32-bit result codes of the component interfaces: negative means failure.
#pragma once

#include <cstdint>

namespace tarn {

using HRESULT = int32_t;

constexpr HRESULT S_OK = 0;
constexpr HRESULT S_FALSE = 1;
constexpr HRESULT E_NOTIMPL = static_cast<HRESULT>(0x80004001u);
constexpr HRESULT E_NOINTERFACE = static_cast<HRESULT>(0x80004002u);
constexpr HRESULT E_POINTER = static_cast<HRESULT>(0x80004003u);
constexpr HRESULT E_FAIL = static_cast<HRESULT>(0x80004005u);
constexpr HRESULT E_UNEXPECTED = static_cast<HRESULT>(0x8000FFFFu);
constexpr HRESULT E_ACCESSDENIED = static_cast<HRESULT>(0x80070005u);
constexpr HRESULT E_OUTOFMEMORY = static_cast<HRESULT>(0x8007000Eu);
constexpr HRESULT E_INVALIDARG = static_cast<HRESULT>(0x80070057u);

// Windows error codes as results (0x8007 and the code), for the causes components report.
constexpr HRESULT kHrFileNotFound = static_cast<HRESULT>(0x80070002u);
constexpr HRESULT kHrPathNotFound = static_cast<HRESULT>(0x80070003u);
constexpr HRESULT kHrInvalidHandle = static_cast<HRESULT>(0x80070006u);
constexpr HRESULT kHrInvalidData = static_cast<HRESULT>(0x8007000Du);
constexpr HRESULT kHrWriteProtect = static_cast<HRESULT>(0x80070013u);
constexpr HRESULT kHrDiskFull = static_cast<HRESULT>(0x80070070u);
constexpr HRESULT kHrBusy = static_cast<HRESULT>(0x800700AAu);
constexpr HRESULT kHrInvalidPassword = static_cast<HRESULT>(0x8007056Bu);

constexpr bool SUCCEEDED(HRESULT hr) { return hr >= 0; }
constexpr bool FAILED(HRESULT hr) { return hr < 0; }

}  // namespace tarn
