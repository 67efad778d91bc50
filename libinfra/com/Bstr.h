#pragma once
// Owns one BSTR and frees it with SysFreeString on every path out of its scope.
#include <string_view>

#include "libinfra/platform/ComAbi.h"

namespace com {

class Bstr {
 public:
  Bstr() noexcept = default;
  ~Bstr() { SysFreeString(value_); }
  Bstr(const Bstr&) = delete;
  Bstr& operator=(const Bstr&) = delete;

  // The out-parameter for a callee that fills a new BSTR.
  BSTR* Put() noexcept {
    SysFreeString(value_);
    value_ = nullptr;
    return &value_;
  }
  // The text, SysStringLen units long; a null BSTR is the empty text.
  std::wstring_view View() const noexcept { return {value_, SysStringLen(value_)}; }

 private:
  BSTR value_ = nullptr;
};

}  // namespace com
