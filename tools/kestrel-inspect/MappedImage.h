#pragma once
// A DLL file mapped as the loader would map it, without running any of it: on Linux by a small
// mapper of our own (headers and sections copied to their RVAs), on Windows by the loader's
// own image mapping (a SEC_IMAGE section view).
#include <memory>
#include <string>

namespace inspect {

class MappedImage {
 public:
  // Throws std::runtime_error with a reason when the file cannot be mapped.
  static std::unique_ptr<MappedImage> Map(const std::string& path);
  virtual ~MappedImage() = default;

  virtual const void* base() const = 0;
};

}  // namespace inspect
